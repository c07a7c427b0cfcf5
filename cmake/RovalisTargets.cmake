# Warning and sanitizer flags for the project's own targets. They stay PRIVATE so
# that nothing leaks into third-party code or into a host that links the SDK.
function(rovalis_target_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  if(ROVALIS_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${ROVALIS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${ROVALIS_SANITIZE})
  endif()
endfunction()

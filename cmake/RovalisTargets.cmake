# Warning and sanitizer flags for the project's own targets. They stay PRIVATE so that
# nothing leaks into third-party code or into a host that links the SDK.
function(rovalis_target_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  # Debug information and __FILE__ name the sources relative to the project, so that no path
  # of the build machine ends up in an installed binary.
  target_compile_options(${target} PRIVATE
    -ffile-prefix-map=${PROJECT_BINARY_DIR}/=
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  if(ROVALIS_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(ROVALIS_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${ROVALIS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${ROVALIS_SANITIZE})
  endif()
endfunction()

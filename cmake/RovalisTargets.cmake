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
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 at -O3 miscompiles a speculatively devirtualized call through a this-adjusting
    # thunk: renewBatchIdentityAfter's call of CredentialsManager::bumpSequentialId became a
    # jump to memcpy, which crashed every upload of a Release build.
    target_compile_options(${target} PRIVATE -fno-devirtualize-speculatively)
  endif()
  if(ROVALIS_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${ROVALIS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${ROVALIS_SANITIZE})
  endif()
endfunction()

# The installed device list's directory relative to an installed directory (the library's or the
# programs'): a relocated installation then finds its own, and no path of this machine goes
# into a binary.
function(rovalis_data_dir_relative_to variable from_dir)
  set(prefix "/prefix")
  foreach(dir from_dir CMAKE_INSTALL_DATADIR)
    if(IS_ABSOLUTE "${${dir}}")
      set(${dir}_full "${${dir}}")
    else()
      set(${dir}_full "${prefix}/${${dir}}")
    endif()
  endforeach()
  file(RELATIVE_PATH relative "${from_dir_full}" "${CMAKE_INSTALL_DATADIR_full}/rovalis")
  set(${variable} "${relative}" PARENT_SCOPE)
endfunction()

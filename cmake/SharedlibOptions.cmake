# Compile options applied to our own targets only (never global flags).
function(sharedlib_target_options target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wshadow -Woverloaded-virtual -Wnon-virtual-dtor
    -Wcast-align -Wnull-dereference -Wformat=2 -Wimplicit-fallthrough)
  if(SHAREDLIB_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  sharedlib_sanitize(${target})
endfunction()

function(sharedlib_sanitize target)
  if(SHAREDLIB_SANITIZE STREQUAL "address")
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  elseif(SHAREDLIB_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  elseif(NOT SHAREDLIB_SANITIZE STREQUAL "")
    message(FATAL_ERROR "SHAREDLIB_SANITIZE must be empty, 'address' or 'thread'")
  endif()
endfunction()

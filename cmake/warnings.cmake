# Call on every target of our own. Thread-safety analysis is clang's; the annotations name the lock
# of each shared field.
function(tessel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(TESSEL_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Call on every test program: what it tests is built as it ships, but the tests themselves take a
# sanitizing optimiser five times as long to compile, and gain nothing.
function(tessel_quick_compile target)
  if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(${target} PRIVATE -O0 -g1)
  endif()
endfunction()

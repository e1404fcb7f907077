# Sanitizers go on everything that is built: half a program under one finds nothing, or too much.
if(TESSEL_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(TESSEL_SANITIZER STREQUAL "thread")
  # Needs a libzmq that is built the same way: its queues synchronise where ThreadSanitizer would
  # not see it. Its folder comes first, also at run time.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread -Wl,--disable-new-dtags)
  list(APPEND CMAKE_BUILD_RPATH ${libzmq_LIBRARY_DIRS} ${libzmq_LIBDIR})
elseif(TESSEL_SANITIZER)
  message(FATAL_ERROR "TESSEL_SANITIZER is \"\", address or thread, not ${TESSEL_SANITIZER}")
endif()

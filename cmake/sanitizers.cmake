# Sanitizers go on everything that is built: half a program under one finds nothing, or too much.
if(TESSEL_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(TESSEL_SANITIZER STREQUAL "thread")
  # Needs a libzmq that is built the same way: its queues synchronise where ThreadSanitizer would
  # not see it. Its folder comes first, also at run time.
  find_library(tessel_tsan_libzmq zmq PATHS ${libzmq_LIBRARY_DIRS} ${libzmq_LIBDIR}
               NO_DEFAULT_PATH REQUIRED)
  execute_process(COMMAND ${CMAKE_NM} -D ${tessel_tsan_libzmq} OUTPUT_VARIABLE symbols)
  if(NOT symbols MATCHES " __tsan_init")
    message(FATAL_ERROR "${tessel_tsan_libzmq} is built without ThreadSanitizer: "
                        "run scripts/tsan_libzmq, then cmake --fresh --preset tsan")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread -Wl,--disable-new-dtags)
  list(APPEND CMAKE_BUILD_RPATH ${libzmq_LIBRARY_DIRS} ${libzmq_LIBDIR})
elseif(TESSEL_SANITIZER)
  message(FATAL_ERROR "TESSEL_SANITIZER is \"\", address or thread, not ${TESSEL_SANITIZER}")
endif()

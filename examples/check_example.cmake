# cmake -D PROGRAM=... -D SOURCE=... [-D ARGUMENTS=...] -P check_example.cmake
# Fails unless the program prints what the comment at the end of its source says and ends well, and
# unless it explains itself when it is asked to and refuses what it does not know. One that waits
# for a line gets it.

function(run_example arguments expected_status)
  execute_process(COMMAND ${PROGRAM} ${arguments} TIMEOUT 100 INPUT_FILE ${SOURCE}
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT status EQUAL expected_status OR NOT errors STREQUAL "")
    message(FATAL_ERROR "${PROGRAM} ${arguments}: status ${status}\n${output}${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

file(READ ${SOURCE} source)
set(mark "\n// Output:\n")
string(FIND "${source}" "${mark}" begin REVERSE)
if(begin EQUAL -1)
  message(FATAL_ERROR "${SOURCE} does not say what it prints")
endif()
string(LENGTH "${mark}" length)
math(EXPR begin "${begin} + ${length}")
string(SUBSTRING "${source}" ${begin} -1 expected)
string(REGEX REPLACE "(^|\n)// ?" "\\1" expected "${expected}")

run_example("${ARGUMENTS}" 0)
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "expected:\n${expected}\nprinted:\n${output}")
endif()

get_filename_component(name ${SOURCE} NAME_WE)
run_example(--help 0)
if(NOT output MATCHES "^usage: ${name} ")
  message(FATAL_ERROR "no usage:\n${output}")
endif()
run_example(--nonsense 2)

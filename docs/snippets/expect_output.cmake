# Runs PROGRAM and fails unless it ends well and prints what stands in the file EXPECTED.
execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE printed RESULT_VARIABLE result)
file(READ ${EXPECTED} expected)
if(NOT result EQUAL 0 OR NOT printed STREQUAL expected)
  message(FATAL_ERROR "ended with ${result}; expected:\n${expected}\nprinted:\n${printed}")
endif()

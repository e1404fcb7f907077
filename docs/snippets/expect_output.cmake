# Runs PROGRAM and fails unless it ends well and prints what stands in the file EXPECTED.
execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE printed RESULT_VARIABLE result)
file(READ ${EXPECTED} expected)
string(REGEX REPLACE "# \\[[a-z_]+\\]\n" "" expected "${expected}")  # where regions begin and end
if(NOT result EQUAL 0 OR NOT printed STREQUAL expected)
  message(FATAL_ERROR "ended with ${result}; expected:\n${expected}\nprinted:\n${printed}")
endif()

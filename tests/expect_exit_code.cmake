# Runs COMMAND (a ;-list) and fails unless it exits with EXPECTED; prints what it wrote.
execute_process(COMMAND ${COMMAND} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${out}${err}")
if(NOT code STREQUAL "${EXPECTED}")
  message(FATAL_ERROR "exit code ${code}, expected ${EXPECTED}")
endif()

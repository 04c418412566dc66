# Runs VORN with the arguments ARGS (separated by "|") and fails unless it exits with EXPECT and its
# standard output matches OUTPUT (when given), and that the file ABSENT (when given) does not exist.
string(REPLACE "|" ";" arguments "${ARGS}")
execute_process(COMMAND ${VORN} ${arguments} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL EXPECT)
  message(FATAL_ERROR "exit code ${rc}, expected ${EXPECT}\nstdout: ${out}\nstderr: ${err}")
endif()
if(DEFINED OUTPUT AND NOT out MATCHES "${OUTPUT}")
  message(FATAL_ERROR "output does not match '${OUTPUT}':\n${out}")
endif()
if(DEFINED ABSENT AND EXISTS "${ABSENT}")
  message(FATAL_ERROR "${ABSENT} was written")
endif()

# Fails when a C++ source of the project differs from what clang-format makes of it.
find_program(CLANG_FORMAT NAMES clang-format clang-format-14 REQUIRED)
file(GLOB_RECURSE sources ${SOURCE_DIR}/core/*.h ${SOURCE_DIR}/core/*.cpp
  ${SOURCE_DIR}/datalayer/*.h ${SOURCE_DIR}/datalayer/*.cpp
  ${SOURCE_DIR}/tools/*.h ${SOURCE_DIR}/tools/*.cpp
  ${SOURCE_DIR}/tests/*.h ${SOURCE_DIR}/tests/*.cpp
  ${SOURCE_DIR}/bench/*.h ${SOURCE_DIR}/bench/*.cpp
  ${SOURCE_DIR}/vorn2_algorithms.h)
execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror ${sources}
  RESULT_VARIABLE result ERROR_VARIABLE report)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "not formatted (run make format):\n${report}")
endif()

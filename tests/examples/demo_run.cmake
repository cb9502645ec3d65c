# Runs the demo program once and checks its exit status and summary.
#   -DDEMO=<program> -DWORK_DIR=<dir> -DARGS=<;-list> -DEXPECT_RC=<n>
#   -DEXPECT=<regular expressions the output must match>
# ARGS and EXPECT are lists joined by "@@".
string(REPLACE "@@" ";" ARGS "${ARGS}")
string(REPLACE "@@" ";" EXPECT "${EXPECT}")
file(MAKE_DIRECTORY ${WORK_DIR})
execute_process(COMMAND ${DEMO} ${ARGS}
  WORKING_DIRECTORY ${WORK_DIR}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err
  TIMEOUT 100)
message("${out}${err}")
if(NOT rc STREQUAL "${EXPECT_RC}")
  message(FATAL_ERROR "exit status ${rc}, expected ${EXPECT_RC}")
endif()
foreach(re IN LISTS EXPECT)
  if(NOT out MATCHES "${re}")
    message(FATAL_ERROR "output does not match: ${re}")
  endif()
endforeach()

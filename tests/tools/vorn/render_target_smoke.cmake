# Runs `vorn render-target` as a user would and checks its exit codes and the files it writes.
# Arguments: -DVORN=<path of vorn> -DWORK_DIR=<scratch directory>
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(expect_exit code)
  execute_process(COMMAND ${VORN} render-target ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL code)
    message(FATAL_ERROR "render-target ${ARGN}: exit ${rc}, expected ${code}\n${out}${err}")
  endif()
endfunction()

# Written out rather than through expect_exit, which would split the ";" of --omit.
set(omit "0,0;4,3")
execute_process(COMMAND ${VORN} render-target ${WORK_DIR}/t.png --width 320 --height 240 --columns 5 --rows 4
  --spacing 50 --diameter 20 --omit "${omit}" --origin=-1,2 --truth ${WORK_DIR}/t.csv
  --pattern-out ${WORK_DIR}/t.txt --blur 1 --noise 2 --seed 3 RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "render-target: exit ${rc}\n${out}${err}")
endif()
file(READ ${WORK_DIR}/t.txt pattern)
if(NOT pattern STREQUAL ".xxxx\nxxxxx\nxxxxx\nxxxx.\n")
  message(FATAL_ERROR "unexpected pattern:\n${pattern}")
endif()
file(STRINGS ${WORK_DIR}/t.csv truth)
list(LENGTH truth lines)
list(GET truth 0 header)
list(GET truth 1 first)
if(NOT lines EQUAL 19 OR NOT header STREQUAL "gridX,gridY,x,y" OR NOT first STREQUAL "0,2,109.500000,44.500000")
  message(FATAL_ERROR "unexpected truth (${lines} lines): ${header} / ${first}")
endif()
file(READ ${WORK_DIR}/t.png signature LIMIT 4 HEX)
if(NOT signature STREQUAL "89504e47")
  message(FATAL_ERROR "t.png is not a PNG file")
endif()

# Bad usage and impossible settings exit with 2, a picture without a whole mark with 1.
expect_exit(2 ${WORK_DIR}/bad.png --omit "9,9")
expect_exit(2 ${WORK_DIR}/bad.png --homography 1,0,0,0,1)
expect_exit(2 ${WORK_DIR}/bad.png --diameter -3)
expect_exit(2 ${WORK_DIR}/bad.gif)
expect_exit(2 ${WORK_DIR}/no/such/dir/t.png)
expect_exit(1 ${WORK_DIR}/tiny.png --width 30 --height 30 --diameter 40)

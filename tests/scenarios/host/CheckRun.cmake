# Runs calvarine-script and compares its exit status and its standard output
# with what is expected.
#   cmake -DSCRIPT=exe -DARGS="a;b" -DSTATUS=n -DEXPECTED=file [-DPREPARE=file] -P CheckRun.cmake
if(PREPARE)
  get_filename_component(dir ${PREPARE} DIRECTORY)
  file(MAKE_DIRECTORY ${dir})
  file(WRITE ${PREPARE} "left by an earlier run\n")
endif()
execute_process(COMMAND ${SCRIPT} ${ARGS} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_QUIET)
file(READ ${EXPECTED} expected)
if(NOT status STREQUAL STATUS)
  message(FATAL_ERROR "exit status ${status}, expected ${STATUS}\n${output}")
endif()
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "output:\n${output}\nexpected:\n${expected}")
endif()

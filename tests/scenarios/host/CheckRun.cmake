# Runs calvarine-script and compares its exit status and its standard output
# with what is expected.
#   cmake -DSCRIPT=exe -DARGS="a;b" -DSTATUS=n -DEXPECTED=file [-DCLEAN=dir] [-DPREPARE=file]
#         [-DKEPT=file] [-DABSENT=file] [-DFILTER=text] -P CheckRun.cmake
# CLEAN is removed first; PREPARE is written before the run; KEPT must still be
# there after it, ABSENT must not; FILTER is replaced by DIR in the output
# before comparing.
if(CLEAN)
  file(REMOVE_RECURSE ${CLEAN})
endif()
if(PREPARE)
  get_filename_component(dir ${PREPARE} DIRECTORY)
  file(MAKE_DIRECTORY ${dir})
  file(WRITE ${PREPARE} "left by an earlier run\n")
endif()
execute_process(COMMAND ${SCRIPT} ${ARGS} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_QUIET)
file(READ ${EXPECTED} expected)
if(FILTER)
  string(REPLACE "${FILTER}" "DIR" output "${output}")
endif()
if(KEPT AND NOT EXISTS ${KEPT})
  message(FATAL_ERROR "${KEPT} was removed")
endif()
if(ABSENT AND EXISTS ${ABSENT})
  message(FATAL_ERROR "${ABSENT} was made")
endif()
if(NOT status STREQUAL STATUS)
  message(FATAL_ERROR "exit status ${status}, expected ${STATUS}\n${output}")
endif()
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "output:\n${output}\nexpected:\n${expected}")
endif()

# The `format` target: clang-format -i, with the root .clang-format, over the
# project's C++ sources. Included from the root CMakeLists.txt it defines the
# target (only when clang-format is installed); run by that target in script
# mode it lists the sources then, so files added since the configure are formatted too.
set(CALVARINE_FORMAT_FOLDERS src platform apps tests bench)

if(CMAKE_SCRIPT_MODE_FILE)
  set(patterns)
  foreach(folder IN LISTS CALVARINE_FORMAT_FOLDERS)
    list(APPEND patterns ${ROOT}/${folder}/*.cpp ${ROOT}/${folder}/*.h)
  endforeach()
  file(GLOB_RECURSE sources ${patterns})
  list(LENGTH sources count)
  message(STATUS "clang-format: ${count} files")
  execute_process(COMMAND ${CLANG_FORMAT} -i ${sources} RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "clang-format failed")
  endif()
  return()
endif()

find_program(CLANG_FORMAT NAMES clang-format clang-format-16 clang-format-15 clang-format-14)
if(CLANG_FORMAT)
  add_custom_target(format
    COMMAND ${CMAKE_COMMAND} -DCLANG_FORMAT=${CLANG_FORMAT} -DROOT=${PROJECT_SOURCE_DIR} -P ${CMAKE_CURRENT_LIST_FILE}
    COMMENT "Formatting the sources with ${CLANG_FORMAT}"
    VERBATIM)
endif()

# Run by ctest: fails when clang-format would change a file. In a script of its own, because the list
# of files is made when it runs. SOURCE_DIR, CLANG_FORMAT: what to check, and with which program.
cmake_minimum_required(VERSION 3.25)
file(GLOB_RECURSE files RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/*.cpp ${SOURCE_DIR}/*.h)
list(FILTER files EXCLUDE REGEX "^build")
if(NOT "platform/http_service.h" IN_LIST files)
  message(FATAL_ERROR "no sources found in ${SOURCE_DIR}")
endif()
execute_process(COMMAND ${CLANG_FORMAT} --dry-run -Werror --ferror-limit=1 ${files}
                WORKING_DIRECTORY ${SOURCE_DIR} RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "not formatted: run clang-format -i on the files above")
endif()

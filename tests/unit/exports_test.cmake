# The module's binary surface: exactly its three entry functions are visible, and it asks for nothing
# but the platform, jsoncpp, simdjson and the system.
# Variables: MODULE (the library), NM, SANITIZED (a sanitizer's runtime stands in for the C library).

function(symbols_of result)
  execute_process(COMMAND ${NM} -D -C ${ARGN} ${MODULE} OUTPUT_VARIABLE text
                  COMMAND_ERROR_IS_FATAL ANY)
  string(REPLACE ";" "," text "${text}")
  string(REGEX MATCHALL "[^\n]+" lines "${text}")
  set(${result} ${lines} PARENT_SCOPE)
endfunction()

symbols_of(defined --defined-only)
set(exported)
foreach(line IN LISTS defined)
  string(REGEX REPLACE "^[0-9a-f]* . " "" name "${line}")
  list(APPEND exported "${name}")
endforeach()
list(SORT exported)
set(expected QN_Protocol_HTTPProcess QN_Protocol_Init QN_Protocol_Uninit)
if(NOT "${exported}" STREQUAL "${expected}")
  message(SEND_ERROR "exported: ${exported}\nexpected: ${expected}")
endif()

set(allowed
    "@(GLIBC|GLIBCXX|CXXABI|GCC)_"
    "^(typeinfo for |vtable for )?(Json|QNBase|QNHttpService|simdjson)::"
    "^(QN_[A-Z]|ZRT_[A-Z]|DriverCif_)[A-Za-z0-9_]+\\("
    "^(wlog_format|CreateNonce|StringEraseXssInvalidChar|CheckPortOccupy|getBinPart)\\("
    "^(getResponseStatusByErrorNo|getHttpStatusCodeByErrorNo)\\("
    "^(getISO8601Time|GetCurTime8601)(\\[abi:cxx11\\])?\\(")
if(SANITIZED)
  list(APPEND allowed "^[a-z_][a-z0-9_]*$" "^operator (new|delete)")
endif()
list(JOIN allowed "|" pattern)

symbols_of(undefined --undefined-only)
if(NOT undefined MATCHES "wlog_format")
  message(SEND_ERROR "nothing undefined was read: ${undefined}")
endif()
foreach(line IN LISTS undefined)
  if(line MATCHES "^ *U (.*)$" AND NOT CMAKE_MATCH_1 MATCHES "${pattern}")
    message(SEND_ERROR "unexpected dependency: ${line}")
  endif()
endforeach()

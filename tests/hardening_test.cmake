# What an attacker who finds a fault in a program or library of ours has to deal with, read from the
# built file. Variables: FILE, FUNCTION (one of its symbols), READELF, OBJDUMP, OPTIMISED (the C
# library's checked functions need that), SANITIZED (has checked functions of its own).
function(read result)
  execute_process(COMMAND ${READELF} --wide ${ARGN} ${FILE} OUTPUT_VARIABLE text
                  COMMAND_ERROR_IS_FATAL ANY)
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

function(expect text pattern what)
  if(NOT text MATCHES "${pattern}")
    message(SEND_ERROR "${FILE}: ${what}")
  endif()
endfunction()

read(header --file-header)
expect("${header}" "Type: +DYN" "its addresses are known: not position-independent")
read(segments --program-headers)
expect("${segments}" "GNU_RELRO" "no read-only relocations")
expect("${segments}" "GNU_STACK[^\n]* RW " "an executable stack")
read(dynamic --dynamic)
expect("${dynamic}" "FLAGS_1[^\n]*NOW" "symbols are bound late, so their table can be written to")
read(symbols --dyn-syms)
expect("${symbols}" "__stack_chk_fail" "no stack protector")
if(OPTIMISED AND NOT SANITIZED)
  expect("${symbols}" "__[a-z]+_chk@" "no checked functions of the C library")
endif()
if(header MATCHES "X86-64")
  execute_process(COMMAND ${OBJDUMP} --disassemble=${FUNCTION} ${FILE} OUTPUT_VARIABLE code
                  COMMAND_ERROR_IS_FATAL ANY)
  expect("${code}" "<${FUNCTION}>:\n[^\n]*endbr64" "no control-flow protection")
endif()

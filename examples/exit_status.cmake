# Runs PROGRAM with one ARGUMENT through EMULATOR, if any, and fails unless it
# exits with EXPECTED and its answer is the usage text, ending in a newline.
set(command ${PROGRAM} ${ARGUMENT})
if(EMULATOR)
  set(command ${EMULATOR} ${PROGRAM} ${ARGUMENT})
endif()
execute_process(COMMAND ${command} RESULT_VARIABLE result OUTPUT_VARIABLE out
  ERROR_VARIABLE err)
if(NOT result STREQUAL "${EXPECTED}")
  message(FATAL_ERROR "exit status ${result}, expected ${EXPECTED}\n${out}${err}")
endif()
set(answer "${out}${err}")
if(NOT answer MATCHES "usage: quillon_demo")
  message(FATAL_ERROR "no usage in the answer:\n${answer}")
endif()
string(REPLACE "\r\n" "\n" answer "${answer}")
if(NOT answer MATCHES "\n$")
  message(FATAL_ERROR "the answer does not end with a newline:\n${answer}")
endif()

# Runs polctl once and checks what it did:
#   cmake -DPOLCTL=<exe> -DARGS="run|a.xml|b.txt" -DWORKDIR=<dir> -DEXPECT_RC=<n>
#         [-DGOLDEN=<file>] [-DGOLDEN_ERR=<file>] [-DERR_REGEX=<re>] [-DOUT_REGEX=<re>]
#         [-DMASK_POINTERS=1] -P polctl_check.cmake
# ARGS separates the arguments with "|". GOLDEN and GOLDEN_ERR are compared
# with standard output and standard error; with POLCTL_UPDATE_GOLDEN set in
# the environment they are rewritten instead. A sanitizer report fails the
# check whatever the exit status. MASK_POINTERS replaces the addresses dumps
# print (0x...) with 0xPTR before the comparison.
string(REPLACE "|" ";" args "${ARGS}")
execute_process(COMMAND ${POLCTL} ${args}
  WORKING_DIRECTORY ${WORKDIR}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(MASK_POINTERS)
  string(REGEX REPLACE "0x(0x)?[0-9a-f]+" "0xPTR" out "${out}")
endif()
set(report "polctl ${args}\n--- exit ${rc}\n--- stdout\n${out}--- stderr\n${err}")
if(err MATCHES "ERROR: AddressSanitizer|ERROR: LeakSanitizer|runtime error:")
  message(FATAL_ERROR "sanitizer report\n${report}")
endif()
if(NOT rc STREQUAL "${EXPECT_RC}")
  message(FATAL_ERROR "exit status ${rc}, expected ${EXPECT_RC}\n${report}")
endif()
if(OUT_REGEX AND NOT out MATCHES "${OUT_REGEX}")
  message(FATAL_ERROR "stdout does not match ${OUT_REGEX}\n${report}")
endif()
if(ERR_REGEX AND NOT err MATCHES "${ERR_REGEX}")
  message(FATAL_ERROR "stderr does not match ${ERR_REGEX}\n${report}")
endif()
foreach(pair "GOLDEN;out" "GOLDEN_ERR;err")
  list(GET pair 0 var)
  list(GET pair 1 stream)
  if(NOT ${var})
    continue()
  endif()
  set(actual "${${stream}}")
  if(DEFINED ENV{POLCTL_UPDATE_GOLDEN})
    file(WRITE ${${var}} "${actual}")
    continue()
  endif()
  file(READ ${${var}} want)
  if(NOT actual STREQUAL want)
    get_filename_component(name ${${var}} NAME)
    set(actual_file ${CMAKE_CURRENT_BINARY_DIR}/${name}.actual)
    file(WRITE ${actual_file} "${actual}")
    execute_process(COMMAND diff -u ${${var}} ${actual_file} OUTPUT_VARIABLE delta)
    message(FATAL_ERROR "${stream} differs from ${${var}}:\n${delta}")
  endif()
endforeach()

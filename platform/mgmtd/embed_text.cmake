# Writes a C++ header that holds a text file as a string constant:
#   cmake -DIN=<file> -DOUT=<header> -DNAME=<constant> -P embed_text.cmake
file(READ "${IN}" text)
string(FIND "${text}" ")zentext\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${IN} contains the raw-string delimiter")
endif()
file(WRITE "${OUT}.tmp"
  "// Generated from ${IN}; do not edit.\n#pragma once\nnamespace zen {\n"
  "inline constexpr const char ${NAME}[] = R\"zentext(${text})zentext\";\n}\n")
file(COPY_FILE "${OUT}.tmp" "${OUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUT}.tmp")

# SPDX-License-Identifier: MIT
# cmake -DINPUT=<source header> -DOUTPUT=<staged header> -P QVHandoffStageHeader.cmake
file(READ ${INPUT} text)
string(REGEX REPLACE "#include \"(Foundation|Network)/([^\"]+)\"" "#include <QVHandoff/\\1/\\2>" text "${text}")
string(REGEX REPLACE "#include \"QVHandoff/([^\"]+)\"" "#include <QVHandoff/\\1>" text "${text}")
# Only a changed header is rewritten, so that hosts' objects are not rebuilt for nothing.
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} previous)
  if(previous STREQUAL text)
    return()
  endif()
endif()
file(WRITE ${OUTPUT} "${text}")

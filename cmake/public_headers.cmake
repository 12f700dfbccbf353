# Installs the headers that an application reaches: the umbrella headers and, from there, every header that one of them includes.
#
#   SOURCE  the project's folder
#   TARGET  the folder of headers to install into
cmake_policy(VERSION 3.25)
set(open talvo/talvo.h talvo/co.h talvo/callbacks.h)
set(seen ${open})
while(open)
  list(POP_FRONT open header)
  get_filename_component(folder ${header} DIRECTORY)
  file(INSTALL ${SOURCE}/${header} DESTINATION ${TARGET}/${folder})
  file(STRINGS ${SOURCE}/${header} lines REGEX "^#include \"talvo/")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" next ${line})
    if(NOT next IN_LIST seen)
      list(APPEND seen ${next})
      list(APPEND open ${next})
    endif()
  endforeach()
endwhile()

# One place for the warnings, the sanitizers and their flags; every target of the project links it privately.
add_library(talvo_warnings INTERFACE)
# Where several files are one unit, two of the warnings concern the names of a neighbour.
set(in_units $<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>)
set(is_gnu $<CXX_COMPILER_ID:GNU>)
target_compile_options(talvo_warnings INTERFACE -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual
  $<$<NOT:${in_units}>:-Wshadow> $<$<AND:${in_units},${is_gnu}>:-Wshadow=local$<SEMICOLON>-Wno-subobject-linkage>)
if(TALVO_WARNINGS_AS_ERRORS)
  target_compile_options(talvo_warnings INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # GCC 12 sees overlapping copies in std::string's own operator+ when it optimises (its bug 105329).
  target_compile_options(talvo_warnings INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(talvo_warnings INTERFACE -Wthread-safety)
endif()
if(TALVO_SANITIZE)
  add_compile_options(-fsanitize=${TALVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TALVO_SANITIZE})
  # Clang 14 cannot emit a coroutine with this check ("Cannot represent a difference across sections").
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,Clang>:-fno-sanitize=function>)
endif()

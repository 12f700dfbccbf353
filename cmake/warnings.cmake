# One place for the warnings, the sanitizers and their flags; every target of the project links it privately.
add_library(talvo_warnings INTERFACE)
target_compile_options(talvo_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
                                                -Wcast-qual)
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
if(CMAKE_UNITY_BUILD)
  # Of names in a neighbour's file. The release build looks for both.
  target_compile_options(talvo_warnings INTERFACE -Wno-shadow $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()
if(TALVO_SANITIZE)
  add_compile_options(-fsanitize=${TALVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TALVO_SANITIZE})
endif()

# A static library as an archive with one member. Of several members the linker takes only those that the program names, and
# leaves out those that only fill, before main, the slots of the rooms below them.

# talvo_join_objects(OUT TARGET): sets OUT to one object of those of the object library TARGET.
function(talvo_join_objects OUT TARGET)
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  set(objects $<FILTER:$<TARGET_OBJECTS:${TARGET}>,EXCLUDE,[.]gch$>)  # without the precompiled headers
  set(object ${PROJECT_BINARY_DIR}/lib${TARGET}.o)
  add_custom_command(OUTPUT ${object}
    COMMAND ${CMAKE_CXX_COMPILER} ${flags} -nostdlib -r -o ${object} ${objects}
    DEPENDS ${objects} COMMAND_EXPAND_LISTS VERBATIM)
  set(${OUT} ${object} PARENT_SCOPE)
endfunction()

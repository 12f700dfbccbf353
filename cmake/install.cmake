# What `cmake --install` puts where: the library (component runtime), its headers, CMake package and pkg-config files
# (development), the programs and what belongs to them (tools). The tree may be moved after it was installed: nothing in it
# names the prefix.
include(CMakePackageConfigHelpers)

set(talvo_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/talvo)

install(TARGETS talvo EXPORT talvo-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
# The inner headers stay behind.
install(CODE "set(SOURCE \"${PROJECT_SOURCE_DIR}\")
  set(TARGET \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/public_headers.cmake\")" COMPONENT development)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development FILES_MATCHING PATTERN *.cc)
# The library for tests: find_package(talvo COMPONENTS testing), or by itself with `cmake --install BUILD --component testing`.
install(TARGETS talvo_testing talvo_testing_faults EXPORT talvo-testing-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT testing)
foreach(header channel_log fake_clock faults scripted_http scripted_transport sim_forward_model sim_intruder sim_link sim_network sim_observer sim_pair sim_peer sim_reliable_peer sim_seeds sim_wild_peer sim_wild_sides testing trace_capture upcall_log)
  install(FILES talvo/testing/${header}.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/talvo/testing COMPONENT testing)
endforeach()
file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
if(TARGET talvo_tool)
  install(TARGETS talvo_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  set_target_properties(talvo_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
  install(FILES tools/wireshark/talvo.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/talvo/wireshark COMPONENT tools)
endif()
if(TARGET talvo_pages)
  set(pages ${PROJECT_BINARY_DIR}/tools/pages)
  install(DIRECTORY ${pages}/man1 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools OPTIONAL)
  install(DIRECTORY ${pages}/bash/ DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools OPTIONAL)
  install(DIRECTORY ${pages}/fish/ DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools OPTIONAL)
  # Where zsh looks depends on the prefix.
  install(CODE "set(functions site-functions)
  if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(functions vendor-completions)
  endif()
  file(INSTALL \"${pages}/zsh/_talvo\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/zsh/\${functions}\" OPTIONAL)"
    COMPONENT tools)
endif()
# Where the library looks for it, see talvo/proxy/script/pac_place.h.
if(TARGET talvo_pac)
  install(TARGETS talvo_pac RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/${TALVO_HELPERS} COMPONENT runtime)
endif()
# Benchmark programs that anyone can drive; by themselves with `cmake --install BUILD --component benchmark`.
foreach(program echo msg timers threads http http_parse)
  if(TARGET talvo_bench_${program})
    install(TARGETS talvo_bench_${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT benchmark)
    set_target_properties(talvo_bench_${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
  endif()
endforeach()

install(EXPORT talvo-targets NAMESPACE talvo:: DESTINATION ${talvo_package_dir} COMPONENT development)
install(EXPORT talvo-testing-targets NAMESPACE talvo:: DESTINATION ${talvo_package_dir} COMPONENT testing)
configure_package_config_file(cmake/talvo-config.cmake.in talvo-config.cmake INSTALL_DESTINATION ${talvo_package_dir}
                              NO_SET_AND_CHECK_MACRO)
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(talvo-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/talvo-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/talvo-config-version.cmake
        DESTINATION ${talvo_package_dir} COMPONENT development)

# A program over the shared library needs no library below it; pkg-config --static names them, too.
set(TALVO_PC_REQUIRES Requires.private)
if(TALVO_STATIC)
  set(TALVO_PC_REQUIRES Requires)
endif()
file(RELATIVE_PATH TALVO_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/talvo.pc.in talvo.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/talvo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
configure_file(cmake/talvo-testing.pc.in talvo-testing.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/talvo-testing.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT testing)

if(PROJECT_IS_TOP_LEVEL)
  add_custom_target(uninstall COMMAND ${CMAKE_COMMAND} -DBUILD=${PROJECT_BINARY_DIR} -P ${PROJECT_SOURCE_DIR}/cmake/uninstall.cmake
                    COMMENT "Removing what the last installation wrote" VERBATIM)
endif()

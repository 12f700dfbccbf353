# Debian packages by `cpack`: the library, its development files, the programs, and the debug information of each. The preset
# "package" builds what they hold.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME talvo)
set(CPACK_PACKAGE_CONTACT "Talvo maintainers <maintainers@talvo.invalid>" CACHE STRING "The maintainer of the packages: NAME <MAIL>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development testing tools)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/finish.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/finish_dbgsym.cmake)

set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(release "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtalvo${TALVO_SOVERSION})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "One shared library: a network thread, event queues and timers,
 transports over TCP, UDP and TLS, HTTP, and connections for messages.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtalvo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtalvo${TALVO_SOVERSION} ${release}, libc-ares-dev, libssl-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "The headers, the files for CMake and pkg-config, the examples,
 and the library for tests of applications.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME talvo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtalvo${TALVO_SOVERSION} ${release}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "The program talvo sends files, measures connections, and serves
 and fetches over HTTP. A Wireshark dissector shows the protocol.")

include(CPack)
cpack_add_component_group(development)
cpack_add_component(development GROUP development)
cpack_add_component(testing GROUP development)

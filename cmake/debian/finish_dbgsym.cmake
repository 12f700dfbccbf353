# Mends each package of debug information: cpack writes the paths of the build into its list of checksums and gives it no
# documents. They are those of the package that the debug information belongs to.
cmake_policy(VERSION 3.25)

foreach(ddeb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT ddeb MATCHES "/([^/]+)-dbgsym_[^/]*[.]ddeb$")
    continue()
  endif()
  set(name ${CMAKE_MATCH_1})
  set(tree ${ddeb}.tree)
  execute_process(COMMAND dpkg-deb --raw-extract ${ddeb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(MAKE_DIRECTORY ${tree}/usr/share/doc)
  file(CREATE_LINK ${name} ${tree}/usr/share/doc/${name}-dbgsym SYMBOLIC)
  file(GLOB_RECURSE files RELATIVE ${tree} ${tree}/usr/lib/*)
  execute_process(COMMAND md5sum ${files} WORKING_DIRECTORY ${tree} OUTPUT_FILE ${tree}/DEBIAN/md5sums COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${ddeb} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()

# What Debian's policy asks of each package, added to the folders that cpack has filled: a copyright, a changelog, compressed
# manual pages, and no search path of libraries.
cmake_policy(VERSION 3.25)

# package(COMPONENT NAME)
function(package COMPONENT NAME)
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${COMPONENT}/usr)
  if(NOT EXISTS ${root})
    return()
  endif()
  set(documents ${root}/share/doc/${NAME})
  file(MAKE_DIRECTORY ${documents})
  file(COPY_FILE ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/copyright ${documents}/copyright)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  file(WRITE ${documents}/changelog.Debian "talvo (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
       "  * The changes are those of the project's CHANGELOG.md.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  file(GLOB_RECURSE pages ${root}/share/man/*)
  execute_process(COMMAND gzip -9 -n ${documents}/changelog.Debian ${pages} COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB programs ${root}/bin/*)
  foreach(program IN LISTS programs)
    file(RPATH_REMOVE FILE ${program})
  endforeach()
endfunction()

package(runtime ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME})
package(development ${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME})
package(tools ${CPACK_DEBIAN_TOOLS_PACKAGE_NAME})

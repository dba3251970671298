# `cpack -G DEB` in the build directory makes the Debian package.
set(TASKMAN_MAINTAINER "taskman maintainers <taskman@example.org>" CACHE STRING
    "Who answers for the Debian package")

# What Debian wants to find with every package.
set(documents ${CMAKE_INSTALL_DATADIR}/doc/taskman)
install(FILES cmake/debian/copyright DESTINATION ${documents})
install_compressed(cmake/debian/changelog changelog ${documents})
install_compressed(CHANGELOG.md CHANGELOG.md ${documents})
# CMake strips programs only.
install(CODE "set(libraries ${CMAKE_INSTALL_LIBDIR})")
install(CODE [[
  if(CMAKE_INSTALL_DO_STRIP)
    file(GLOB archives $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${libraries}/libtaskman_*.a)
    execute_process(COMMAND strip --strip-debug ${archives} COMMAND_ERROR_IS_FATAL ANY)
  endif()
]])

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT ${TASKMAN_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "download manager with one worker process per file")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "\
The command taskman downloads files, up to eight at a time, and tells a
person or a program what became of each. Every file is left to a process
of its own, which may die at any moment and takes nothing else with it.

The manager of these processes is here as a library, with its headers.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The options in use are newer than libcurl's symbols, which is all that dpkg-shlibdeps sees.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4 (>= 7.85)")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)

# What `cmake --install` puts where. The command finds its worker by the way from bin to libexec, so
# these two are fixed; everything can be moved as a whole.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS taskman RUNTIME DESTINATION bin)
install(TARGETS tarnwick EXPORT taskman RUNTIME DESTINATION libexec/taskman)

# Headers are named from one root, as in the tree: "TaskMan/taskman.h", "common/fieldtext.h".
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/taskman)
install(DIRECTORY Src/Interface/TaskMan DESTINATION ${headers})
install(
  FILES
    common/fieldtext.h
    common/file.h
    common/mutex.h
    common/platform.h
    common/threadsafety.h
    common/TraceLog.h
  DESTINATION ${headers}/common)
install(TARGETS taskman_core common EXPORT taskman
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${headers})

# find_package(taskman)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/taskman)
install(EXPORT taskman NAMESPACE taskman:: DESTINATION ${package} FILE taskman-targets.cmake)
configure_package_config_file(cmake/taskman-config.cmake.in
  ${PROJECT_BINARY_DIR}/taskman-config.cmake INSTALL_DESTINATION ${package})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/taskman-config-version.cmake COMPATIBILITY SameMinorVersion)
install(
  FILES
    ${PROJECT_BINARY_DIR}/taskman-config.cmake
    ${PROJECT_BINARY_DIR}/taskman-config-version.cmake
  DESTINATION ${package})

# pkg-config taskman
set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pkgconfig /${pkgconfig} /)
configure_file(cmake/taskman.pc.in ${PROJECT_BINARY_DIR}/taskman.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/taskman.pc DESTINATION ${pkgconfig})

install(FILES completions/taskman.bash RENAME taskman
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
# Debian's zsh looks into the first below /usr/local, into the second below /usr.
foreach(directory site-functions vendor-completions)
  install(FILES completions/_taskman DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${directory})
endforeach()
install(FILES completions/taskman.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)

# Installs a file as NAME.gz; without name and time inside, so that each build gives the same bytes.
function(install_compressed file name directory)
  set(source ${PROJECT_SOURCE_DIR}/${file})
  set(compressed ${PROJECT_BINARY_DIR}/share/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND gzip -9nc ${source} > ${compressed} DEPENDS ${source} VERBATIM)
  add_custom_target(${name}.gz ALL DEPENDS ${compressed})
  install(FILES ${compressed} DESTINATION ${directory})
endfunction()

file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/share)
install_compressed(docs/man/taskman.1 taskman.1 ${CMAKE_INSTALL_MANDIR}/man1)
install_compressed(docs/man/tarnwick.8 tarnwick.8 ${CMAKE_INSTALL_MANDIR}/man8)

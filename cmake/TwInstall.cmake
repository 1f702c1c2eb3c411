# What `cmake --install` puts where, the CMake package and the pkg-config file that let
# another build use the host library, the man page of twhost, and the .deb (cpack -G DEB).
include(CMakePackageConfigHelpers)

set(TW_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TwHost)

# twhost and the host library find each other through the RUNPATH unless the library goes to
# a folder the dynamic loader searches anyway (as under /usr, where Debian forbids one).
list(FIND CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES "${CMAKE_INSTALL_FULL_LIBDIR}" tw_libdir_is_system)
if(tw_libdir_is_system EQUAL -1)
  file(RELATIVE_PATH tw_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(twhost_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${tw_bin_to_lib}")
else()
  set_target_properties(twhost_tool PROPERTIES INSTALL_RPATH "")
endif()

install(TARGETS twhost EXPORT TwHostTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The plug-in is a module that daemons open by path, not a library to link: it keeps its
# plain name, in a folder of its own.
install(TARGETS twdevplugin
  LIBRARY DESTINATION ${TW_INSTALL_PLUGIN_DIR} NAMELINK_SKIP)
install(TARGETS twhost_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/include/tw ${PROJECT_SOURCE_DIR}/host/include/twhost
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/host/include/twhost/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/twhost)

# The CMake package: find_package(TwHost 1.0) gives TwHost::host and TwHost_PLUGIN.
install(EXPORT TwHostTargets NAMESPACE TwHost:: DESTINATION ${TW_CMAKE_PACKAGE_DIR})
set(TW_PLUGIN_INSTALL_PATH ${TW_INSTALL_PLUGIN_DIR}/libtwdevplugin.so)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TwHostConfig.cmake.in
  ${CMAKE_BINARY_DIR}/pkg/TwHostConfig.cmake
  INSTALL_DESTINATION ${TW_CMAKE_PACKAGE_DIR}
  PATH_VARS TW_PLUGIN_INSTALL_PATH CMAKE_INSTALL_INCLUDEDIR)
# 1.x programs keep building against any later 1.y.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/pkg/TwHostConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/pkg/TwHostConfig.cmake ${CMAKE_BINARY_DIR}/pkg/TwHostConfigVersion.cmake
  DESTINATION ${TW_CMAKE_PACKAGE_DIR})

# pkg-config: the prefix is found from the file's own place, so a staged or moved install
# works as well as the configured one.
file(RELATIVE_PATH tw_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" tw_pc_to_prefix "${tw_pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/twhost.pc.in ${CMAKE_BINARY_DIR}/pkg/twhost.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/pkg/twhost.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The man page, from `twhost --help`. Without help2man the build goes on and the page is
# left out (scripts/setup.sh installs it; the package test insists on the page).
find_program(TW_HELP2MAN help2man)
find_program(TW_GZIP gzip)
if(TW_SANITIZE OR TW_TSAN OR TW_FUZZ)
  # Instrumented builds are for tests, not for installing; their twhost need not run here.
elseif(TW_HELP2MAN AND TW_GZIP)
  set(tw_man ${CMAKE_BINARY_DIR}/man/twhost.1)
  add_custom_command(OUTPUT ${tw_man}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${TW_HELP2MAN} --no-info --no-discard-stderr
            --name "reference host of the device plug-in"
            --version-string ${PROJECT_VERSION}
            --output ${tw_man} $<TARGET_FILE:twhost_tool>
    COMMAND ${TW_GZIP} -9nf ${tw_man}
    DEPENDS twhost_tool
    COMMENT "Writing the man page of twhost")
  add_custom_target(twhost_man ALL DEPENDS ${tw_man}.gz)
  install(FILES ${tw_man}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(WARNING "help2man (or gzip) not found: the man page of twhost is not made")
endif()

# Debian wants a copyright file and a changelog with every package.
set(TW_PACKAGE_CONTACT "twhost maintainers <twhost-maintainers@example.org>" CACHE STRING
  "Maintainer of the .deb (name <address>)")
string(TIMESTAMP TW_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/deb/changelog.in ${CMAKE_BINARY_DIR}/pkg/changelog @ONLY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/pkg/changelog.gz
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_BINARY_DIR}/pkg/changelog ${CMAKE_BINARY_DIR}/pkg/changelog.tmp
  COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/pkg/changelog.tmp
  COMMAND ${CMAKE_COMMAND} -E rename ${CMAKE_BINARY_DIR}/pkg/changelog.tmp.gz ${CMAKE_BINARY_DIR}/pkg/changelog.gz
  DEPENDS ${CMAKE_BINARY_DIR}/pkg/changelog)
add_custom_target(twhost_changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/pkg/changelog.gz)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/deb/copyright ${CMAKE_BINARY_DIR}/pkg/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/twhost)

# The .deb: one package with the command, the host library, the plug-in and what a build
# needs to use them. Configure with -DCMAKE_INSTALL_PREFIX=/usr for it.
set(CPACK_PACKAGE_NAME twhost)
set(CPACK_PACKAGE_VENDOR "twhost developers")
set(CPACK_PACKAGE_CONTACT "${TW_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "device plug-in of a network video recorder and its reference host")
set(CPACK_PACKAGE_DESCRIPTION
  "The device plug-in module (libtwdevplugin.so) of a network video
recorder, the reference host library that loads it (libtwhost.so)
with its headers, CMake package and pkg-config file, and the twhost
command that drives the plug-in on video files and streams, UNIX
sockets, WAV files and network I/O modules.")
# The host library is in the package: ldconfig runs once the package is in.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/deb/triggers)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The plug-in's host symbols come from the process that loads it, on purpose.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
# The headers include JsonCpp's and libjpeg's, and the CMake package finds JsonCpp through
# pkg-config.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libjsoncpp-dev, libjpeg62-turbo-dev, pkg-config")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
include(CPack)

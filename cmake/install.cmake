# What "cmake --install" installs, in four components:
#
#   Runtime        the shared library
#   Development    the headers, what CMake and pkg-config find the library with, hoplane(3)
#   Tools          hoplanectl with its completions, hoplanectl(1) and switch.ini(5)
#   Documentation  the documents, the sample files, and the site if HOPLANE_BUILD_DOCS is on
#
# Nothing installed names a folder of this machine: the whole tree can be moved.

include(CMakePackageConfigHelpers)

foreach(folder BINDIR DATADIR DOCDIR INCLUDEDIR LIBDIR MANDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${folder}}")
    message(FATAL_ERROR "CMAKE_INSTALL_${folder} is ${CMAKE_INSTALL_${folder}}: it has to be relative "
      "to CMAKE_INSTALL_PREFIX, as what is installed can be moved")
  endif()
endforeach()

install(TARGETS hoplane EXPORT Hoplane
  LIBRARY
    DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT Runtime
    NAMELINK_COMPONENT Development)
install(FILES ${public_headers}
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/hoplane"
  COMPONENT Development)

set(cmake_folder "${CMAKE_INSTALL_LIBDIR}/cmake/Hoplane")
install(EXPORT Hoplane
  NAMESPACE Hoplane::
  FILE HoplaneTargets.cmake
  DESTINATION "${cmake_folder}"
  COMPONENT Development)
configure_package_config_file(cmake/HoplaneConfig.cmake.in HoplaneConfig.cmake
  INSTALL_DESTINATION "${cmake_folder}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(HoplaneConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/HoplaneConfig.cmake"
  "${PROJECT_BINARY_DIR}/HoplaneConfigVersion.cmake"
  DESTINATION "${cmake_folder}"
  COMPONENT Development)

set(pkgconfig_folder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
# From the file's own folder, which pkg-config knows, back to the prefix.
file(RELATIVE_PATH pkgconfig_to_prefix
  "/prefix/${pkgconfig_folder}" "/prefix")
string(REGEX REPLACE "/$" "" pkgconfig_to_prefix "${pkgconfig_to_prefix}")
configure_file(cmake/hoplane.pc.in hoplane.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/hoplane.pc"
  DESTINATION "${pkgconfig_folder}"
  COMPONENT Development)

install(FILES docs/man/hoplane.3
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man3"
  COMPONENT Development)

if(HOPLANE_BUILD_TOOLS)
  set(completions tools/hoplanectl/completion)
  install(TARGETS hoplanectl
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Tools)
  install(FILES ${completions}/hoplanectl.bash
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
    RENAME hoplanectl
    COMPONENT Tools)
  install(FILES ${completions}/_hoplanectl
    DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions"
    COMPONENT Tools)
  install(FILES docs/man/hoplanectl.1
    DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
    COMPONENT Tools)
  install(FILES docs/man/switch.ini.5
    DESTINATION "${CMAKE_INSTALL_MANDIR}/man5"
    COMPONENT Tools)
endif()

# The documents link to one another: they stay together. Their links into the sources lead nowhere
# here; the site has none.
install(FILES CHANGELOG.md CONTRIBUTING.md LICENSE README.md SECURITY.md
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT Documentation)
install(DIRECTORY docs
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT Documentation
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg"
  PATTERN man EXCLUDE
  PATTERN site EXCLUDE)
# By name: the example may have been built in its folder.
foreach(example
    device/50-failover.rules device/failover.env device/failover.service
    failover/CMakeLists.txt failover/Makefile failover/failover.pro failover/main.cpp)
  cmake_path(GET example PARENT_PATH folder)
  install(FILES "examples/${example}"
    DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples/${folder}"
    COMPONENT Documentation)
endforeach()
if(HOPLANE_BUILD_DOCS)
  install(DIRECTORY "${PROJECT_BINARY_DIR}/site/"
    DESTINATION "${CMAKE_INSTALL_DOCDIR}/html"
    COMPONENT Documentation)
endif()

# What `cmake --install` puts where, and the Debian packages that CPack makes of it. Programs and their pages are the
# component "runtime", the format library for other programs is "development".

if(NOT CMAKE_INSTALL_DOCDIR)
  set(CMAKE_INSTALL_DOCDIR "share/doc/vellicor-repack") # As the packages are named.
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(VELLICOR_ZSH_COMPLETIONS_DIR "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" CACHE STRING "Where zsh looks for completions")

set(VELLICOR_PROGRAMS VellicorRepack VellicorProgress VellicorInspect)
install(TARGETS ${VELLICOR_PROGRAMS} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)

# vellicor_install_files(<destination> <pattern>...): files of the checkout, for the component "runtime".
function(vellicor_install_files destination)
  list(TRANSFORM ARGN PREPEND "${PROJECT_SOURCE_DIR}/" OUTPUT_VARIABLE patterns)
  file(GLOB files CONFIGURE_DEPENDS ${patterns})
  install(FILES ${files} DESTINATION "${destination}" COMPONENT runtime)
endfunction()
vellicor_install_files("${CMAKE_INSTALL_MANDIR}/man1" docs/man/*.1)
vellicor_install_files("${CMAKE_INSTALL_MANDIR}/man5" docs/man/*.5)
vellicor_install_files("${CMAKE_INSTALL_DATADIR}/bash-completion/completions" completions/*.bash)
vellicor_install_files("${VELLICOR_ZSH_COMPLETIONS_DIR}" completions/_*)
vellicor_install_files("${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d" completions/*.fish)
vellicor_install_files("${CMAKE_INSTALL_DOCDIR}" docs/format.md)

# ---- The format library ----

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/VellicorFormat")
set(generated "${PROJECT_BINARY_DIR}/generated/packaging")
math(EXPR fmt_next_major "${fmt_VERSION_MAJOR} + 1")
# From lib/pkgconfig up to the prefix, wherever it is moved.
file(RELATIVE_PATH pc_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" pc_prefix "${pc_prefix}")

install(
  TARGETS VellicorFormat
  EXPORT VellicorFormatTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(
  EXPORT VellicorFormatTargets
  NAMESPACE VellicorFormat::
  DESTINATION "${package_dir}"
  COMPONENT development)
configure_package_config_file(cmake/VellicorFormatConfig.cmake.in "${generated}/VellicorFormatConfig.cmake"
                              INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${generated}/VellicorFormatConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${generated}/VellicorFormatConfig.cmake" "${generated}/VellicorFormatConfigVersion.cmake"
        DESTINATION "${package_dir}" COMPONENT development)
configure_file(cmake/VellicorFormat.pc.in "${generated}/VellicorFormat.pc" @ONLY)
install(FILES "${generated}/VellicorFormat.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
install(DIRECTORY examples DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT development)

# ---- Debian packages ----

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vellicor-repack)
set(CPACK_PACKAGE_CONTACT "VellicorRepack maintainers <maintainers@vellicor.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/DebianFiles.cmake")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME vellicor-repack)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# The hub is reached over HTTPS only.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ca-certificates)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "installer for one large language model checkpoint
Streams the checkpoint from the model hub into an artifact directory that an
inference engine can map, without ever storing the source. A cut wire, a full
disk or a crash costs a retry, never a wrong artifact.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvellicorformat-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libfmt-dev, libicu-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "readers and writers of the Morlen V1 artifact format
Headers, the static library, a CMake package and a pkg-config file for programs
that map the artifacts of vellicor-repack.")
include(CPack)

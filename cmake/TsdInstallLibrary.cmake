# tsd_install_library(TARGET NAMESPACE NS HEADERS DIR)
#
# Installs a shared library of the project for programs built elsewhere, the
# same way for each: the library with its soname links, its public headers
# (DIR holds one folder per namespace, installed as it is), a pkg-config file
# from TARGET.pc.in and a CMake package (TARGETConfig.cmake.in, with the
# exported target NS::TARGET and a version file) in the library directory.
# The .pc.in and Config.cmake.in templates lie beside the caller; they may use
# @TSD_LIB_VERSION@ and the CMAKE_INSTALL_FULL_* directories.
include(CMakePackageConfigHelpers)

function(tsd_install_library target)
  cmake_parse_arguments(ARG "" "NAMESPACE;HEADERS" "" ${ARGN})
  get_target_property(TSD_LIB_VERSION ${target} VERSION)
  set(cmakeDir ${CMAKE_INSTALL_LIBDIR}/cmake/${target})

  install(TARGETS ${target} EXPORT ${target}Targets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(DIRECTORY ${ARG_HEADERS}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          FILES_MATCHING PATTERN "*.h")
  install(EXPORT ${target}Targets NAMESPACE ${ARG_NAMESPACE}:: DESTINATION ${cmakeDir})

  configure_package_config_file(${CMAKE_CURRENT_SOURCE_DIR}/${target}Config.cmake.in
                                ${CMAKE_CURRENT_BINARY_DIR}/${target}Config.cmake
                                INSTALL_DESTINATION ${cmakeDir})
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${target}ConfigVersion.cmake
                                   VERSION ${TSD_LIB_VERSION} COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}Config.cmake
                ${CMAKE_CURRENT_BINARY_DIR}/${target}ConfigVersion.cmake
          DESTINATION ${cmakeDir})

  configure_file(${CMAKE_CURRENT_SOURCE_DIR}/${target}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

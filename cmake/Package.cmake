# What `cmake --install` lays down: the layer libraries with their headers,
# the tessel program, a CMake package (find_package(TesselHwLib)) and a
# pkg-config file (tesselhwlib).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Every layer, each after the layers it stands on; the pkg-config link line
# names them in the opposite order, as static libraries need.
set(TESSEL_LAYERS basalt rig p4runtime wirekit loop arena spool nudge arenafiles ripple cairn beacon rigarena
    rigcairn tesselhwlib inspect)

install(TARGETS ${TESSEL_LAYERS} tessel EXPORT TesselHwLibTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessel FILES_MATCHING PATTERN "*.h")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TesselHwLib)
install(EXPORT TesselHwLibTargets NAMESPACE TesselHwLib:: DESTINATION ${package_dir})
configure_package_config_file(cmake/TesselHwLibConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/TesselHwLibConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TesselHwLibConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TesselHwLibConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/TesselHwLibConfigVersion.cmake
        DESTINATION ${package_dir})

set(TESSEL_PC_LIBS "")
foreach(layer IN LISTS TESSEL_LAYERS)
  get_target_property(kind ${layer} TYPE)
  if(kind STREQUAL "STATIC_LIBRARY")
    set(TESSEL_PC_LIBS "-l${layer} ${TESSEL_PC_LIBS}")
  endif()
endforeach()
configure_file(cmake/tesselhwlib.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tesselhwlib.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tesselhwlib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

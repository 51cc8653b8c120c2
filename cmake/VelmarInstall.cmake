# `cmake --install`: the libraries, their headers, the chip's plug-ins, the agent, and the
# package configuration that gives users find_package(VelmarMcast) with the targets
# VelmarMcast::<target> (velmar_mcast, chipsim, chipsim_utils, mcastagent, mcast_agent, ...).
include(CMakePackageConfigHelpers)

# Every library a user may link, in dependency order. A library missing here while one listed
# uses it stops the configuration ("not in any export set").
set(_velmarLibraries asic ancillary ulm interface velmar_l3common asic_swtable chipsim
    velmar_mcast chipsim_utils mcastagent)

# Installed binaries find the libraries beside them, relative to themselves ($ORIGIN), so
# that any prefix works without LD_LIBRARY_PATH. The build tree keeps its absolute RPATHs.
file(RELATIVE_PATH _libFromBin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
file(RELATIVE_PATH _libFromPlugins /${VELMAR_INSTALL_PLUGINDIR}/AsicFeature /${CMAKE_INSTALL_LIBDIR})

foreach(_lib IN LISTS _velmarLibraries)
  get_target_property(_type ${_lib} TYPE)
  if(_type STREQUAL "INTERFACE_LIBRARY")
    continue()
  endif()
  # The folders' short names (asic, ulm, ...) would be too generic in a system library folder.
  if(NOT _lib MATCHES "^velmar_")
    set_target_properties(${_lib} PROPERTIES OUTPUT_NAME velmar_${_lib})
  endif()
  # 0.x: no binary compatibility between minor versions.
  set_target_properties(${_lib} PROPERTIES VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR} INSTALL_RPATH "$ORIGIN")
endforeach()
set_target_properties(mcast_agent PROPERTIES INSTALL_RPATH "$ORIGIN/${_libFromBin}")

install(TARGETS ${_velmarLibraries} mcast_agent EXPORT VelmarMcastTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

get_property(_plugins GLOBAL PROPERTY VELMAR_PLUGIN_TARGETS)
set_target_properties(${_plugins} PROPERTIES INSTALL_RPATH "$ORIGIN/${_libFromPlugins}")
install(TARGETS ${_plugins} LIBRARY DESTINATION ${VELMAR_INSTALL_PLUGINDIR}/AsicFeature)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h" PATTERN "tests" EXCLUDE)

install(EXPORT VelmarMcastTargets NAMESPACE VelmarMcast:: DESTINATION ${VELMAR_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VelmarMcastConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VelmarMcastConfig.cmake
  INSTALL_DESTINATION ${VELMAR_INSTALL_CMAKEDIR}
  PATH_VARS VELMAR_INSTALL_PLUGINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelmarMcastConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelmarMcastConfig.cmake
  ${PROJECT_BINARY_DIR}/VelmarMcastConfigVersion.cmake
  DESTINATION ${VELMAR_INSTALL_CMAKEDIR})

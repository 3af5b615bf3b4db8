# Where everything goes: two packages, slate and tarn, for find_package and for pkg-config, in the components runtime
# (the libraries) and dev (all else).
include(CMakePackageConfigHelpers)

set(cmake_root ${CMAKE_INSTALL_LIBDIR}/cmake)
set(TARN_PROTO_DIR ${CMAKE_INSTALL_DATADIR}/tarn/proto)
set(TARN_PROTO_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/tarn/proto)
# The pkg-config files find everything from where they lie, so that an installed tree can be moved.
file(RELATIVE_PATH include_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /${CMAKE_INSTALL_INCLUDEDIR})
file(RELATIVE_PATH proto_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /${TARN_PROTO_DIR})

foreach(package slate tarn)
  tarn_run_path(${package} "$ORIGIN")
  install(TARGETS ${package} EXPORT ${package}Targets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
  install(EXPORT ${package}Targets NAMESPACE ${package}:: DESTINATION ${cmake_root}/${package} COMPONENT dev)

  configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/${package}Config.cmake.in
                                ${PROJECT_BINARY_DIR}/${package}Config.cmake
                                INSTALL_DESTINATION ${cmake_root}/${package}
                                PATH_VARS TARN_PROTO_DIR TARN_PROTO_INCLUDE_DIR)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/${package}ConfigVersion.cmake
                                   COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/${package}Config.cmake ${PROJECT_BINARY_DIR}/${package}ConfigVersion.cmake
          DESTINATION ${cmake_root}/${package} COMPONENT dev)

  configure_file(${PROJECT_SOURCE_DIR}/packaging/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

install(FILES ${PROJECT_SOURCE_DIR}/cmake/TarnDependencies.cmake DESTINATION ${cmake_root}/tarn COMPONENT dev)
install(FILES ${TARN_GENERATED_HEADERS} DESTINATION ${TARN_PROTO_INCLUDE_DIR} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/proto/ DESTINATION ${TARN_PROTO_DIR} COMPONENT dev
        FILES_MATCHING PATTERN "*.proto")

# Whoever passes the libraries on passes this on with them.
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

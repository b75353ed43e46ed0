# The CMake and pkg-config packages for users of the library.
include(CMakePackageConfigHelpers)

install(TARGETS screenrecord EXPORT screenrecordTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS zu3 SrGlWorker EXPORT screenrecordTargets LIBRARY DESTINATION ${PRIVATE_LIBDIR} COMPONENT runtime)
install(TARGETS zu3_pulse zu3_aac zu3_wayland zu3_portal LIBRARY DESTINATION ${PRIVATE_LIBDIR} COMPONENT runtime)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/screenrecord DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT client)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
  PATTERN make.py EXCLUDE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)

install(TARGETS contract EXPORT screenrecordContractTargets)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/ ${PROJECT_SOURCE_DIR}/platform/host/include/
  DESTINATION ${CONTRACT_INCLUDEDIR} COMPONENT contract)

install(EXPORT screenrecordTargets NAMESPACE screenrecord:: DESTINATION ${PACKAGE_CMAKEDIR} COMPONENT development)
install(EXPORT screenrecordContractTargets NAMESPACE screenrecord:: DESTINATION ${PACKAGE_CMAKEDIR}
  COMPONENT contract)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/screenrecordConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/screenrecordConfig.cmake
  ${PROJECT_BINARY_DIR}/screenrecordConfigVersion.cmake
  DESTINATION ${PACKAGE_CMAKEDIR} COMPONENT development)

configure_file(${PROJECT_SOURCE_DIR}/cmake/screenrecord.pc.in ${PROJECT_BINARY_DIR}/screenrecord.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/screenrecord.pc DESTINATION ${PACKAGE_PKGCONFIGDIR} COMPONENT development)

include(${CMAKE_CURRENT_LIST_DIR}/debian_package.cmake)

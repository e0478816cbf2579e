# Install layout, CMake package configuration and Debian packages.
#
#   bin/qora_player
#   lib/libqora_ut.so.<version> (+ SONAME and development links)
#   include/qora_ut/qora_test.h
#   lib/cmake/qora_ut/           find_package(qora_ut) -> qora_ut::qora_ut
#   lib/qora_ut/engine-model/    our engine model, kept apart so it is never
#                                mistaken for the vendor's libkvx_mdw.so.2
include(CMakePackageConfigHelpers)

set(QORA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qora_ut)
set(QORA_MODEL_DIR ${CMAKE_INSTALL_LIBDIR}/qora_ut/engine-model)

install(TARGETS qora_player RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS qora_ut EXPORT qora_utTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/inc/qora_test.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qora_ut)
if(QORA_ENGINE_MODEL)
  install(TARGETS kvx_mdw EXPORT qora_utTargets
    LIBRARY DESTINATION ${QORA_MODEL_DIR} NAMELINK_SKIP)
  install(FILES ${CMAKE_SOURCE_DIR}/korvex/korvex.h DESTINATION ${QORA_MODEL_DIR}/include)
endif()

install(EXPORT qora_utTargets NAMESPACE qora_ut:: DESTINATION ${QORA_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/qora_utConfig.cmake.in
  ${CMAKE_BINARY_DIR}/qora_utConfig.cmake INSTALL_DESTINATION ${QORA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qora_utConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qora_utConfig.cmake ${CMAKE_BINARY_DIR}/qora_utConfigVersion.cmake
  DESTINATION ${QORA_CMAKE_DIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qora-ut)
set(CPACK_PACKAGE_VENDOR "QORA bring-up team")
set(CPACK_PACKAGE_CONTACT "qora-bringup@localhost")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Test-pattern player for the QORA engine (libqora_ut, qora_player)")
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6")
include(CPack)

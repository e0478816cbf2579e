# Install layout and the CMake and pkg-config packages. LIBDIR is
# GNUInstallDirs' choice: lib, or lib/<multiarch> when the prefix is /usr.
#
#   bin/qora_player
#   LIBDIR/libqora_ut.so.<version> (+ SONAME and development links)
#   include/qora_ut/qora_test.h
#   LIBDIR/cmake/qora_ut/          find_package(qora_ut) -> qora_ut::qora_ut
#   LIBDIR/pkgconfig/qora_ut.pc    pkg-config qora_ut
#   share/man/man1/qora_player.1, share/bash-completion/completions/qora_player
#   bin/qora_report, share/qora-report/qora_report/ (its Python modules),
#   share/man/man1/qora_report.1 (installed by tools/qora_report/CMakeLists.txt)
#
# and, when our engine model is built (no vendor SDK):
#
#   LIBDIR/qora_ut/engine-model/   libkvx_mdw.so.2, its korvex.h and its
#                                  CMake target, in a directory of their
#                                  own, never on the loader's default path,
#                                  so the model can never shadow the
#                                  vendor's libkvx_mdw.so.2
#   bin/qora_player_model          runs qora_player on the model
#   share/man/man1/qora_player_model.1, its bash completion
#   bin/kvx_asm, share/man/man1/kvx_asm.1   the assembler of engine code
#
# The Debian packages (debian/) split this install into libqora-ut3,
# libqora-ut-dev, qora-player, qora-report and qora-engine-model.
include(CMakePackageConfigHelpers)

set(QORA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qora_ut)
set(QORA_MODEL_DIR ${CMAKE_INSTALL_LIBDIR}/qora_ut/engine-model)

install(TARGETS qora_player RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS qora_ut EXPORT qora_utTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/inc/qora_test.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qora_ut)
install(FILES ${CMAKE_SOURCE_DIR}/docs/qora_player.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/app/qora_player.bash-completion
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME qora_player)


if(QORA_ENGINE_MODEL)
  # The model's CMake target goes with the model, in its own directory:
  # qora_utConfig.cmake takes it from there when the model is installed, and
  # otherwise leaves the middleware to the vendor's library.
  install(TARGETS kvx_mdw EXPORT qora_utEngineModel
    LIBRARY DESTINATION ${QORA_MODEL_DIR} NAMELINK_SKIP)
  install(EXPORT qora_utEngineModel NAMESPACE qora_ut:: DESTINATION ${QORA_MODEL_DIR}/cmake)
  install(FILES ${CMAKE_SOURCE_DIR}/korvex/korvex.h DESTINATION ${QORA_MODEL_DIR}/include)
  # The wrapper finds the model from its own location, so it works under any
  # prefix the tree is installed to.
  file(RELATIVE_PATH QORA_BIN_TO_MODEL_DIR ${CMAKE_INSTALL_FULL_BINDIR}
    ${CMAKE_INSTALL_PREFIX}/${QORA_MODEL_DIR})
  if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(QORA_BIN_TO_MODEL_DIR ${QORA_MODEL_DIR})
  endif()
  configure_file(${CMAKE_SOURCE_DIR}/cmake/qora_player_model.in
    ${CMAKE_BINARY_DIR}/qora_player_model @ONLY)
  install(PROGRAMS ${CMAKE_BINARY_DIR}/qora_player_model DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${CMAKE_SOURCE_DIR}/docs/qora_player_model.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(TARGETS kvx_asm_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${CMAKE_SOURCE_DIR}/docs/kvx_asm.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${CMAKE_SOURCE_DIR}/app/qora_player.bash-completion
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME qora_player_model)
endif()

install(EXPORT qora_utTargets NAMESPACE qora_ut:: DESTINATION ${QORA_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/qora_utConfig.cmake.in
  ${CMAKE_BINARY_DIR}/qora_utConfig.cmake INSTALL_DESTINATION ${QORA_CMAKE_DIR}
  PATH_VARS QORA_MODEL_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qora_utConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qora_utConfig.cmake ${CMAKE_BINARY_DIR}/qora_utConfigVersion.cmake
  DESTINATION ${QORA_CMAKE_DIR})

# pkg-config file. Its prefix is written at install time, so that it is the
# prefix the files really go to, also with `cmake --install --prefix <dir>`.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
    set(QORA_PC_${dir} ${CMAKE_INSTALL_${dir}})
  else()
    set(QORA_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
set(QORA_PC_PREFIX "@QORA_PC_PREFIX@")
configure_file(${CMAKE_SOURCE_DIR}/cmake/qora_ut.pc.in ${CMAKE_BINARY_DIR}/qora_ut.pc.in @ONLY)
install(CODE "
  set(QORA_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${CMAKE_BINARY_DIR}/qora_ut.pc.in\" \"${CMAKE_BINARY_DIR}/qora_ut.pc\" @ONLY)")
install(FILES ${CMAKE_BINARY_DIR}/qora_ut.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

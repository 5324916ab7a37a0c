# SPDX-License-Identifier: Apache-2.0
# What an installed tree holds: the public headers, the library in both forms, the recorder in
# libexec, the command line, a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

install(FILES include/IZeltaRecordingEngine.h include/zelta_recording.h
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(
  TARGETS zelta_recording zelta_recording_static
  EXPORT zelta_recording
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(TARGETS ZeltaCoreService RUNTIME DESTINATION "${ZELTA_LIBEXECDIR}")
install(TARGETS zelta-record zelta-deliver zelta-lay zelta-view zelta-worker zelta-fleet
        RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(FILES packaging/zelta-record.1 packaging/zelta-deliver.1 packaging/zelta-lay.1 packaging/zelta-view.1
              packaging/zelta-worker.1 packaging/zelta-fleet.1 packaging/ZeltaCoreService.1
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zelta_recording")
install(EXPORT zelta_recording NAMESPACE zelta:: DESTINATION "${package_dir}"
        FILE zelta_recordingTargets.cmake)
configure_package_config_file(
  cmake/zelta_recordingConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfig.cmake"
  INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file(
  "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfigVersion.cmake"
        DESTINATION "${package_dir}")

# Relative to the .pc file, so that the tree can be moved.
file(RELATIVE_PATH include_from_pc "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
     "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
set(ZELTA_PC_INCLUDEDIR "\${pcfiledir}/${include_from_pc}")
configure_file(cmake/zelta_recording.pc.in "${CMAKE_CURRENT_BINARY_DIR}/zelta_recording.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/zelta_recording.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

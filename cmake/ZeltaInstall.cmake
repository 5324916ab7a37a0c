# SPDX-License-Identifier: Apache-2.0
# What an installed tree holds: the public headers, the library in both forms, the recorder in
# libexec, the command line, a CMake package and pkg-config files. Components are Debian's packages.
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zelta_recording")
install(FILES include/IZeltaRecordingEngine.h include/zelta_recording.h
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)
install(
  TARGETS zelta_recording
  EXPORT zelta_recording
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
# A set of its own: who links the shared library needs no jsoncpp.
install(
  TARGETS zelta_recording_static
  EXPORT zelta_recording_static
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
foreach(set IN ITEMS zelta_recording zelta_recording_static)
  install(EXPORT ${set} NAMESPACE zelta:: DESTINATION "${package_dir}" FILE ${set}Targets.cmake
          COMPONENT development)
endforeach()

set(recorder_tools zelta-record zelta-deliver zelta-lay zelta-view)
set(fleet_tools zelta-worker zelta-fleet)
install(TARGETS ZeltaCoreService RUNTIME DESTINATION "${ZELTA_LIBEXECDIR}" COMPONENT recorder)
foreach(component IN ITEMS recorder fleet)
  install(TARGETS ${${component}_tools} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
          COMPONENT ${component})
  list(TRANSFORM ${component}_tools REPLACE "(.+)" "packaging/\\1.1" OUTPUT_VARIABLE ${component}_pages)
endforeach()
# Nobody has the recorder in PATH: it is a page for who runs the machine.
list(APPEND recorder_pages packaging/ZeltaCoreService.8)
if(ZELTA_PACKAGES)
  include(ZeltaPackages)
else()
  foreach(page IN LISTS recorder_pages fleet_pages)
    string(REGEX MATCH "[0-9]$" section "${page}")
    install(FILES "${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
  endforeach()
endif()

configure_package_config_file(
  cmake/zelta_recordingConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfig.cmake"
  INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file(
  "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/zelta_recordingConfigVersion.cmake"
        DESTINATION "${package_dir}" COMPONENT development)

if(ZELTA_PACKAGES)
  # As it stands, pkg-config knows it for one of the compiler's own and leaves it out.
  set(ZELTA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  # Relative to the .pc file, so that the tree can be moved.
  file(RELATIVE_PATH prefix_from_pc "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/$" "" prefix_from_pc "${prefix_from_pc}")
  set(ZELTA_PC_PREFIX "\${pcfiledir}/${prefix_from_pc}")
endif()
foreach(dir IN ITEMS INCLUDEDIR LIBDIR)
  set(ZELTA_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  if(NOT IS_ABSOLUTE "${ZELTA_PC_${dir}}")
    string(PREPEND ZELTA_PC_${dir} "\${prefix}/")
  endif()
endforeach()
configure_file(cmake/zelta_recording.pc.in "${CMAKE_CURRENT_BINARY_DIR}/zelta_recording.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/zelta_recording.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

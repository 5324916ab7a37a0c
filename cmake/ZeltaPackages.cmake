# SPDX-License-Identifier: Apache-2.0
# Debian packages, one a component of the install: what they hold beside the programs, and what they
# say of themselves. `cmake --build … --target package` makes them; docs/packages.md has the rest.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "CMAKE_INSTALL_PREFIX=${CMAKE_INSTALL_PREFIX} should be /usr with ZELTA_PACKAGES")
endif()
find_package(Python3 REQUIRED COMPONENTS Interpreter)
foreach(program IN ITEMS gzip objcopy)
  find_program(ZELTA_${program} ${program} REQUIRED)
endforeach()
set(made "${CMAKE_CURRENT_BINARY_DIR}/packaging")
set(library_package "libzelta-recording${ZELTA_ABI}")
set(library_name "${library_package}")
set(development_name libzelta-recording-dev)
set(recorder_name zelta-recorder)
set(fleet_name zelta-fleet)
set(components library development recorder fleet)
set(java_name libzelta-recording-java)
set(jni_name libzelta-recording-jni)
if(ZELTA_BUILD_JAVA)
  list(APPEND components java jni)
endif()
if(ZELTA_BUILD_PYTHON)
  set(python_name python3-zelta-recording)
  list(APPEND components python)
endif()
if(ZELTA_BUILD_NODE)
  set(node_name node-zelta-recording)
  list(APPEND components node)
endif()

# Two builds of one state of the sources are called alike, those between releases by their commit, and
# are older than the release that comes.
set(ZELTA_DEBIAN_VERSION "" CACHE STRING "Version of the packages; empty: by the commit")
set(ZELTA_MAINTAINER "Zelta recording <packages@zelta-recording.invalid>" CACHE STRING "Who answers for the packages")
set(version "${ZELTA_DEBIAN_VERSION}")
set(commit_date "")
if(GIT_FOUND)
  execute_process(
    COMMAND env TZ=UTC "${GIT_EXECUTABLE}" log -1 "--format=%ct;%cd;%h" "--date=format-local:%Y%m%d.%H%M%S"
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE
    ERROR_QUIET)
  execute_process(
    COMMAND "${GIT_EXECUTABLE}" tag --points-at HEAD
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE tags ERROR_QUIET)
  if(commit)
    list(GET commit 0 commit_date)
  endif()
  if(NOT version AND commit AND NOT "\n${tags}" MATCHES "\nv${PROJECT_VERSION}\n")
    list(GET commit 1 day)
    list(GET commit 2 hash)
    set(version "${PROJECT_VERSION}~git${day}.${hash}")
  endif()
endif()
if(NOT version)
  set(version "${PROJECT_VERSION}")
endif()
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(commit_date "$ENV{SOURCE_DATE_EPOCH}")
endif()
if(commit_date)
  set(date_argument "--date=@${commit_date}")
endif()
execute_process(COMMAND env LC_ALL=C date --utc --rfc-email ${date_argument}
                OUTPUT_VARIABLE changelog_date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

# Adds the file FROM, compressed, to what is installed as TO of COMPONENT.
function(install_compressed component from to)
  get_filename_component(folder "${to}" DIRECTORY)
  get_filename_component(name "${to}" NAME)
  set(file "${made}/${component}/${to}.gz")
  get_filename_component(made_in "${file}" DIRECTORY)
  file(MAKE_DIRECTORY "${made_in}")
  add_custom_command(
    OUTPUT "${file}" COMMAND sh -c "\"$1\" -9nc \"$2\" > \"$3\"" sh "${ZELTA_gzip}" "${from}" "${file}"
    DEPENDS "${from}" VERBATIM)
  set_property(GLOBAL APPEND PROPERTY zelta_package_files "${file}")
  install(FILES "${file}" DESTINATION "${folder}" COMPONENT ${component})
endfunction()

set(changelog "${made}/changelog.Debian")
file(CONFIGURE OUTPUT "${changelog}" @ONLY CONTENT
     "zelta-recording (@version@-1) unstable; urgency=medium

  * Made of the sources of this version; changelog.gz says what is new.

 -- @ZELTA_MAINTAINER@  @changelog_date@
")
foreach(component IN LISTS components)
  set(doc "${CMAKE_INSTALL_DATADIR}/doc/${${component}_name}")
  install(FILES packaging/debian/copyright DESTINATION "${doc}" COMPONENT ${component})
  install_compressed(${component} "${changelog}" "${doc}/changelog.Debian")
  install_compressed(${component} "${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${doc}/changelog")
endforeach()

foreach(component IN ITEMS recorder fleet)
  foreach(page IN LISTS ${component}_pages)
    get_filename_component(name "${page}" NAME)
    string(REGEX MATCH "[0-9]$" section "${page}")
    install_compressed(${component} "${PROJECT_SOURCE_DIR}/${page}" "${CMAKE_INSTALL_MANDIR}/man${section}/${name}")
  endforeach()
  foreach(tool IN LISTS ${component}_tools)
    set(completions "${made}/completions/bash/${tool}" "${made}/completions/zsh/_${tool}"
                    "${made}/completions/fish/${tool}.fish")
    add_custom_command(
      OUTPUT ${completions}
      COMMAND "${Python3_EXECUTABLE}" "${PROJECT_SOURCE_DIR}/packaging/completions.py" "$<TARGET_FILE:${tool}>"
              "${made}/completions"
      DEPENDS ${tool} "${PROJECT_SOURCE_DIR}/packaging/completions.py"
      VERBATIM)
    set_property(GLOBAL APPEND PROPERTY zelta_package_files ${completions})
    install(FILES "${made}/completions/bash/${tool}" COMPONENT ${component}
            DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
    install(FILES "${made}/completions/zsh/_${tool}" COMPONENT ${component}
            DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions")
    install(FILES "${made}/completions/fish/${tool}.fish" COMPONENT ${component}
            DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")
  endforeach()
endforeach()
get_property(package_files GLOBAL PROPERTY zelta_package_files)
add_custom_target(zelta_package_files ALL DEPENDS ${package_files})

# Examples and no files in /etc: none works before somebody put names and secrets of theirs into it, and
# then every new version would ask which of the two to keep.
install(FILES packaging/delivery.json docs/delivery-settings.schema.json docs/recorder-settings.schema.json
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${recorder_name}/examples" COMPONENT recorder)
install(FILES packaging/fleet/worker.json packaging/fleet/accounts.conf packaging/fleet/nats-one.conf
              packaging/fleet/nats-three.conf docs/fleet-worker.schema.json
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${fleet_name}/examples" COMPONENT fleet)
set(examples "${CMAKE_INSTALL_DATADIR}/doc/${development_name}/examples")
install(FILES examples/CMakeLists.txt DESTINATION "${examples}" COMPONENT development)
foreach(source IN ITEMS c/record.c frames/main.cpp record/main.cpp)
  get_filename_component(folder "${source}" DIRECTORY)
  install(FILES "examples/${source}" DESTINATION "${examples}/${folder}" COMPONENT development)
endforeach()
if(ZELTA_BUILD_JAVA)
  install(FILES examples/java/Record.java examples/java/Frames.java examples/java/GridLayout.java
          DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${java_name}/examples" COMPONENT java)
endif()
install(FILES packaging/zelta-deliver.service DESTINATION lib/systemd/system COMPONENT recorder)
install(FILES packaging/fleet/zelta-worker.service DESTINATION lib/systemd/system COMPONENT fleet)
install(FILES packaging/fleet/sysusers.conf DESTINATION lib/sysusers.d RENAME zelta-recorder.conf
        COMPONENT recorder)
# What debuggers read is in packages of its own; the static library's isn't, and is 50 times its code.
install(
  CODE "execute_process(COMMAND \"${ZELTA_objcopy}\" --strip-debug --enable-deterministic-archives
  \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libzelta_recording.a\"
  COMMAND_ERROR_IS_FATAL ANY)"
  COMPONENT development)

# The scripts that run when a package with a unit comes and goes.
function(make_scripts component unit make_user drop_settings)
  set(ZELTA_UNIT "${unit}")
  set(ZELTA_MAKE_USER "${make_user}")
  set(ZELTA_DROP_SETTINGS "${drop_settings}")
  foreach(script IN ITEMS postinst prerm postrm)
    configure_file(packaging/debian/${script}.in "${made}/${component}/${script}" @ONLY
                   FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                    WORLD_READ WORLD_EXECUTE)
    list(APPEND scripts "${made}/${component}/${script}")
  endforeach()
  string(TOUPPER ${component} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_CONTROL_EXTRA "${scripts}" PARENT_SCOPE)
endfunction()
make_scripts(
  recorder zelta-deliver.service
  "    systemd-sysusers zelta-recorder.conf
    # Settings, which may hold secrets, are the services' alone to read.
    [ -e /etc/zelta ] || install -d -m 0750 -g zelta /etc/zelta
"
  "  # Settings that somebody wrote, and recordings, stay.
  rmdir --ignore-fail-on-non-empty /etc/zelta 2>/dev/null || true
")
make_scripts(fleet zelta-worker.service "" "")
configure_file(packaging/debian/library.triggers "${made}/library/triggers" COPYONLY)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${made}/library/triggers")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zelta-recording)
# Each component has its own, in the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "${ZELTA_MAINTAINER}")
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# FinishPackages.cmake unpacks them once more, and compresses them.
set(CPACK_DEBIAN_COMPRESSION_TYPE none)
set(CPACK_DEBIAN_PACKAGE_VERSION "${version}")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE zelta-recording)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own library is found here, and depended on by component, exactly: engine, recorder and tools share
# formats that may change with any version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_BUILD_SOURCE_DIRS "${PROJECT_SOURCE_DIR}")
set(CPACK_POST_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/FinishPackages.cmake")
foreach(component IN LISTS components)
  string(TOUPPER ${component} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME "${${component}_name}")
endforeach()

set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# It starts the recorder, which depends on it.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS zelta-recorder)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "recording of real-time audio and video channels - engine
An application links this library, makes an engine object for each recording
and joins a channel; a process of its own, the recorder, receives the media,
writes the files and gives frames to the application.

The recorder is in the package zelta-recorder.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DEBUGINFO_PACKAGE OFF)
# The static library is linked with it.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS libjsoncpp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS zelta-recorder)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "recording of real-time audio and video channels - development files
The headers of the recording engine, for C++ and C, its library to link
statically, a CMake package, zelta_recording, a description for pkg-config,
and examples.")

# What is loaded by name while it runs: GStreamer's elements, and TLS of libsoup. x264enc is recommended
# alone, as OpenH264 of -bad does its work in more time.
set(CPACK_DEBIAN_RECORDER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_RECORDER_PACKAGE_DEPENDS
    "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, gstreamer1.0-libav, glib-networking, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_RECORDER_PACKAGE_RECOMMENDS
    "gstreamer1.0-plugins-ugly, age, ca-certificates, fonts-dejavu-core")
set(CPACK_COMPONENT_RECORDER_DEPENDS library)
set(CPACK_COMPONENT_RECORDER_DESCRIPTION
    "recording of real-time audio and video channels - recorder
The recorder process and the command line: zelta-record records a channel of
media files, RTP, browsers (WHIP) or a Janus gateway, one file a user or all
mixed; zelta-view shows a recording in a browser; zelta-lay makes one film of
it; zelta-deliver brings it to folders, WebDAV, S3 or SFTP.")

set(CPACK_DEBIAN_FLEET_PACKAGE_SECTION video)
set(CPACK_DEBIAN_FLEET_PACKAGE_RECOMMENDS nats-server)
set(CPACK_COMPONENT_FLEET_DEPENDS recorder)
set(CPACK_COMPONENT_FLEET_DESCRIPTION
    "recording of real-time audio and video channels - fleet
Many machines record what stands in one queue of NATS servers; when one dies
another goes on. zelta-worker records on each of them, zelta-fleet sends jobs
and shows what becomes of them.")

# Which virtual machine runs it is the application's to say, as Debian has it for libraries.
set(CPACK_DEBIAN_JAVA_PACKAGE_SECTION java)
set(CPACK_DEBIAN_JAVA_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_JAVA_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_JAVA_DEBUGINFO_PACKAGE OFF)
set(CPACK_DEBIAN_JAVA_PACKAGE_SUGGESTS "default-jre-headless (>= 2:1.17), zelta-recorder")
set(CPACK_COMPONENT_JAVA_DEPENDS jni)
set(CPACK_COMPONENT_JAVA_DESCRIPTION
    "recording of real-time audio and video channels - Java
The recording engine for Java 17 and newer: a recording that is closed by try,
events that are waited for, frames as direct buffers that aren't copied.")
set(CPACK_DEBIAN_JNI_PACKAGE_SECTION java)
set(CPACK_COMPONENT_JNI_DEPENDS library)
set(CPACK_COMPONENT_JNI_DESCRIPTION
    "recording of real-time audio and video channels - Java's native part
The library that the classes of libzelta-recording-java load, and nothing else.")

if(ZELTA_BUILD_PYTHON)
  set(python_examples "${CMAKE_INSTALL_DATADIR}/doc/${python_name}/examples")
  install(FILES examples/python/record.py examples/python/frames.py examples/python/layout.py
          DESTINATION "${python_examples}" COMPONENT python)
  foreach(script IN ITEMS postinst prerm)
    file(COPY_FILE packaging/debian/python.${script} "${made}/python/${script}" ONLY_IF_DIFFERENT)
    list(APPEND python_scripts "${made}/python/${script}")
  endforeach()
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA "${python_scripts}")
  # A module has no soname that others could depend on.
  set(CPACK_DEBIAN_PYTHON_PACKAGE_GENERATE_SHLIBS OFF)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11), python3-numpy, python3-cffi-backend")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS zelta-recorder)
  set(CPACK_COMPONENT_PYTHON_DEPENDS library)
  set(CPACK_COMPONENT_PYTHON_DESCRIPTION
      "recording of real-time audio and video channels - Python
The module zelta_recording: a program in Python records channels, follows
their events by a loop, also of asyncio, and looks at sound and pictures as
NumPy arrays that nothing was copied for.

The recorder is in the package zelta-recorder.")
endif()

if(ZELTA_BUILD_NODE)
  install(FILES examples/node/record.mjs examples/node/frames.mjs examples/node/layout.mjs
          DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${node_name}/examples" COMPONENT node)
  set(CPACK_DEBIAN_NODE_PACKAGE_GENERATE_SHLIBS OFF)
  set(CPACK_DEBIAN_NODE_PACKAGE_SECTION javascript)
  set(CPACK_DEBIAN_NODE_PACKAGE_DEPENDS "nodejs (>= 18)")
  set(CPACK_DEBIAN_NODE_PACKAGE_RECOMMENDS zelta-recorder)
  set(CPACK_COMPONENT_NODE_DEPENDS library)
  set(CPACK_COMPONENT_NODE_DESCRIPTION
      "recording of real-time audio and video channels - Node.js
The package zelta-recording: a program in JavaScript or TypeScript records
channels, follows their events by a loop of its own event loop, and looks at
sound and pictures that nothing was copied for.

The recorder is in the package zelta-recorder.")
endif()
include(CPack)

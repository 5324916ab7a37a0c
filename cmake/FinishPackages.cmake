# SPDX-License-Identifier: Apache-2.0
# Run by CPack when the packages are made: compresses them, which CPack was told to leave, and puts right
# what it can't be told. Of the library's package it drops the scripts that call ldconfig, which its trigger
# does, once for all that is installed, and adds its symbols; of the debug packages it corrects the paths of md5sums, and adds the
# folder with licence and changelog, which is that of the package that they belong to.
function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${package}" NAME)
  string(REGEX REPLACE "_.*" "" name "${name}")
  set(tree "${package}.tree")
  set(level 6)
  file(REMOVE_RECURSE "${tree}")
  run(dpkg-deb --raw-extract "${package}" "${tree}")
  if(name MATCHES "-dbgsym$")
    # Hundreds of megabytes, which few fetch.
    set(level 1)
    file(READ "${tree}/DEBIAN/md5sums" sums)
    string(REGEX REPLACE "  [^\n]*/usr/lib/debug/" "  usr/lib/debug/" sums "${sums}")
    file(WRITE "${tree}/DEBIAN/md5sums" "${sums}")
    string(REGEX REPLACE "-dbgsym$" "" debugged "${name}")
    file(MAKE_DIRECTORY "${tree}/usr/share/doc")
    run(chmod 755 "${tree}/usr/share" "${tree}/usr/share/doc")
    file(CREATE_LINK "${debugged}" "${tree}/usr/share/doc/${name}" SYMBOLIC)
  elseif(name MATCHES "^lib.*[0-9]$")
    file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
    # From which version on it has each symbol, for the packages of applications. One that is new or gone
    # fails here.
    file(GLOB_RECURSE library LIST_DIRECTORIES FALSE "${tree}/usr/lib/*.so.*.*.*")
    execute_process(COMMAND dpkg-deb --field "${package}" Version OUTPUT_VARIABLE version
                    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    run(dpkg-gensymbols "-p${name}" "-v${version}" "-P${tree}" "-e${library}" -c4
        "-I${CMAKE_CURRENT_LIST_DIR}/../abi/${name}.symbols" "-O${tree}/DEBIAN/symbols")
  endif()
  run(dpkg-deb --root-owner-group -Zxz -z${level} --build "${tree}" "${package}")
  file(REMOVE_RECURSE "${tree}")
endforeach()

# Run by CPack once the packages are built (CPACK_POST_BUILD_SCRIPTS), with
# CPACK_PACKAGE_FILES naming them. CPack's DEB generator gives a package
# holding a shared library under /usr/lib a postinst and a postrm that call
# ldconfig; Debian calls it from a trigger instead (the package's "triggers"
# control file: activate-noawait ldconfig). The library's package is built
# again without the two scripts (each library package), its files and control otherwise unchanged.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${deb}" NAME)
  if(NOT name MATCHES "^lib(xilinx|kelvorn|kelvorn-sim)1_.*\\.deb$")
    continue()
  endif()
  set(tree "${deb}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb --raw-extract "${deb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  if(NOT EXISTS "${tree}/DEBIAN/triggers")
    message(FATAL_ERROR "${name}: no ldconfig trigger; the ldconfig scripts are kept")
  endif()
  file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
  execute_process(COMMAND dpkg-deb --root-owner-group --build "${tree}" "${deb}" OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()

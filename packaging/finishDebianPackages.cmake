# Run by cpack (CPACK_POST_BUILD_SCRIPTS) on the Debian packages it built. cpack gives a package
# with shared libraries in /usr/lib maintainer scripts that call ldconfig; libklnetbase10 has an
# ldconfig trigger instead, as Debian asks (and as debhelper makes it), so the library package is
# built again without those scripts, its contents unchanged.
find_program(kl_dpkg_deb dpkg-deb REQUIRED)
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${package}" NAME)
  if(NOT name MATCHES "^lib[^_]+_.*\\.deb$")
    continue()
  endif()
  set(tree "${package}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND ${kl_dpkg_deb} --raw-extract "${package}" "${tree}"
    RESULT_VARIABLE status ERROR_VARIABLE error)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "dpkg-deb --raw-extract ${package} failed: ${error}")
  endif()
  file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
  execute_process(COMMAND ${kl_dpkg_deb} --root-owner-group -Zgzip --build "${tree}" "${package}"
    RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE error)
  file(REMOVE_RECURSE "${tree}")
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "dpkg-deb --build ${package} failed: ${error}")
  endif()
endforeach()

# kl_install_pkg_config(<template> <component>)
# Installs the pkg-config file made from <template> (cmake/NAME.pc.in) into LIBDIR/pkgconfig of
# the installation. Its prefix is the installation's own, written out when installing (cmake
# --install --prefix, or /usr in the Debian packages), in canonical form: no "//", no "/../", as
# pkg-config and the compilers' system directories compare paths by their text. The template's
# other @VARIABLES@ are filled in when configuring.
function(kl_install_pkg_config template component)
  get_filename_component(name ${template} NAME_WLE)
  set(KL_PC_PREFIX "@KL_PC_PREFIX@")
  set(staged ${CMAKE_CURRENT_BINARY_DIR}/${name}.in)
  configure_file(${template} ${staged} @ONLY)
  install(CODE "
    cmake_path(SET KL_PC_PREFIX NORMALIZE \"\${CMAKE_INSTALL_PREFIX}\")
    string(REGEX REPLACE \"(.)/+$\" \"\\\\1\" KL_PC_PREFIX \"\${KL_PC_PREFIX}\")
    string(RANDOM LENGTH 16 kl_pc_tag)
    set(kl_pc_dir \"${CMAKE_CURRENT_BINARY_DIR}/pc-\${kl_pc_tag}\")
    configure_file(\"${staged}\" \"\${kl_pc_dir}/${name}\" @ONLY)
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\"
      TYPE FILE FILES \"\${kl_pc_dir}/${name}\")
    file(REMOVE_RECURSE \"\${kl_pc_dir}\")" COMPONENT ${component})
endfunction()

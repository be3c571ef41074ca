# Run by cpack (CPACK_PRE_BUILD_SCRIPTS) on the staged packages before they are built: manual
# pages go into a Debian package compressed with gzip -9n, as Debian policy asks.
file(GLOB_RECURSE kl_pages LIST_DIRECTORIES false
  "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/*")
foreach(page IN LISTS kl_pages)
  if(NOT page MATCHES "\\.gz$" AND NOT IS_SYMLINK "${page}")
    execute_process(COMMAND gzip -9nf "${page}" RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "gzip -9n ${page} failed")
    endif()
  endif()
endforeach()

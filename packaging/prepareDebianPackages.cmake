# Run by cpack (CPACK_PRE_BUILD_SCRIPTS) on the staged packages before they are built, to finish
# them as Debian's own tools (dh_compress, dh_strip) would:
# - manual pages compressed with gzip -9n, as Debian policy asks;
# - the programs and libraries, stripped by cpack already, without the sections .comment
#   (compiler versions) and .note, which nothing reads at run time.
find_program(kl_objcopy NAMES objcopy REQUIRED)
file(GLOB_RECURSE kl_files LIST_DIRECTORIES false "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*")
foreach(file IN LISTS kl_files)
  if(IS_SYMLINK "${file}")
    continue()
  endif()
  if(file MATCHES "/usr/share/man/" AND NOT file MATCHES "\\.gz$")
    execute_process(COMMAND gzip -9nf "${file}" RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "gzip -9n ${file} failed")
    endif()
    continue()
  endif()
  file(READ "${file}" magic LIMIT 4 HEX)
  if(magic STREQUAL "7f454c46")
    execute_process(COMMAND ${kl_objcopy} --remove-section=.comment --remove-section=.note
      "${file}" RESULT_VARIABLE status ERROR_VARIABLE error)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "objcopy ${file} failed: ${error}")
    endif()
  endif()
endforeach()

# kl_add_man_page(<program target> <one-line description>)
# Generates the program's man page at build time from its --help and --version with help2man
# and installs it into share/man/man1. The help text is the source: where the page reads badly,
# change the program's --help. Without help2man no man pages are made.
find_program(KLNETBASE_HELP2MAN help2man)
if(NOT KLNETBASE_HELP2MAN)
  message(STATUS "help2man not found: no man pages")
endif()

function(kl_add_man_page program description)
  if(NOT KLNETBASE_HELP2MAN)
    return()
  endif()
  set(page ${PROJECT_BINARY_DIR}/man/${program}.1)
  add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${KLNETBASE_HELP2MAN} --no-info --section=1
            --name=${description} --output=${page} $<TARGET_FILE:${program}>
    DEPENDS ${program}
    COMMENT "Man page of ${program}"
    VERBATIM)
  add_custom_target(${program}-man ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()

# kl_add_man_page(<program target> <one-line description> [INCLUDE <file>] [COMMANDS <command>...])
# Generates the program's man page at build time from its --help and --version with help2man
# and installs it into share/man/man1. The help text is the source: where the page reads badly,
# change the program's --help. INCLUDE names a help2man include file (sections such as
# [EXIT STATUS], [FILES], [SEE ALSO] in roff); COMMANDS names subcommands whose options get a
# section of their own ("START OPTIONS"), from "PROGRAM COMMAND --help". Without help2man no man
# pages are made.
find_program(KLNETBASE_HELP2MAN help2man)
if(NOT KLNETBASE_HELP2MAN)
  message(STATUS "help2man not found: no man pages")
endif()

function(kl_add_man_page program description)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "INCLUDE" "COMMANDS")
  if(NOT KLNETBASE_HELP2MAN)
    return()
  endif()
  set(page ${PROJECT_BINARY_DIR}/man/${program}.1)
  set(include ${PROJECT_BINARY_DIR}/man/${program}.h2m)
  if(arg_INCLUDE)
    get_filename_component(arg_INCLUDE ${arg_INCLUDE} ABSOLUTE)
  endif()
  string(REPLACE ";" "," commands "${arg_COMMANDS}")
  add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:${program}> -DINCLUDE=${arg_INCLUDE}
            -DCOMMANDS=${commands} -DOUTPUT=${include}
            -P ${PROJECT_SOURCE_DIR}/cmake/klManPageInclude.cmake
    COMMAND ${KLNETBASE_HELP2MAN} --no-info --section=1 --include=${include}
            --name=${description} --output=${page} $<TARGET_FILE:${program}>
    DEPENDS ${program} ${arg_INCLUDE} ${PROJECT_SOURCE_DIR}/cmake/klManPageInclude.cmake
    COMMENT "Man page of ${program}"
    VERBATIM)
  add_custom_target(${program}-man ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()

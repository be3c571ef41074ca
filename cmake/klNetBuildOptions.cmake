# Warnings and sanitizers for every target of the project, through one option each.
#
#   -DKLNETBASE_SANITIZE=address,undefined   AddressSanitizer + UndefinedBehaviorSanitizer
#   -DKLNETBASE_SANITIZE=thread              ThreadSanitizer
#   -DKLNETBASE_WERROR=ON                    warnings fail the build (CI)
#   -DKLNETBASE_HARDENING=OFF                without Debian's hardening flags (on by default
#                                            unless sanitizing)

set(KLNETBASE_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")
option(KLNETBASE_WERROR "Treat warnings as errors" OFF)
if(KLNETBASE_SANITIZE)
  set(kl_hardening_default OFF)
else()
  set(kl_hardening_default ON)
endif()
option(KLNETBASE_HARDENING "Build with Debian's hardening flags (dpkg-buildflags)"
  ${kl_hardening_default})

add_compile_options(-Wall -Wextra)
if(KLNETBASE_WERROR)
  add_compile_options(-Werror)
endif()

if(KLNETBASE_SANITIZE)
  add_compile_options(-fsanitize=${KLNETBASE_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KLNETBASE_SANITIZE})
  # GCC's flow analysis reports uninitialised reads inside the standard library's regex and
  # function templates once sanitizer instrumentation is added; the sanitizers themselves check
  # what that warning guesses at.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()

# Debian's hardening flags, as dpkg-buildflags gives them to every package of the distribution
# (all its hardening features: stack protector, _FORTIFY_SOURCE, RELRO, BIND_NOW, PIE), for every
# target and so for the programs and libraries of the Debian packages. The optimisation level and
# debug information stay the build type's; the path mapping is left out, the flags do not depend
# on where this is configured. _FORTIFY_SOURCE needs optimisation (glibc warns without it, and
# warnings fail the build) and only gets in AddressSanitizer's way: it is left out of unoptimised
# and sanitized builds.
if(KLNETBASE_HARDENING)
  find_program(KLNETBASE_DPKG_BUILDFLAGS dpkg-buildflags)
  if(NOT KLNETBASE_DPKG_BUILDFLAGS)
    message(FATAL_ERROR "KLNETBASE_HARDENING needs dpkg-buildflags (dpkg-dev), or turn it off")
  endif()
  set(kl_hardening_env "DEB_BUILD_MAINT_OPTIONS=hardening=+all reproducible=-fixfilepath,-fixdebugpath")
  foreach(kind CPPFLAGS CXXFLAGS LDFLAGS)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env "${kl_hardening_env}"
        ${KLNETBASE_DPKG_BUILDFLAGS} --get ${kind}
      OUTPUT_VARIABLE kl_flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE kl_status)
    if(NOT kl_status EQUAL 0)
      message(FATAL_ERROR "dpkg-buildflags --get ${kind} failed")
    endif()
    separate_arguments(kl_flags UNIX_COMMAND "${kl_flags}")
    list(FILTER kl_flags EXCLUDE REGEX "^-(O.*|g.*)$")
    set(kl_hardening_${kind} ${kl_flags})
  endforeach()
  if(KLNETBASE_SANITIZE)
    list(FILTER kl_hardening_CPPFLAGS EXCLUDE REGEX "^-D_FORTIFY_SOURCE")
  endif()
  foreach(flag IN LISTS kl_hardening_CPPFLAGS)
    if(flag MATCHES "^-D_FORTIFY_SOURCE")
      add_compile_options($<$<NOT:$<CONFIG:Debug>>:${flag}>)
    else()
      add_compile_options(${flag})
    endif()
  endforeach()
  add_compile_options(${kl_hardening_CXXFLAGS})
  add_link_options(${kl_hardening_LDFLAGS})
  # Position-independent executables, linked as such (-pie) where the compiler can.
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported()
  message(STATUS "Hardening: ${kl_hardening_CPPFLAGS} ${kl_hardening_CXXFLAGS} ${kl_hardening_LDFLAGS}")
endif()

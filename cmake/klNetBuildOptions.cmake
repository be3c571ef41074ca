# Warnings and sanitizers for every target of the project, through one option each.
#
#   -DKLNETBASE_SANITIZE=address,undefined   AddressSanitizer + UndefinedBehaviorSanitizer
#   -DKLNETBASE_SANITIZE=thread              ThreadSanitizer
#   -DKLNETBASE_WERROR=ON                    warnings fail the build (CI)

set(KLNETBASE_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")
option(KLNETBASE_WERROR "Treat warnings as errors" OFF)

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

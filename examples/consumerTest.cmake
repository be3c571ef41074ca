# Script run by CTest: install, build the consumer and the codecs consumer two ways, through the
# CMake package (with its codecs component) and through pkg-config, and run them. The library's
# packages leave the language standard to the application: the CMake build is C++20, the
# pkg-config builds C++17 and C++20, all with warnings as errors.

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
  endif()
  message(STATUS "${out}")
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(header klNetBase.h core/klNetBuffer.h serial/klNetSerializer.h codecs/klNetCodecs.h)
  if(NOT EXISTS ${prefix}/include/klNetBase/${header})
    message(FATAL_ERROR "not installed: include/klNetBase/${header}")
  endif()
endforeach()

# Through the CMake package.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_STANDARD=20
    "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
run(${WORK_DIR}/cmake-build/consumer-codecs)

# Through pkg-config, as the README says: PKG_CONFIG_PATH names the prefix's pkgconfig directory.
find_program(PKG_CONFIG pkg-config REQUIRED)
set(libdir ${prefix}/${LIBDIR})
set(ENV{PKG_CONFIG_PATH} "${libdir}/pkgconfig")
foreach(consumer main:klNetBase codecs:klNetBaseCodecs)
  string(REPLACE ":" ";" consumer ${consumer})
  list(GET consumer 0 source)
  list(GET consumer 1 module)
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs ${module} OUTPUT_VARIABLE flags
                  RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know ${module}")
  endif()
  # The flags name the prefix as installed, canonical, and choose no language standard.
  if(flags MATCHES "-std=|//|/\\.\\./" OR NOT flags MATCHES "-I${prefix}/include( |$)")
    message(FATAL_ERROR "pkg-config --cflags --libs ${module}: ${flags}")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  foreach(standard 17 20)
    set(program ${WORK_DIR}/${source}-pc-${standard})
    run(${CXX} -std=c++${standard} -Wall -Wextra -Werror ${SOURCE_DIR}/${source}.cpp -o ${program}
        ${flags} -Wl,-rpath,${libdir})
    run(${program})
  endforeach()
endforeach()

# Script run by CTest: install, build the consumer two ways, run both; build and run the codecs
# consumer through the CMake package's codecs component.

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
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
run(${WORK_DIR}/cmake-build/consumer-codecs)

# Through pkg-config.
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB pcdir LIST_DIRECTORIES true ${prefix}/lib*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs klNetBase OUTPUT_VARIABLE flags
                RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know klNetBase")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
get_filename_component(libdir ${pcdir} DIRECTORY)
run(${CXX} ${SOURCE_DIR}/main.cpp -o ${WORK_DIR}/consumer-pc ${flags} -Wl,-rpath,${libdir})
run(${WORK_DIR}/consumer-pc)

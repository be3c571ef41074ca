# The cluster service, across real processes.
kl_add_test(klSocketPipeTest SOURCES service/klSocketPipeTest.cpp LABELS threaded)
# The service daemon and klnetctl, run as the user runs them; they start the render server.
# These and the render server's tests stay out of the ThreadSanitizer run: Qt 5 orders its thread
# objects and signal connections, and libtbb its parallel_for tasks, through futexes and atomics of
# their own uninstrumented builds, so every request thread and render reports false races there.
if(TARGET KALDClusterService AND TARGET klnetctl AND TARGET KALDClusterServer)
  kl_add_test(klnetctlTest SOURCES service/klnetctlTest.cpp)
  target_link_libraries(klnetctlTest PRIVATE klServiceClient)
  add_dependencies(klnetctlTest KALDClusterService klnetctl KALDClusterServer)
endif()
if(TARGET KALDClusterService AND TARGET KALDClusterServer)
  kl_add_test(klNetServiceTest SOURCES service/klNetServiceTest.cpp)
  target_link_libraries(klNetServiceTest PRIVATE klRender)
  add_dependencies(klNetServiceTest KALDClusterService KALDClusterServer)
endif()
# The status record, the executable lookup and the server launcher. The launcher's test is built
# into a directory of its own beside a stand-in "KALDClusterServer", where the lookup finds it.
kl_add_test(klNetServiceStatusTest SOURCES service/klNetServiceStatusTest.cpp)
kl_add_test(klNetServerProcessTest SOURCES service/klNetServerProcessTest.cpp LABELS threaded)
add_executable(klNetFakeClusterServer service/klNetFakeClusterServer.cpp)
target_link_libraries(klNetServerProcessTest PRIVATE Qt5::Core)
add_dependencies(klNetServerProcessTest klNetFakeClusterServer)
set_target_properties(klNetFakeClusterServer PROPERTIES OUTPUT_NAME KALDClusterServer
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/launcher)
set_target_properties(klNetServerProcessTest PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/launcher)
# The render protocol and the render server, started on a socket pipe of the test's own.
if(TARGET KALDClusterServer)
  kl_add_test(klRenderServerTest SOURCES service/klRenderServerTest.cpp)
  target_link_libraries(klRenderServerTest PRIVATE klRender)
  add_dependencies(klRenderServerTest KALDClusterServer)
endif()

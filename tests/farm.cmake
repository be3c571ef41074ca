# The render farm in network namespaces (scripts/farm.sh): each test makes a farm of its own, under
# a name of its own so that tests may run at once, and removes it again. They need root and
# 'ip netns' and are skipped without them. Only in a build without sanitizers: the programs run
# as they would on a farm.
if(KLNETBASE_SANITIZE OR NOT TARGET klClusterRender OR NOT TARGET klnetctl)
  return()
endif()

set(KL_FARM_SCRIPT ${PROJECT_SOURCE_DIR}/scripts/farm.sh)
set(KL_FARM_PROGRAMS KALDClusterService KALDClusterServer klClusterRender klnetctl)

foreach(case render node-dies allow link-cut)
  add_test(NAME klFarm.${case}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/farm/farm_test.sh ${case} ${PROJECT_BINARY_DIR}/bin)
  set_tests_properties(klFarm.${case} PROPERTIES LABELS farm TIMEOUT 120 SKIP_RETURN_CODE 77)
endforeach()

kl_add_test(klFarmStripeTest SOURCES farm/klFarmStripeTest.cpp LABELS farm)
target_link_libraries(klFarmStripeTest PRIVATE klNetNamespace)
target_compile_definitions(klFarmStripeTest PRIVATE KL_FARM_SCRIPT="${KL_FARM_SCRIPT}")
add_dependencies(klFarmStripeTest ${KL_FARM_PROGRAMS})

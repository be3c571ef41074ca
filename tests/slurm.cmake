# klClusterRender --slurm on a Slurm cluster of three nodes on this machine
# (scripts/slurm-cluster.sh): each case starts a cluster of its own in a directory of its own and
# removes it again. They need root, slurm-wlm and munge and are skipped without them. Only in a
# build without sanitizers: the programs run as they would in a job. One at a time: the long
# renders of the mid-frame cases would slow each other down. Every wait in a case is bounded well
# below TIMEOUT: a case killed by CTest could not remove its cluster.
if(KLNETBASE_SANITIZE OR NOT TARGET klClusterRender OR NOT TARGET klnetctl)
  return()
endif()

foreach(case render key scancel node-dies client-killed client-interrupted outside sbatch)
  add_test(NAME klSlurm.${case}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/slurm/slurm_test.sh ${case} ${PROJECT_BINARY_DIR}/bin)
  set_tests_properties(klSlurm.${case} PROPERTIES LABELS slurm TIMEOUT 300 SKIP_RETURN_CODE 77
    RESOURCE_LOCK klSlurm)
endforeach()

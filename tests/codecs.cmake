# The codecs companion library: compressors through the threaded stages, the cipher on socket
# links. Both programs run threads of their own.
kl_add_test(klNetCompressorsTest SOURCES codecs/klNetCompressorsTest.cpp LABELS threaded)
target_link_libraries(klNetCompressorsTest PRIVATE klNetBase::codecs)
kl_add_test(klNetChaChaCipherTest SOURCES codecs/klNetChaChaCipherTest.cpp LABELS threaded)
target_link_libraries(klNetChaChaCipherTest PRIVATE klNetBase::codecs)
kl_add_test(klNetFarmSealerTest SOURCES codecs/klNetFarmSealerTest.cpp LABELS threaded)
target_link_libraries(klNetFarmSealerTest PRIVATE klNetBase::codecs)

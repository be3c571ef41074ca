# The send and receive pipelines and the runtime support they use. Programs that run threads of
# their own carry the label "threaded", which the ThreadSanitizer build runs.
kl_add_test(klNetBundleTest SOURCES core/klNetBundleTest.cpp)
kl_add_test(klNetMemTest SOURCES runtime/klNetMemTest.cpp)
kl_add_test(klNetActionManagerTest SOURCES runtime/klNetActionManagerTest.cpp LABELS threaded)
kl_add_test(klNetSenderTest SOURCES send/klNetSenderTest.cpp LABELS threaded)
kl_add_test(klNetBufferedSenderTest SOURCES send/klNetBufferedSenderTest.cpp LABELS threaded)
kl_add_test(klNetReceiverTest SOURCES recv/klNetReceiverTest.cpp LABELS threaded)
kl_add_test(klNetPipelineTest SOURCES send/klNetPipelineTest.cpp LABELS threaded)

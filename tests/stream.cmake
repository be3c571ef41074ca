# The stream, in one process and across processes.
kl_add_test(klNetClusterTest SOURCES serial/klNetClusterTest.cpp LABELS threaded)
kl_add_test(klNetStreamTest SOURCES serial/klNetStreamTest.cpp)
kl_add_test(klNetReorderReceiversTest SOURCES recv/klNetReorderReceiversTest.cpp)

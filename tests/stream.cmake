# The stream, in one process and across processes.
kl_add_test(klNetClusterTest SOURCES serial/klNetClusterTest.cpp LABELS threaded)

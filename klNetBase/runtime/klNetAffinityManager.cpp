#include <klNetBase/runtime/klNetAffinityManager.h>

#include <pthread.h>
#include <sched.h>

#include <cstdio>

void klNetAffinityManager::setNodeAffinity(int node) {
    if (node < 0) {
        return;
    }
    // The mask is the first CPU only, as a plain bit mask of value 1.
    const unsigned long mask = 1;
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(0, &cpus);
    pthread_setaffinity_np(pthread_self(), sizeof(cpus), &cpus);
    std::printf("setaffinity %d\n", int(mask));
    std::fflush(stdout);
}

std::vector<int> klNetAffinityManager::getCPUs(int) {
    return {};
}

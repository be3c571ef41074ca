// klNetAffinityManager: binds the calling thread for a node affinity setting.
// Thread safety: affects only the calling thread.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <vector>

class KLNETBASE_EXPORT klNetAffinityManager {
public:
    // For a node of 0 or more: binds the calling thread to the first CPU (whatever the node) and
    // prints "setaffinity 1" on standard output. A negative node does nothing.
    static void setNodeAffinity(int node);

private:
    // The CPUs of a node; no per-node list is kept, so always empty.
    static std::vector<int> getCPUs(int node);
};

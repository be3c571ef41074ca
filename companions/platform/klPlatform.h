// klPlatform: facts about the running program's installation.
// Thread safety: any thread.
#pragma once

#include <string>

class klPlatform {
public:
    // Directory of the running executable, without a trailing slash; empty if it cannot be read.
    static std::string getBinDir();
};

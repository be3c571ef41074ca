// klVersionInfo: the version text of this build, a decimal number such as "10.0".
//
// Peers compare version texts as decimal numbers, so the text is always major.minor.
// Thread safety: immutable; any thread.
#pragma once

#include <string>

class klVersionInfo {
public:
    static const klVersionInfo& the();

    std::string getVersionString() const;
};

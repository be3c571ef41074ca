#include "klVersionInfo.h"

#include "klVersionText.h"

const klVersionInfo& klVersionInfo::the() {
    static const klVersionInfo instance;
    return instance;
}

std::string klVersionInfo::getVersionString() const {
    return KL_VERSION_TEXT;
}

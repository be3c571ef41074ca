#include <klNetBase/link/klNetLinkSeal.h>

#include <klNetBase/core/klNetError.h>

#include <mutex>

namespace {

std::mutex s_restorerLock;
klNetLinkSeal::Restorer& restorer() {
    static klNetLinkSeal::Restorer function;
    return function;
}

}  // namespace

klNetLinkSeal::~klNetLinkSeal() = default;

void klNetLinkSeal::setRestorer(Restorer function) {
    std::lock_guard<std::mutex> guard(s_restorerLock);
    restorer() = std::move(function);
}

std::unique_ptr<klNetLinkSeal> klNetLinkSeal::restore(const std::string& state) {
    Restorer function;
    {
        std::lock_guard<std::mutex> guard(s_restorerLock);
        function = restorer();
    }
    if (!function) {
        throw klNetError("Sealed connection handed over, but no seal implementation is registered");
    }
    return function(state);
}

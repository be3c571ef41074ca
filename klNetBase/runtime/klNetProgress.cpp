#include <klNetBase/runtime/klNetProgress.h>

#include <memory>

std::atomic<klNetProgress::Handler*> klNetProgress::s_handler{nullptr};
std::atomic<bool> klNetProgress::s_isAborting{false};
std::atomic<double> klNetProgress::s_progress{0.0};
std::atomic<double> klNetProgress::s_progressScale{0.0};
std::atomic<int> klNetProgress::s_lastProgressPercent{0};
std::mutex klNetProgress::s_mutex;

namespace {

// The hook is replaced rarely and read after every change: readers take a shared snapshot.
std::mutex g_hookMutex;
std::shared_ptr<const std::function<void()>> g_hook;

std::shared_ptr<const std::function<void()>> currentHook() {
    std::lock_guard<std::mutex> lock(g_hookMutex);
    return g_hook;
}

}  // namespace

void klNetProgress::setHook(std::function<void()> hook) {
    auto next = hook ? std::make_shared<const std::function<void()>>(std::move(hook)) : nullptr;
    std::lock_guard<std::mutex> lock(g_hookMutex);
    g_hook = std::move(next);
}

void klNetProgress::set(Handler* handler) {
    s_isAborting = false;
    s_progress = 0.0;
    s_handler = handler;
}

void klNetProgress::reset() {
    s_handler = nullptr;
    s_isAborting = false;
}

void klNetProgress::start(const std::string& text, double scale) {
    s_progress = 0.0;
    Handler* handler = s_handler;
    if (handler == nullptr) {
        return;
    }
    if (static_cast<long long>(scale) > 0) {
        s_progressScale = 100.0 / scale;
        s_lastProgressPercent = 0;
        handler->begin(text, 100.0);
        handler->progress(0.0);
    } else {
        handler->begin(text, 0.0);
        handler->progress(-1.0);
    }
}

void klNetProgress::set(double value) {
    s_progress = value;
    s_isAborting = false;
    progressChanged();
}

void klNetProgress::add(double delta) {
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_progress = s_progress + delta;
    }
    progressChanged();
}

void klNetProgress::progressChanged() {
    Handler* handler = s_handler;
    if (handler == nullptr) {
        return;
    }
    const int percent = static_cast<int>(s_progress * s_progressScale * 100.0 + 0.5);
    if (percent != s_lastProgressPercent) {
        s_lastProgressPercent = percent;
        handler->progress(percent / 100.0);
    }
    if (auto hook = currentHook()) {
        (*hook)();
    }
}

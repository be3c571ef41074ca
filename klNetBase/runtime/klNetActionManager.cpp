#include <klNetBase/runtime/klNetActionManager.h>

#include <thread>

klNetActionManager::klNetActionManager(int max) : m_state(std::make_shared<State>()) {
    m_state->maxRunning = max;
}

klNetActionManager::~klNetActionManager() = default;

void klNetActionManager::run(std::function<void()> action) {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->finished.wait(
        lock, [this] { return m_state->maxRunning < 1 || m_state->running < m_state->maxRunning; });
    ++m_state->running;
    std::thread(&klNetActionManager::threadFunction, m_state, std::move(action)).detach();
}

void klNetActionManager::threadFunction(const std::shared_ptr<State>& state,
                                        std::function<void()> action) {
    std::exception_ptr failure;
    try {
        action();
    } catch (...) {
        failure = std::current_exception();
    }
    // The action and whatever it holds go before the action counts as finished.
    action = nullptr;
    std::lock_guard<std::mutex> lock(state->mutex);
    if (failure) {
        state->failure = failure;
    }
    --state->running;
    state->finished.notify_all();
}

void klNetActionManager::waitAll() {
    std::exception_ptr failure;
    {
        std::unique_lock<std::mutex> lock(m_state->mutex);
        m_state->finished.wait(lock, [this] { return m_state->running < 1; });
        failure = std::move(m_state->failure);
        m_state->failure = nullptr;
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void klNetActionManager::reduceMaxRunning() {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    if (m_state->maxRunning != 0) {
        m_state->maxRunning = m_state->maxRunning - 1 < 1 ? 1 : m_state->maxRunning - 1;
    }
}

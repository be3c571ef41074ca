// klNetActionManager: runs actions on detached threads, at most a given number at once, and
// collects their failures.
//
// run() blocks only while the bound is reached. A failing action's exception is stored (the
// latest failure wins) and rethrown, once, by the next waitAll().
//
// Thread safety: every member may be called from any thread. The destructor does not wait for
// running actions: call waitAll() first.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

class KLNETBASE_EXPORT klNetActionManager {
public:
    // max: actions running at once; less than 1 means no bound.
    explicit klNetActionManager(int max = 0);
    ~klNetActionManager();

    klNetActionManager(const klNetActionManager&) = delete;
    klNetActionManager& operator=(const klNetActionManager&) = delete;

    void run(std::function<void()> action);
    // Waits until no action runs, then rethrows the failure stored since the last waitAll().
    void waitAll();
    // Lowers a set bound by one, never below 1; no bound stays no bound.
    void reduceMaxRunning();

private:
    // What the detached threads share with the manager. Held by the threads too, so that a thread
    // finishing after the manager is gone still touches live memory.
    struct State {
        std::mutex mutex;
        std::condition_variable finished;
        int running = 0;
        int maxRunning = 0;
        std::exception_ptr failure;
    };

    static void threadFunction(const std::shared_ptr<State>& state, std::function<void()> action);

    std::shared_ptr<State> m_state;
};

// klNetProgress: the process-wide progress reporter, with an abort request.
//
// The application installs one Handler. Long work starts a progress with a text and a scale in its
// own units, then adds or sets raw values; the reporter turns them into steps of a hundredth of a
// percent and calls the handler only when the step changes, so many small increments cost one
// handler call per step. Work polls isAborting() and stops itself when a user asked to abort.
//
// With start(text, 50) and ten add(5) calls the handler receives 10.0, 20.0, ..., 100.0.
//
// Thread safety: every function may be called from any thread. add() is serialised; set() and
// the change rule are not, so concurrent reporters may now and then report a step twice or skip
// one. The abort flag is atomic. The handler is called on the reporting thread.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

class KLNETBASE_EXPORT klNetProgress {
public:
    class KLNETBASE_EXPORT Handler {
    public:
        virtual ~Handler() = default;
        // maximum: 100.0 for a determinate progress, 0.0 for an indeterminate one.
        virtual void begin(const std::string& text, double maximum) = 0;
        // The value in percent, or -1.0 for an indeterminate progress.
        virtual void progress(double value) = 0;
    };

    // Installs the handler (not owned; null removes it), clears the abort flag and the raw value.
    static void set(Handler* handler);
    // Removes the handler and clears the abort flag.
    static void reset();
    // Starts a progress; a scale that truncates to 0 or below makes it indeterminate.
    static void start(const std::string& text, double scale);
    // Sets the raw value and clears the abort flag.
    static void set(double value);
    static void add(double delta);
    static void abort() { s_isAborting = true; }
    static bool isAborting() { return s_isAborting; }

    // Optional application hook, called without arguments after every change while a handler is
    // installed (for instance to let a user interface process its events). Empty removes it.
    static void setHook(std::function<void()> hook);

private:
    static void progressChanged();

    static std::atomic<Handler*> s_handler;
    static std::atomic<bool> s_isAborting;
    // Raw values are atomic so that unsynchronised set() and reads stay well defined.
    static std::atomic<double> s_progress;
    static std::atomic<double> s_progressScale;
    static std::atomic<int> s_lastProgressPercent;
    // Guards the read-modify-write of add().
    static std::mutex s_mutex;
};

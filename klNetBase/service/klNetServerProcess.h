// klNetServerProcess: one render server started by the cluster service.
//
// Normally the server is a separate program, "KALDClusterServer" of the client's version, found
// by klNetUtils::getExecutablePath and started with this command line:
//
//   <path> [-Z] [-P | -s] [-t | -ta] [-socketpipe=<pipe name>] <extra argument>
//
//   -Z            first option
//   -P            no display; -s: display and stereo
//   -t / -ta      second option; -ta when the third option is set as well
//   -socketpipe=  for servers of version 9.0 and later; older ones find the pipe name in the
//                 environment variable KALD_LOCAL_SERVICE of their own environment
//
// A program does not inherit this process's environment. It gets PATH, HOME, LANG, LC_*, TZ and
// KLNET_LOG_LEVEL as this process has them, XDG_RUNTIME_DIR naming the directory of its socket
// pipe, the variables given with setEnvironment(), and KALD_LOCAL_SERVICE when its version takes
// the pipe name from there; nothing else, so that no secret of the service reaches a server.
//
// With console output on, "KALDClusterServer starting" is printed first and everything the server
// writes to its standard output or error is copied to this program's standard output; otherwise
// the server writes to this program's standard output and error directly.
//
// In in-process mode (setInProcess) the server is instead a task of this process: the in-process
// callback is called with the socket-pipe name, and the server ends when the callback returns.
//
// Either way the object owns the klSocketPipe through which the service hands accepted client
// sockets to the server (sendSocket). stop() shuts the pipe down, which a server takes as the
// request to end; terminate() and kill() end a program that does not, without waiting, so that a
// caller can escalate in the background. Destruction shuts the pipe down and waits up to 3 s for
// the server to end; a program still running is then asked to terminate, after 3 more seconds
// killed, and waited for up to 5 s. (A program that has ended is destroyed at once.)
//
// Requirements: a QCoreApplication whose thread processes events (its event loop, or wait()
// called on it); a started program's wrapper is moved to that thread, where its output is copied
// and where it is finally deleted. start() must run on a Qt thread (the application's or a
// QThread).
//
// Thread safety: setEnvironment() and setEndHandler() before start(); start() once, then stop(),
// isStopRequested(), isRunning(), wait(), tryKill(), terminate(), kill(), sendSocket(),
// socketPipeName(), bookingId() and getId() from any thread. Programs are started one at a time
// across all objects, as they move objects to the application thread.
#pragma once

#include <klNetBase/klNetBaseExport.h>
#include <klNetBase/link/klSocketPipe.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class exProcess;
class klSocketLink;
class QProcessEnvironment;

class KLNETBASE_EXPORT klNetServerProcess {
public:
    static std::shared_ptr<klNetServerProcess> create(const std::string& extraArgument, unsigned id,
                                                      const std::string& serviceArgument,
                                                      const std::string& version, bool display,
                                                      bool stereo, bool firstOption,
                                                      bool secondOption, bool thirdOption,
                                                      const std::string& bookingId);

    // Creates the socket pipe; nothing is started yet. Use create().
    klNetServerProcess(const std::string& extraArgument, unsigned id, std::string serviceArgument,
                       std::string version, bool display, bool stereo, bool firstOption,
                       bool secondOption, bool thirdOption, const std::string& bookingId);
    // Ends the server as described above; blocks for at most 11 s (an in-process server: until
    // its callback returns).
    ~klNetServerProcess();

    klNetServerProcess(const klNetServerProcess&) = delete;
    klNetServerProcess& operator=(const klNetServerProcess&) = delete;

    // Variables the program gets besides the fixed set above, in this order (a later one
    // replaces an earlier one of the same name, and KALD_LOCAL_SERVICE replaces them all).
    void setEnvironment(std::vector<std::pair<std::string, std::string>> variables);
    // Called on the application thread once the program has ended, whichever way (killed: by a
    // signal), right after its end is logged; may outlive this object. Not called for an
    // in-process server.
    void setEndHandler(std::function<void(bool killed)> handler);

    // Starts the program (or the in-process task). Failure to start the program: when it is
    // missing or not executable, "Error starting process '<path>'. File not found or
    // insufficient permission to start."; when the system lacks what starting takes (descriptors,
    // processes, memory), "Error starting process '<path>': <errno>:<system text>", e.g.
    // "...: 24:Too many open files"; else "Error starting process '<path>': <reason>". A second
    // call: "Server already started".
    void start(bool console);
    // Marks the server as asked to stop, then shuts the socket pipe down (a request thread woken
    // by the shutdown already sees the mark). Does not wait; harmless when the server has ended.
    void stop();
    bool isStopRequested() const { return *m_stopFlag; }
    // The program or task runs; false before start().
    bool isRunning();
    // Whether the server was started as a thread of this process rather than as a program.
    bool isInProcess();
    // Waits until the server has ended, checking every 100 ms (and processing this thread's Qt
    // events meanwhile when a program was started); false when `seconds` passed first.
    // wait(0.0) checks once.
    bool wait(double seconds);
    // Asks the program to terminate, waits up to 3 s, then kills it. Nothing for a task.
    void tryKill();
    // Asks the program to terminate (SIGTERM, and SIGCONT for a stopped one) and returns at once.
    // Nothing for a task or a program that has ended.
    void terminate();
    // Kills the program (SIGKILL) and returns at once. Nothing for a task or a program that has
    // ended.
    void kill();
    // Hands the link's socket to the server (klSocketLink::sendDescriptor); a negative time-out
    // waits without limit.
    void sendSocket(klSocketLink& link, double seconds);

    std::string socketPipeName() const { return m_socketPipe.getName(); }
    std::string bookingId() const { return m_bookingId; }
    unsigned getId() const { return m_id; }
    // The program's process id (this process's for an in-process server); 0 before start().
    std::uint32_t getProcessId();

    // Servers started from now on run as tasks of this process (true) or as programs (false).
    // The callback replaces the stored one; it receives the socket-pipe name.
    static void setInProcess(bool inProcess, std::function<void(std::string)> callback);

private:
    // Deletes the wrapper on its own thread: at once when that is this thread or a thread that
    // will never run again, else through deleteLater.
    struct ProcessReleaser {
        void operator()(exProcess* process) const;
    };

    void executeProcess(bool console);
    void executeThread(bool console);
    void setSocketPipeArgument();
    // Whether the program takes its pipe on its command line (else in KALD_LOCAL_SERVICE).
    bool takesPipeArgument() const;
    QProcessEnvironment serverEnvironment();
    static std::string getServerPath(const std::string& version);
    static std::string getBinDir(const std::string& version);
    // The started program's wrapper, or null.
    exProcess* process();

    // Constant after construction.
    const unsigned m_id;
    // Guarded by m_lock (with m_threadResult, m_inThread and m_process).
    std::uint32_t m_processId = 0;
    klSocketPipe m_socketPipe;
    std::future<void> m_threadResult;
    bool m_inThread = false;
    // Shared with the handler that logs the program's end, which may outlive this object.
    const std::shared_ptr<std::atomic<bool>> m_stopFlag =
        std::make_shared<std::atomic<bool>>(false);
    const std::string m_serviceArgument;
    const std::string m_extraArgument;
    const std::string m_bookingId;
    const std::string m_version;
    std::unique_ptr<exProcess, ProcessReleaser> m_process;
    std::vector<std::pair<std::string, std::string>> m_environment;
    std::function<void(bool killed)> m_endHandler;
    const bool m_firstOption;
    const bool m_secondOption;
    const bool m_thirdOption;
    const bool m_display;
    const bool m_stereo;

    // Guards the members above that start() sets; never held while waiting.
    std::mutex m_lock;

    static std::atomic<bool> s_inProcess;
    // Guarded by s_callbackLock.
    static std::function<void(std::string)> s_inProcessCallback;
    static std::mutex s_callbackLock;
    // Serialises program launches: they move objects to the application thread.
    static std::mutex s_launchLock;
};

// exProcess: one program started as a child process, for the cluster service's server launcher.
//
// A thin wrapper over QProcess. The argument list holds the program first, then its arguments.
//
// Communication modes (setCommunication):
//   0   the child's standard output and standard error go to the null device: a server started
//       without console copying writes nowhere, and nothing here has to read it.
//   10  the child's standard output and standard error are captured: readyReadStdout() and
//       readyReadStderr() are emitted on this object's thread when data is pending, and
//       readStdout() / readStderr() take it. That thread must run an event loop (or process
//       events) and the data must be read, or a child that writes a lot blocks on a full pipe.
// In both modes the child's standard input is the null device, its environment is this process's
// unless setEnvironment() gave another, and the child inherits no descriptor beyond 0, 1 and 2:
// every other descriptor is made close-on-exec in the child between fork and exec, whoever opened
// it and however. Its signal mask starts empty.
//
// Threads: a QObject like any other. Configure and start() it on the thread it belongs to; then
// it may be moved to another thread (moveToThread), which then receives its signals and must be
// the one to destroy it (deleteLater). isRunning(), tryTerminate() and kill() may be called from
// any thread at any time. The child counts as running from a successful start() until QProcess
// has reported its end on the wrapper's thread, which happens after the last of its captured
// output has been signalled: that thread must process events (run its event loop) for the end to
// be seen. Signals go through a process descriptor of the kernel (pidfd), so they reach exactly
// this child, never a process that took over its number.
//
// Destroying the wrapper kills a child that still runs and reaps it.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <atomic>

class exChildProcess;

class exProcess : public QObject {
    Q_OBJECT

public:
    // Communication modes.
    static constexpr int kForwarded = 0;
    static constexpr int kCaptured = 10;

    explicit exProcess(QObject* parent = nullptr);
    ~exProcess() override;

    // Owner thread, before start().
    void clearArguments();
    // The first argument added is the program.
    void addArgument(const QString& argument);
    QStringList arguments() const { return m_arguments; }
    // 0 or 10 (above); any other value counts as 0.
    void setCommunication(int mode);
    // The child's whole environment, instead of this process's.
    void setEnvironment(const QProcessEnvironment& environment);

    // Starts the program and waits until it has been executed. False when it could not be (no
    // such file, no permission, no descriptors or processes left, no program given) or was started
    // before; errorString() then tells why as QProcess saw it. The display flag selects a visible
    // console window where there is such a thing; here it is accepted only.
    bool start(bool display);
    // Owner thread: why the last start() failed, in QProcess's words (often with the system's
    // error text); empty after a successful start.
    QString errorString() const { return m_startError; }

    // Any thread: started, and its end not yet reported (see above).
    bool isRunning() const;
    // Any thread: asks the child to end (SIGTERM, then SIGCONT, so that a stopped child wakes up
    // to take it); nothing when it is not running.
    void tryTerminate() const;
    // Any thread: ends the child at once (SIGKILL); nothing when it is not running.
    void kill() const;
    // Any thread: the child's process id once started, else 0.
    qint64 processId() const { return m_started.load(std::memory_order_acquire) ? m_pid : 0; }

    // Owner thread, mode 10: what the child has written so far and not yet taken.
    QByteArray readStdout();
    QByteArray readStderr();

signals:
    void readyReadStdout();
    void readyReadStderr();
    // The child has ended: its exit status, or the number of the signal that killed it.
    void finished(int exitStatus, bool killedBySignal);

private:
    void sendSignal(int signal) const;

    // Parent-owned child object; lives and moves with this one.
    exChildProcess* m_process;
    QStringList m_arguments;
    int m_mode = kForwarded;
    QString m_startError;

    // Written once by start() before it sets m_started, then read only.
    qint64 m_pid = 0;
    // The child's process descriptor (close-on-exec); -1 when there is none.
    int m_pidfd = -1;
    // The kernel has no process descriptors: signals go by process id.
    bool m_signalByPid = false;
    std::atomic<bool> m_started{false};
    // Set on this object's thread when QProcess reports the child's end.
    std::atomic<bool> m_ended{false};
};

#include "exProcess.h"

#include <QProcess>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif
#ifndef P_PIDFD
#define P_PIDFD 3
#endif

// QProcess that leaves the child nothing it did not ask for.
class exChildProcess : public QProcess {
public:
    explicit exChildProcess(QObject* parent) : QProcess(parent) {}

    // Highest descriptor number the child's fallback sweep visits; set before each start.
    void setDescriptorLimit(int limit) { m_descriptorLimit = limit; }

protected:
    // Runs in the child between fork and exec: async-signal-safe calls only. Descriptors are
    // marked close-on-exec rather than closed, because QProcess still needs its start-up pipe
    // (itself close-on-exec) to report a failed exec.
    void setupChildProcess() override {
        if (::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
            for (int fd = 3; fd < m_descriptorLimit; ++fd) {
                const int flags = ::fcntl(fd, F_GETFD);
                if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
                    ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
                }
            }
        }
        // The launching thread's blocked signals would otherwise outlive exec, and a server
        // that blocks SIGTERM could not be asked to end.
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
    }

private:
    int m_descriptorLimit = 1024;
};

namespace {

// Most descriptors the fallback sweep visits, whatever the limit says.
constexpr rlim_t kSweepLimit = 65536;

int descriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return int(kSweepLimit);
    }
    return int(std::min(limit.rlim_cur, kSweepLimit));
}

// A process descriptor for our child, or -1 when it has already been reaped (or the kernel has
// no process descriptors: then noDescriptors is set). The check after opening makes sure the
// descriptor names our child and not a process that took its number over after it was reaped.
int openChildDescriptor(qint64 pid, bool& noDescriptors) {
    const int fd = int(::syscall(SYS_pidfd_open, pid_t(pid), 0));
    noDescriptors = fd < 0 && errno == ENOSYS;
    if (fd < 0) {
        return -1;
    }
    siginfo_t info{};
    if (::waitid(idtype_t(P_PIDFD), id_t(fd), &info, WEXITED | WNOHANG | WNOWAIT) != 0 &&
        errno == ECHILD) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

exProcess::exProcess(QObject* parent) : QObject(parent), m_process(new exChildProcess(this)) {
    connect(m_process, &QProcess::readyReadStandardOutput, this, &exProcess::readyReadStdout);
    connect(m_process, &QProcess::readyReadStandardError, this, &exProcess::readyReadStderr);
    connect(m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [this](int code, QProcess::ExitStatus status) {
                m_ended = true;
                emit finished(code, status == QProcess::CrashExit);
            });
}

exProcess::~exProcess() {
    if (m_process->state() != QProcess::NotRunning) {
        m_process->kill();
        m_process->waitForFinished(10000);
    }
    if (m_pidfd >= 0) {
        ::close(m_pidfd);
    }
}

void exProcess::clearArguments() {
    m_arguments.clear();
}

void exProcess::addArgument(const QString& argument) {
    m_arguments.append(argument);
}

void exProcess::setCommunication(int mode) {
    m_mode = mode == kCaptured ? kCaptured : kForwarded;
}

void exProcess::setEnvironment(const QProcessEnvironment& environment) {
    m_process->setProcessEnvironment(environment);
}

bool exProcess::start(bool /*display*/) {
    m_startError.clear();
    if (m_arguments.isEmpty() || m_started || m_process->state() != QProcess::NotRunning) {
        m_startError = m_arguments.isEmpty() ? "No program given" : "Started already";
        return false;
    }
    m_process->setProcessChannelMode(QProcess::SeparateChannels);
    if (m_mode != kCaptured) {
        m_process->setStandardOutputFile(QProcess::nullDevice());
        m_process->setStandardErrorFile(QProcess::nullDevice());
    }
    m_process->setStandardInputFile(QProcess::nullDevice());
    m_process->setDescriptorLimit(descriptorLimit());
    m_process->start(m_arguments.first(), m_arguments.mid(1), QIODevice::ReadOnly);
    // Bounded by fork and exec; the child reports a failed exec through QProcess's start-up pipe.
    if (!m_process->waitForStarted(30000)) {
        m_startError = m_process->errorString();
        if (m_process->state() != QProcess::NotRunning) {
            m_process->kill();
            m_process->waitForFinished(10000);
        }
        return false;
    }
    m_pid = m_process->processId();
    bool noDescriptors = false;
    m_pidfd = openChildDescriptor(m_pid, noDescriptors);
    m_signalByPid = noDescriptors;
    // Publishes m_pid, m_pidfd and m_signalByPid to the threads that check on the child.
    m_started.store(true, std::memory_order_release);
    return true;
}

bool exProcess::isRunning() const {
    return m_started.load(std::memory_order_acquire) && !m_ended;
}

void exProcess::tryTerminate() const {
    sendSignal(SIGTERM);
    // A stopped child keeps SIGTERM pending until it is continued.
    sendSignal(SIGCONT);
}

void exProcess::kill() const {
    sendSignal(SIGKILL);
}

void exProcess::sendSignal(int signal) const {
    if (!isRunning()) {
        return;
    }
    if (m_pidfd >= 0) {
        ::syscall(SYS_pidfd_send_signal, m_pidfd, signal, nullptr, 0U);
    } else if (m_signalByPid) {
        ::kill(pid_t(m_pid), signal);
    }
}

QByteArray exProcess::readStdout() {
    return m_process->readAllStandardOutput();
}

QByteArray exProcess::readStderr() {
    return m_process->readAllStandardError();
}

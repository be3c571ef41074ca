#include <klTiedChild.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

pid_t klTiedChild::start(const std::vector<std::string>& argv) const {
    std::vector<std::string> copies = argv;
    std::vector<char*> pointers;
    for (std::string& argument : copies) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    const auto failure = [&argv](int error) {
        return std::runtime_error("cannot start " + argv.at(0) + ": " + std::strerror(error));
    };
    // The child writes exec's errno here; a close without a word means exec succeeded.
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        throw failure(errno);
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (ownProcessGroup) {
            ::setpgid(0, 0);
        }
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) {
            ::_exit(127);  // the parent is gone already
        }
        ::signal(SIGPIPE, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        const int targets[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
        const int sources[] = {in, out, err};
        bool ready = true;
        for (int i = 0; i < 3 && ready; ++i) {
            // dup2 onto itself would keep close-on-exec: clear it instead.
            ready =
                sources[i] < 0 || (sources[i] == targets[i] ? ::fcntl(targets[i], F_SETFD, 0) == 0
                                                            : ::dup2(sources[i], targets[i]) >= 0);
        }
        if (ready) {
            ::execve(pointers[0], pointers.data(), environ);
        }
        const int error = errno;
        ssize_t ignored = ::write(report[1], &error, sizeof(error));
        (void)ignored;
        ::_exit(127);
    }
    const int forkError = errno;
    ::close(report[1]);
    if (pid < 0) {
        ::close(report[0]);
        throw failure(forkError);
    }
    int execError = 0;
    ssize_t got;
    while ((got = ::read(report[0], &execError, sizeof(execError))) < 0 && errno == EINTR) {
    }
    ::close(report[0]);
    if (got == ssize_t(sizeof(execError))) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        throw failure(execError);
    }
    return pid;
}

#include <klNetBase/service/klNetServerProcess.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/service/klNetUtils.h>

#include <exProcess.h>
#include <klLog.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QThread>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <thread>
#include <vector>

namespace {

const char* const kServerProgram = "KALDClusterServer";
// Servers from this version on take the pipe name on their command line.
constexpr double kSocketPipeArgumentVersion = 9.0;
constexpr double kVersionTolerance = 0.0001;
constexpr double kEndWait = 3.0;
constexpr double kKillWait = 5.0;
constexpr auto kWaitStep = std::chrono::milliseconds(100);

// Copies one output stream of a server to this program's standard output a line at a time, each
// line behind the server's id, so that the output of several servers can be told apart. A line
// not yet ended waits for its end, and is written as it is when the server has ended.
class OutputCopier {
public:
    explicit OutputCopier(unsigned id) : m_prefix("[server " + std::to_string(id) + "] ") {}
    ~OutputCopier() {
        if (!m_pending.empty()) {
            write(m_pending + "\n");
        }
    }
    OutputCopier(const OutputCopier&) = delete;
    OutputCopier& operator=(const OutputCopier&) = delete;

    void add(const QByteArray& chunk) {
        m_pending.append(chunk.constData(), std::size_t(chunk.size()));
        std::string lines;
        for (std::size_t end; (end = m_pending.find('\n')) != std::string::npos;) {
            lines += m_prefix + m_pending.substr(0, end + 1);
            m_pending.erase(0, end + 1);
        }
        write(lines);
    }

private:
    void write(const std::string& lines) {
        if (!lines.empty()) {
            std::fwrite(lines.data(), 1, lines.size(), stdout);
            std::fflush(stdout);
        }
    }

    const std::string m_prefix;
    std::string m_pending;
};

// Whether this process could open count more descriptors now; false (with errno EMFILE or ENFILE)
// when it could not.
bool descriptorsLeft(int count) {
    std::vector<int> opened;
    bool left = true;
    for (int i = 0; i < count && left; i += 2) {
        int ends[2];
        left = ::pipe2(ends, O_CLOEXEC) == 0;
        if (left) {
            opened.insert(opened.end(), {ends[0], ends[1]});
        }
    }
    const int error = errno;
    for (const int fd : opened) {
        ::close(fd);
    }
    errno = error;
    return left;
}

// The system error named in text, 0 when it names none of these.
int namedError(const std::string& text, std::initializer_list<int> errors) {
    for (const int error : errors) {
        if (text.find(std::strerror(error)) != std::string::npos) {
            return error;
        }
    }
    return 0;
}

// The system error behind a failed start, 0 when none is known. QProcess names it in its text
// for a failed fork, but when it could not open the child's standard streams or its own pipes it
// only warns of that on standard error, and its text may then name whatever error came last
// ("No such file or directory" for a program that is there). So a shortage named is taken as it
// is, then the descriptors and the program file are checked here, and only then is a missing
// file or another error named in the text believed.
int startError(const std::string& path, const QString& reason) {
    const std::string text = reason.toStdString();
    if (const int shortage = namedError(text, {EMFILE, ENFILE, EAGAIN, ENOMEM})) {
        return shortage;
    }
    // QProcess needs about ten descriptors to start a program (standard streams, its start-up
    // and death pipes, the process descriptor).
    if (!descriptorsLeft(16) && (errno == EMFILE || errno == ENFILE)) {
        return errno;
    }
    if (::access(path.c_str(), X_OK) != 0) {
        return errno;
    }
    // The file is there and executable: what exec found wrong (its interpreter missing, say).
    return namedError(text,
                      {ENOENT, EACCES, ENOEXEC, ENOTDIR, ELOOP, ENAMETOOLONG, ETXTBSY, E2BIG});
}

// The fixed part of a server's environment: what it takes from this process.
bool passedOn(const QString& name) {
    return name == "PATH" || name == "HOME" || name == "LANG" || name == "TZ" ||
           name.startsWith("LC_") || name == "KLNET_LOG_LEVEL";
}

}  // namespace

std::atomic<bool> klNetServerProcess::s_inProcess{false};
std::function<void(std::string)> klNetServerProcess::s_inProcessCallback;
std::mutex klNetServerProcess::s_callbackLock;
std::mutex klNetServerProcess::s_launchLock;

std::shared_ptr<klNetServerProcess> klNetServerProcess::create(
    const std::string& extraArgument, unsigned id, const std::string& serviceArgument,
    const std::string& version, bool display, bool stereo, bool firstOption, bool secondOption,
    bool thirdOption, const std::string& bookingId) {
    return std::make_shared<klNetServerProcess>(extraArgument, id, serviceArgument, version,
                                                display, stereo, firstOption, secondOption,
                                                thirdOption, bookingId);
}

klNetServerProcess::klNetServerProcess(const std::string& extraArgument, unsigned id,
                                       std::string serviceArgument, std::string version,
                                       bool display, bool stereo, bool firstOption,
                                       bool secondOption, bool thirdOption,
                                       const std::string& bookingId)
    : m_id(id),
      m_socketPipe(s_inProcess.load()),
      m_serviceArgument(std::move(serviceArgument)),
      m_extraArgument(extraArgument),
      m_bookingId(bookingId),
      m_version(std::move(version)),
      m_firstOption(firstOption),
      m_secondOption(secondOption),
      m_thirdOption(thirdOption),
      m_display(display),
      m_stereo(stereo) {}

klNetServerProcess::~klNetServerProcess() {
    m_socketPipe.shutdown();
    wait(kEndWait);
    if (exProcess* const program = process(); program != nullptr && program->isRunning()) {
        program->tryTerminate();
        if (!wait(kEndWait)) {
            program->kill();
            wait(kKillWait);
        }
    }
    // An in-process task is joined by its future; the wrapper goes through ProcessReleaser.
}

void klNetServerProcess::ProcessReleaser::operator()(exProcess* process) const {
    QThread* const home = process->thread();
    if (home == QThread::currentThread() || QCoreApplication::instance() == nullptr ||
        home == nullptr || home->isFinished()) {
        delete process;
    } else {
        process->deleteLater();
    }
}

void klNetServerProcess::start(bool console) {
    if (!s_inProcess) {
        executeProcess(console);
    } else {
        executeThread(console);
    }
}

void klNetServerProcess::stop() {
    // Flag first: whoever the pipe shutdown wakes must find the request already made.
    *m_stopFlag = true;
    m_socketPipe.shutdown();
}

bool klNetServerProcess::isRunning() {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_process) {
        return m_process->isRunning();
    }
    if (m_inThread) {
        return m_threadResult.valid() &&
               m_threadResult.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
    }
    return false;
}

bool klNetServerProcess::isInProcess() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_inThread;
}

bool klNetServerProcess::wait(double seconds) {
    const auto start = std::chrono::high_resolution_clock::now();
    const bool program = process() != nullptr;
    for (;;) {
        if (!isRunning()) {
            return true;
        }
        const std::chrono::duration<double> elapsed =
            std::chrono::high_resolution_clock::now() - start;
        if (elapsed.count() >= seconds) {
            return false;
        }
        if (program) {
            QCoreApplication::processEvents();
        }
        std::this_thread::sleep_for(kWaitStep);
    }
}

void klNetServerProcess::tryKill() {
    exProcess* const program = process();
    if (program == nullptr) {
        return;
    }
    program->tryTerminate();
    wait(kEndWait);
    if (program->isRunning()) {
        program->kill();
    }
}

void klNetServerProcess::terminate() {
    if (exProcess* const program = process()) {
        program->tryTerminate();
    }
}

void klNetServerProcess::kill() {
    if (exProcess* const program = process()) {
        program->kill();
    }
}

void klNetServerProcess::setEnvironment(
    std::vector<std::pair<std::string, std::string>> variables) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_environment = std::move(variables);
}

void klNetServerProcess::setEndHandler(std::function<void(bool killed)> handler) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_endHandler = std::move(handler);
}

void klNetServerProcess::sendSocket(klSocketLink& link, double seconds) {
    link.sendDescriptor(m_socketPipe, seconds);
}

void klNetServerProcess::setInProcess(bool inProcess, std::function<void(std::string)> callback) {
    std::lock_guard<std::mutex> guard(s_callbackLock);
    s_inProcess = inProcess;
    s_inProcessCallback = std::move(callback);
}

std::uint32_t klNetServerProcess::getProcessId() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_process ? std::uint32_t(m_process->processId()) : m_processId;
}

exProcess* klNetServerProcess::process() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_process.get();
}

void klNetServerProcess::executeProcess(bool console) {
    std::lock_guard<std::mutex> launch(s_launchLock);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_process || m_inThread) {
            throw klNetError("Server already started");
        }
        m_process.reset(new exProcess());
    }
    // Only this thread touches the wrapper until it is started and handed to the application
    // thread; other threads only ask whether it runs, which it answers from any thread.
    exProcess& program = *process();
    program.clearArguments();
    program.setCommunication(console ? exProcess::kCaptured : exProcess::kForwarded);
    if (console) {
        std::printf("KALDClusterServer starting\n");
        auto out = std::make_shared<OutputCopier>(m_id);
        auto err = std::make_shared<OutputCopier>(m_id);
        QObject::connect(&program, &exProcess::readyReadStdout, &program,
                         [&program, out] { out->add(program.readStdout()); });
        QObject::connect(&program, &exProcess::readyReadStderr, &program,
                         [&program, err] { err->add(program.readStderr()); });
    }
    // Its end is told in the log, with how it ended. The stop flag is read when the signal comes,
    // on the application thread; the server object may be gone by then, the copies are not.
    const unsigned id = m_id;
    const std::string booking = klNetUtils::quoted(m_bookingId);
    const std::shared_ptr<std::atomic<bool>> stopRequested = m_stopFlag;
    std::function<void(bool)> ended;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ended = m_endHandler;
    }
    QObject::connect(&program, &exProcess::finished, &program,
                     [&program, id, booking, stopRequested, ended](int status, bool killed) {
                         const bool expected = *stopRequested || (!killed && status == 0);
                         klLog::write(expected ? klLog::Level::info : klLog::Level::warning,
                                      "Server %u (process %lld, booking %s) %s %d\n", id,
                                      static_cast<long long>(program.processId()), booking.c_str(),
                                      killed ? "was killed by signal" : "exited with status",
                                      status);
                         if (ended) {
                             ended(killed);
                         }
                     });

    const std::string path = getServerPath(m_version);
    program.addArgument(QString::fromStdString(path));
    if (m_firstOption) {
        program.addArgument("-Z");
    }
    if (!m_display) {
        program.addArgument("-P");
    } else if (m_stereo) {
        program.addArgument("-s");
    }
    if (m_secondOption) {
        program.addArgument(m_thirdOption ? "-ta" : "-t");
    }
    setSocketPipeArgument();
    program.addArgument(QString::fromStdString(m_extraArgument));
    program.setEnvironment(serverEnvironment());

    if (!program.start(m_display)) {
        const QString reason = program.errorString();
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_process.reset();
        }
        const int error = startError(path, reason);
        if (error == ENOENT || error == EACCES) {
            throw klNetError("Error starting process '" + path +
                             "'. File not found or insufficient permission to start.");
        }
        throw klNetError("Error starting process '" + path + "': " +
                         (error != 0 ? klNetError::getErrorString(error) : reason.toStdString()));
    }
    // From here on its signals are delivered, and the output copied, on the application thread.
    if (QCoreApplication* const application = QCoreApplication::instance()) {
        program.moveToThread(application->thread());
    }
}

bool klNetServerProcess::takesPipeArgument() const {
    return klNetUtils::decimalValue(m_version) + kVersionTolerance > kSocketPipeArgumentVersion;
}

void klNetServerProcess::setSocketPipeArgument() {
    if (takesPipeArgument()) {
        process()->addArgument(
            QString("-socketpipe=%1").arg(QString::fromStdString(m_socketPipe.getName())));
    }
    // Older servers look for the pipe in their environment (serverEnvironment).
}

QProcessEnvironment klNetServerProcess::serverEnvironment() {
    QProcessEnvironment environment;
    const QProcessEnvironment own = QProcessEnvironment::systemEnvironment();
    for (const QString& name : own.keys()) {
        if (passedOn(name)) {
            environment.insert(name, own.value(name));
        }
    }
    const QString pipe = QString::fromStdString(m_socketPipe.getName());
    environment.insert("XDG_RUNTIME_DIR", QFileInfo(pipe).absolutePath());
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& [name, value] : m_environment) {
            environment.insert(QString::fromStdString(name), QString::fromStdString(value));
        }
    }
    if (!takesPipeArgument()) {
        environment.insert("KALD_LOCAL_SERVICE", pipe);
    }
    return environment;
}

void klNetServerProcess::executeThread(bool /*console*/) {
    std::function<void(std::string)> callback;
    {
        std::lock_guard<std::mutex> guard(s_callbackLock);
        callback = s_inProcessCallback;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_process || m_inThread) {
        throw klNetError("Server already started");
    }
    m_processId = std::uint32_t(::getpid());
    m_inThread = true;
    m_threadResult = std::async(std::launch::async, [this, callback = std::move(callback)] {
        if (!callback) {
            return;
        }
        try {
            callback(socketPipeName());
        } catch (const std::exception& e) {
            klLog::error("%s", e.what());
        }
    });
}

std::string klNetServerProcess::getServerPath(const std::string& version) {
    return klNetUtils::getExecutablePath(kServerProgram, version, "");
}

std::string klNetServerProcess::getBinDir(const std::string& version) {
    return QFileInfo(QString::fromStdString(getServerPath(version))).dir().path().toStdString();
}

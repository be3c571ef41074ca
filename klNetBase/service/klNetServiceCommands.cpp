// klNetService: the commands that start, connect and stop servers, stop the service and report
// its status.
#include <klNetBase/service/klNetService.h>

#include <klNetBase/core/klNetError.h>
#include <klNetBase/link/klSocketLink.h>
#include <klNetBase/runtime/klNetMem.h>
#include <klNetBase/serial/klNetStream.h>
#include <klNetBase/service/detail/klNetServiceInternals.h>
#include <klNetBase/service/klNetServerProcess.h>
#include <klNetBase/service/klNetServiceStatus.h>
#include <klNetBase/service/klNetUtils.h>

#include <klLog.h>
#include <klVersionInfo.h>

#include <QCoreApplication>

#include <algorithm>
#include <chrono>

namespace {

constexpr double kVersionTolerance = 0.0001;
// A started program opens its pipe within milliseconds; waiting in short slices notices one that
// ended (or was stopped) before it took its socket without waiting out the whole time-out. An
// in-process server's thread may end at once and leave the pipe to its caller, which has the
// whole time-out to open it.
constexpr double kHandOffSlice = 0.25;
constexpr double kHandOffTimeout = 10.0;

bool atLeast(double version, double threshold) {
    return version + kVersionTolerance >= threshold;
}

bool readFlag(klNetStream& stream) {
    std::uint8_t flag = 0;
    stream >> flag;
    return flag != 0;
}

bool digitsFrom(const std::string& text, std::size_t from) {
    return std::all_of(text.begin() + std::ptrdiff_t(from), text.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
}

// "SR1 SP3": the one service-pack form with a blank between its parts.
bool isBlankServicePack(const std::string& version) {
    return version.size() >= 6 && version.compare(0, 3, "SR1") == 0 && version[3] == ' ' &&
           version.compare(4, 2, "SP") == 0 && digitsFrom(version, 6);
}

// The version text selects a program directory (the installation of that version), so it must
// be a plain name: letters, digits, '.', '-' and '_', no "..", at most kMaxVersionSize bytes.
// The only blank allowed is the one of a service-pack name, which selects no directory.
void checkVersionText(const std::string& version) {
    const bool blankAllowed = isBlankServicePack(version);
    const bool plain = version.size() <= klNetService::kMaxVersionSize &&
                       version.find("..") == std::string::npos &&
                       std::all_of(version.begin(), version.end(), [&](char c) {
                           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                                  (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '_' ||
                                  (c == ' ' && blankAllowed);
                       });
    if (!plain) {
        throw klNetError("Invalid version text " +
                         klNetUtils::quoted(version, klNetService::kMaxVersionSize));
    }
}

std::string ownVersion() {
    return klVersionInfo::the().getVersionString();
}

// Service-pack names of old clients: "SR1", "SR1.SP3" become "8.5", "8.53". The rule is the
// pattern ^SR1(?:.SP)?(\d*)$ ('.' being any character but a line break), matched by hand: the
// standard regex matcher recurses once per character, and a version text may be 64 KiB long.
std::string normaliseVersion(const std::string& version) {
    if (version.compare(0, 3, "SR1") != 0) {
        return version;
    }
    if (digitsFrom(version, 3)) {
        return "8.5" + version.substr(3);
    }
    if (version.size() >= 6 && version[3] != '\n' && version[3] != '\r' &&
        version.compare(4, 2, "SP") == 0 && digitsFrom(version, 6)) {
        return "8.5" + version.substr(6);
    }
    return version;
}

}  // namespace

using klNetServiceDetail::readString;
using klNetServiceDetail::textOf;

void klNetService::startServer(klNetStream& stream, Request& request) {
    removeStoppedServers();
    const std::string extraArgument = readString(stream);
    std::string version = readString(stream);
    try {
        checkVersionText(version);
    } catch (const klNetError&) {
        countRefusal("version");
        throw;
    }
    version = normaliseVersion(version);
    const double clientVersion = klNetUtils::decimalValue(version);
    if (clientVersion > klNetUtils::decimalValue(ownVersion())) {
        throw klNetError("Incompatible versions: KALDClusterService " + ownVersion() +
                         " request from " + version);
    }
    readString(stream);  // reserved
    const bool display = atLeast(clientVersion, 9.0) && readFlag(stream);
    const bool firstOption = readFlag(stream);
    const bool secondOption = readFlag(stream);
    const bool thirdOption = readFlag(stream);
    const std::string bookingId = atLeast(clientVersion, 9.2) ? readString(stream) : "";
    const bool stereo = atLeast(clientVersion, 10.0) && readFlag(stream);
    endRequestTime(request);
    s_inProcessDisplay = display;
    s_inProcessStereo = stereo;

    StartSlot slot(*this);
    const unsigned id = ++m_lastServerId;
    auto server =
        klNetServerProcess::create(extraArgument, id, m_serviceArgument, version, display, stereo,
                                   firstOption, secondOption, thirdOption, bookingId);
    std::vector<std::pair<std::string, std::string>> environment = serverEnvironment();
    if (const double idleExit = m_idleExit; idleExit > 0.0) {
        environment.emplace_back("KALD_IDLE_EXIT", textOf(idleExit));
    }
    server->setEnvironment(std::move(environment));
    server->setEndHandler([notice = m_endNotice, id](bool killed) {
        std::lock_guard<std::mutex> guard(notice->lock);
        if (notice->service != nullptr) {
            notice->service->countServerEnd(killed);
            notice->service->serverEnded(id);
        }
    });
    const auto launched = std::chrono::steady_clock::now();
    server->start(m_console);
    addServer(server, slot, request.peer);

    // The socket is shared with the server from now on: its receive time-out must not go
    // along with it.
    klSocketLink& link = *request.link;
    link.setRecvTimeout(0.0);
    const auto handOffStart = std::chrono::steady_clock::now();
    for (;;) {
        try {
            server->sendSocket(link, kHandOffSlice);
            break;
        } catch (const std::exception&) {
            QCoreApplication::processEvents();
            if (server->isStopRequested()) {
                throw klNetError("Server manually aborted");
            }
            const std::chrono::duration<double> waited =
                std::chrono::steady_clock::now() - handOffStart;
            if (!server->isRunning() &&
                (!server->isInProcess() || waited.count() >= kHandOffTimeout)) {
                throw klNetError("Failed to connect started server");
            }
        }
    }
    {
        const std::chrono::duration<double> latency = std::chrono::steady_clock::now() - launched;
        std::lock_guard<std::mutex> guard(m_metricsLock);
        m_metrics.startLatency.add(latency.count());
    }
    stream.sendSuccess();
    stream << std::uint32_t(id) << std::uint64_t(klNetMem::getAvailableMemory())
           << std::int32_t(serverCount());
    countHandOff();
    request.outcome = textOf("server ", id, " started (booking ", klNetUtils::quoted(bookingId),
                             ", process ", server->getProcessId(), ")");
}

void klNetService::connectServer(klNetStream& stream, Request& request) {
    std::uint32_t id = 0;
    stream >> id;
    endRequestTime(request);
    const auto server = getServer(id);
    request.link->setRecvTimeout(0.0);
    server->sendSocket(*request.link, -1.0);
    stream.sendSuccess();
    countHandOff();
    request.outcome = textOf("handed to server ", id);
}

void klNetService::stopService(klNetStream& stream, Request& request) {
    request.outcome = "stopping the service";
    stream.sendSuccess();
    stream.flush();
    stop();
}

void klNetService::stopServer(klNetStream& stream, Request& request) {
    std::uint32_t id = 0;
    stream >> id;
    endServer(getServer(id));
    stream.sendSuccess();
    request.outcome = textOf("server ", id, " stopped");
}

void klNetService::getStatus(klNetStream& stream, Request& request) {
    klNetServiceStatus status;
    status.setNumberOfClusterServers(serverCount());
    status.setFreeMemory(klNetMem::getAvailableMemory());
    status.setIsRunning(true);
    status.setVersion(ownVersion());
    status.setBookingIds(bookingIds());
    stream.sendSuccess();
    status.putValue(stream);
    stream.flush();
    request.outcome = "answered";
    request.level = klLog::Level::debug;
}

void klNetService::stopServerByBookingId(klNetStream& stream, Request& request) {
    const std::string bookingId = readString(stream);
    std::vector<std::shared_ptr<klNetServerProcess>> matching;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& [id, server] : m_servers) {
            if (server->bookingId() == bookingId) {
                matching.push_back(server);
            }
        }
    }
    for (const auto& server : matching) {
        endServer(server);
    }
    stream.sendSuccess();
    request.outcome =
        textOf("stopped ", matching.size(), matching.size() == 1 ? " server" : " servers",
               " of booking ", klNetUtils::quoted(bookingId));
}

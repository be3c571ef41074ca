// klServiceOptions: the settings of the cluster service daemon, from its command line and its
// configuration file.
//
// The configuration file (default /etc/klnetbase/service.conf, read when it exists; --config PATH
// names another, which must then exist; --config "" reads none) holds the same options as the
// command line, by their long names without the dashes, one per line, in CLI11's TOML-like form:
//
//   max-servers = 8
//   allow = ["10.1.0.0/16", "192.168.7.0/24"]
//   no-console = true
//
// Options on the command line override those of the file; an unknown name in the file is an
// error, as on the command line.
//
// Thread safety: a value type; parse one on one thread.
#pragma once

#include <klNetBase/link/klNetNodeNames.h>
#include <klNetBase/service/klNetPeerFilter.h>

#include <klLog.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

struct klServiceOptions {
    static constexpr const char* kProgram = "KALDClusterService";
    static constexpr const char* kDefaultConfigFile = "/etc/klnetbase/service.conf";

    std::string configFile;  // the file read, empty when none was
    bool checkConfig = false;
    int port = 8889;
    std::string listen;  // one address, empty for every address
    bool stopOnStdinClose = false;
    std::string logFile;
    std::string keyFile;
    klLog::Level logLevel = klLog::Level::info;
    std::string metrics;  // HOST:PORT, HOST numeric ([...] for IPv6); empty when off
    std::string serviceArgument;
    bool console = true;
    std::vector<std::string> allowed;
    int maxServers = 16;
    int maxRequests = 64;
    double requestTimeout = 10.0;
    double handshakeTimeout = 2.0;
    std::vector<std::string> relayRanges;
    int maxRelays = 16;
    double relayIdleTimeout = 300.0;
    double idleExit = 60.0;
    std::vector<std::string> serverEnvironment;
    double drainTimeout = 300.0;
    std::vector<std::string> nodeNameTexts;  // --node-name as given
    klNetNodeNames nodeNames;  // aliases for sealed clients (port 0: the port listened on)

    klNetPeerFilter peerFilter;
    klNetPeerFilter relayTargets;

    // Reads the command line (the arguments after the program's path) and the configuration
    // file into options. Returns the exit status when the program ends here: --help and
    // --version said their piece (0), or a bad command line or configuration its one line (2).
    static std::optional<int> parse(const std::vector<std::string>& args,
                                    klServiceOptions& options);
    // The same without a word: "" when good, else what is wrong (for a reload).
    static std::string read(const std::vector<std::string>& args, klServiceOptions& options);

    // One setting as the log shows it: its option name and its value as text.
    struct Setting {
        const char* name;
        std::string value;
        bool reloadable;  // applied by a reload; the others need a restart
        // What tells whether it changed, when the value shown is not all of it.
        std::string identity = {};
        const std::string& key() const { return identity.empty() ? value : identity; }
    };
    std::vector<Setting> settings() const;
};

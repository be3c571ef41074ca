// klServiceReloader: the cluster service daemon's configuration while it runs: applies it to the
// service at start, and reads it again on SIGHUP.
//
// A reload reads the command line and the configuration file again, as at start. Whatever is
// wrong (a bad value, an unknown setting, a key file that cannot be read) refuses the whole new
// configuration, with one log line naming it: the old one stays. A good one is applied to the
// settings that may change while servers run (allow-lists, caps, time-outs, the servers'
// environment, the log level, the key file, which is read again, and the drain time-out); it
// never touches a running server. The log file is reopened (after logrotate moved it) even when
// nothing else changed. Each changed setting gets one log line; a changed setting that needs a
// restart (port, listen address, metrics address, ...) gets a warning and keeps its old value;
// nothing changed gives "configuration reloaded: nothing changed".
//
// Thread safety: reload() from one thread at a time; drainTimeout() from any thread.
#pragma once

#include "klServiceOptions.h"

#include <klNetBase/codecs/klNetFarmKey.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class klNetService;
class klNetLinkSealer;

class klServiceReloader {
public:
    // args: the command line after the program's path, read again on each reload; options: as
    // parsed from it at start.
    klServiceReloader(klNetService& service, std::vector<std::string> args,
                      const klServiceOptions& options);

    // Applies the options given at construction, the key included (standard input for
    // --key-file -). Throws what the key's loading throws.
    void applyAtStart();
    // Reads the configuration again and applies it, as above. Returns the new configuration's
    // fault, empty when it was applied.
    std::string reload();

    double drainTimeout() const { return m_drainTimeout.load(); }
    // Whether the service holds the key its configuration names (true when it names none).
    bool keyLoaded() const { return m_keyLoaded.load(); }
    const klServiceOptions& options() const { return m_options; }

private:
    // The reloadable settings of options, on the service.
    void apply(const klServiceOptions& options);

    klNetService& m_service;
    const std::vector<std::string> m_args;
    klServiceOptions m_options;
    std::optional<klNetFarmKey> m_key;
    std::atomic<double> m_drainTimeout;
    std::atomic<bool> m_keyLoaded{false};
};

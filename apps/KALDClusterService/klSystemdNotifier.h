// klSystemdNotifier: tells systemd (a unit of Type=notify) how the service stands, through
// libsystemd's sd_notify: ready, reloading, stopping, and a status text for "systemctl status".
// Outside such a unit (no NOTIFY_SOCKET) every call does nothing.
//
// Thread safety: any thread.
#pragma once

#include <string>

class klSystemdNotifier {
public:
    // READY=1 with a status text.
    static void ready(const std::string& status);
    // RELOADING=1 (with the monotonic time systemd asks of a reload); ready() ends the reload.
    static void reloading();
    // STOPPING=1 with a status text.
    static void stopping(const std::string& status);
    static void status(const std::string& status);

private:
    static void notify(const std::string& state);
};

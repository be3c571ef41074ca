#include "klSystemdNotifier.h"

#include <systemd/sd-daemon.h>

#include <time.h>

#include <string>

namespace {

// A status text on one line, as the protocol wants every assignment.
std::string oneLine(std::string text) {
    for (char& c : text) {
        c = c == '\n' || c == '\r' ? ' ' : c;
    }
    return text;
}

}  // namespace

void klSystemdNotifier::notify(const std::string& state) {
    sd_notify(0, state.c_str());
}

void klSystemdNotifier::ready(const std::string& status) {
    notify("READY=1\nSTATUS=" + oneLine(status));
}

void klSystemdNotifier::reloading() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    notify("RELOADING=1\nMONOTONIC_USEC=" +
           std::to_string((long long)now.tv_sec * 1000000LL + now.tv_nsec / 1000) +
           "\nSTATUS=Reloading the configuration");
}

void klSystemdNotifier::stopping(const std::string& status) {
    notify("STOPPING=1\nSTATUS=" + oneLine(status));
}

void klSystemdNotifier::status(const std::string& status) {
    notify("STATUS=" + oneLine(status));
}

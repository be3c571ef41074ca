#include "klProgressBar.h"

#include <unistd.h>

#include <cstdio>
#include <string>

klProgressBar::klProgressBar(std::uint64_t total)
    : m_total(total), m_terminal(::isatty(STDOUT_FILENO) == 1) {}

void klProgressBar::show(std::uint64_t done, double seconds) {
    const double fraction = m_total > 0 ? double(done) / double(m_total) : 1.0;
    const double rate = seconds > 0 ? double(done) / seconds : 0.0;
    if (m_terminal) {
        const int filled = int(fraction * 40);
        std::printf("\r  rendering [%-40s] %5.1f%%  %7.2f Mpixel/s",
                    std::string(std::size_t(filled), '#').c_str(), fraction * 100, rate / 1e6);
        if (done == m_total) {
            std::printf("\n");
        }
    } else if (int(fraction * 10) != m_lastTenth) {
        m_lastTenth = int(fraction * 10);
        std::printf("  rendering %3d%%  %7.2f Mpixel/s\n", m_lastTenth * 10, rate / 1e6);
    }
    std::fflush(stdout);
}

void klProgressBar::abandon() {
    if (m_terminal) {
        std::printf("\n");
        std::fflush(stdout);
    }
}

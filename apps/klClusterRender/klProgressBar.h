// klProgressBar: the render's progress on standard output: one line redrawn on a terminal; a line
// every tenth of the total otherwise (into a file or pipe).
//
// Thread safety: none; one thread draws.
#pragma once

#include <cstdint>

class klProgressBar {
public:
    explicit klProgressBar(std::uint64_t total);
    // Draws done of the total, and the rate over seconds.
    void show(std::uint64_t done, double seconds);
    // Ends a bar left unfinished, so that what follows starts on a line of its own.
    void abandon();

private:
    std::uint64_t m_total;
    bool m_terminal;
    int m_lastTenth = -1;
};

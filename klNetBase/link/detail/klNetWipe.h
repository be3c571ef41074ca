// Wiping secrets (a seal's exported keys) from memory once a copy of them ends its life, in a way
// the compiler may not drop as a dead store. The core library has no cryptographic library of its
// own to ask, so it uses glibc's explicit_bzero.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

namespace klNetDetail {

inline void wipe(void* data, std::size_t size) {
    if (size > 0) {
        ::explicit_bzero(data, size);
    }
}

// Wipes text's bytes, then empties it.
inline void wipe(std::string& text) {
    wipe(text.data(), text.size());
    text.clear();
}

// Wipes a buffer when the scope ends, whichever way it ends.
class WipeOnExit {
public:
    WipeOnExit(void* data, std::size_t size) : m_data(data), m_size(size) {}
    explicit WipeOnExit(std::string& text) : m_text(&text) {}
    ~WipeOnExit() {
        if (m_text != nullptr) {
            wipe(*m_text);
        } else {
            wipe(m_data, m_size);
        }
    }
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;

private:
    void* m_data = nullptr;
    std::size_t m_size = 0;
    std::string* m_text = nullptr;
};

}  // namespace klNetDetail

#include <klNetBase/link/klNetNodeNames.h>

#include <algorithm>
#include <cctype>

namespace {

bool sameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

std::string klNetNodeNames::nameOf(const std::string& host, int port) {
    const bool ipv6 = host.find(':') != std::string::npos;
    return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

void klNetNodeNames::add(const std::string& host, int port) {
    std::string name = nameOf(host, port);
    if (!contains(name)) {
        m_names.push_back(std::move(name));
    }
}

bool klNetNodeNames::contains(const std::string& name) const {
    return std::any_of(m_names.begin(), m_names.end(),
                       [&](const std::string& own) { return sameName(own, name); });
}

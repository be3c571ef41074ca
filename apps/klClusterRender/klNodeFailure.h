// klNodeFailure: a failure of the render run; node is the node that failed, when one did (its
// index in the farm), so that stopping the servers afterwards need not complain of that node's
// service, which may be gone.
//
// Thread safety: a value type (an exception).
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

class klNodeFailure : public std::runtime_error {
public:
    // reported: the text is on standard error already.
    klNodeFailure(std::optional<std::size_t> node, const std::string& text, bool reported = false)
        : std::runtime_error(text), m_node(node), m_reported(reported) {}
    std::optional<std::size_t> node() const { return m_node; }
    bool reported() const { return m_reported; }

private:
    std::optional<std::size_t> m_node;
    bool m_reported;
};

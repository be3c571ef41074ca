// klTextList: a list of texts (node names, booking ids) as one line of the render client's output.
//
// Thread safety: a function of its argument alone.
#pragma once

#include <string>
#include <vector>

// "a, b, c"; "(none)" for an empty text, "-" for an empty list.
inline std::string klJoined(const std::vector<std::string>& texts) {
    std::string all;
    for (const auto& text : texts) {
        all += (all.empty() ? "" : ", ") + (text.empty() ? std::string("(none)") : text);
    }
    return all.empty() ? "-" : all;
}

#include "tools/libveldar/store/percent_text.h"

#include <fmt/format.h>

#include <cstdlib>

namespace veldar::tool {

std::string percent_encode(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '%' || c == '\n' || c == '\r') {
            out += fmt::format("%{:02X}", static_cast<unsigned>(c));
        } else {
            out += c;
        }
    }
    return out;
}

std::string percent_decode(std::string_view line) {
    std::string out;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] == '%' && i + 2 < line.size()) {
            out += static_cast<char>(std::strtoul(std::string(line.substr(i + 1, 2)).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += line[i];
        }
    }
    return out;
}

}  // namespace veldar::tool

// Texts of any bytes as one line: '%', CR and LF are written as %25, %0D and %0A.
#pragma once

#include <string>
#include <string_view>

namespace veldar::tool {

std::string percent_encode(std::string_view text);
std::string percent_decode(std::string_view line);

}  // namespace veldar::tool

// What someone may have meant who mistyped a command or an option.
#pragma once

#include <string>
#include <vector>

namespace veldar::tool {

// The name that resembles the word most; empty when none is near enough.
std::string nearest_name(const std::string& word, const std::vector<std::string>& names);

}  // namespace veldar::tool

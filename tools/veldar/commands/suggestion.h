// What someone may have meant who mistyped a command or an option.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace veldar::tool {

// A line such as "'serch' is no command; did you mean 'search'?\n" for the first argument that a failed parse left
// over, empty when there is none or nothing resembles it.
std::string suggest_meant(const CLI::App& app);

}  // namespace veldar::tool

// The versions of the libraries that the program runs with.
#pragma once

#include <string>

namespace veldar::tool {

// "zlib 1.2.13, bzip2 1.0.8, ..."
std::string library_versions();

}  // namespace veldar::tool

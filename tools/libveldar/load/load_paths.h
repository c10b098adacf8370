// The files that a command line names, those in directories included.
#pragma once

#include <string>
#include <vector>

namespace veldar::tool {

struct load_paths {
    std::vector<std::string> files;
    bool incomplete = false;  // a directory could not be read; it is named on standard error
};

// Each name as it stands; with `recursive` a directory gives the files in it and below, in the order of their names.
// Symbolic links to directories are not followed there. Stores and index directories are named and left out.
load_paths load_paths_find(const std::vector<std::string>& names, bool recursive);

}  // namespace veldar::tool

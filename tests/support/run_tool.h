// Runs a built tool and collects what it prints and how it ends.
#pragma once

#include <string>
#include <vector>

namespace veldar {

struct tool_options {
    std::string input = {};  // path that standard input comes from; empty: /dev/null
    int signal = 0;          // sent when the tool still runs after `after_us`
    unsigned after_us = 0;
    std::string output = {};  // path that standard output goes to; empty: it is collected
    bool closed = false;      // none of the three standard descriptors is open
};

struct tool_result {
    std::string out, err;
    int status = -1;  // exit status, 1000 + the signal that ended the tool
};

// `name` is the path in the directory of the built tools: "dictscan", "veldar/veldar".
tool_result run_tool(const std::string& name, const std::vector<std::string>& arguments,
                     const tool_options& options = {});

// Begins one that runs beside; what it says is appended to the file `err`.
int start_tool(const std::string& name, const std::vector<std::string>& arguments, const std::string& err);

}  // namespace veldar

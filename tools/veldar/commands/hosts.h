// Asks several machines at once, each with ssh, all of them run by GNU parallel.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/libveldar/partial/partial_merge.h"

namespace veldar::tool {

// A line of the file of hosts: "host", "user@host:/srv/logs.veldar", ":" for this machine, ":store" for one of its
// stores. Empty lines and what follows a '#' at the beginning of a line do not count.
struct host_line {
    std::string host;  // empty: this machine
    std::string store;
    std::string name;  // the line
};
// Throws failure_t with OUTCOME_USAGE, which names the line.
std::vector<host_line> hosts_parse(std::string_view content, const std::string& file);

struct hosts_request {
    std::string file;
    uint32_t timeout_s = 60;
    std::string store;               // where a line names none
    std::vector<std::string> words;  // behind "veldar"
};
// Asks all of them and merges what comes; `bytes` keeps what the result points into. Those that do not answer are among
// what the answer lacks. Throws failure_t, also when nobody answers. $VELDAR_SSH is run instead of "ssh", $VELDAR_REMOTE
// there instead of "veldar".
merged_answer hosts_ask(const hosts_request& request, std::vector<std::string>* bytes);

}  // namespace veldar::tool

// Found records with the lines around them. Those that touch or overlap become one group, whose lines come in the order
// of the log, each once.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/libveldar/query/event_source.h"

namespace veldar::tool {

struct context_line {
    std::string text;
    uint64_t size = 0;  // bytes in the log
    bool is_found = false;
    event_t event;  // when found; else one that the line is around
};

struct context_groups {
    uint32_t before = 0, after = 0;  // lines around each record
    // Gets a whole group, its lines by their offsets in the log, and its number from 1 on.
    std::function<void(const std::map<uint64_t, context_line>& lines, uint64_t number)> put;

    std::map<uint64_t, context_line> lines;
    std::string path;       // the log of the lines
    uint64_t held = 0;      // bytes of them
    uint64_t number = 1;    // of the group that they are
    uint64_t given_to = 0;  // of a group that became too large to be held: what was given of its log
    uint64_t given_from = 0;
};

// Adds a record; false when it cannot be read, which is told to the source's troubles.
bool context_groups_add(context_groups* groups, event_source* source, const event_t& event);
// Gives the last group.
void context_groups_end(context_groups* groups);

}  // namespace veldar::tool

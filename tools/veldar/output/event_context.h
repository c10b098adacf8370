// Found records with the lines around them. Those that touch or overlap become one group, whose lines come in the order
// of the log, each once.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/libveldar/load/event_record.h"

namespace veldar::tool {

struct context_line {
    std::string text;   // as it is to be printed
    uint64_t size = 0;  // bytes in the log
    bool is_found = false;
};

struct context_groups {
    uint32_t before = 0, after = 0;  // lines around each record
    // Makes what is printed of a line: the record that was found itself, or one around it.
    std::function<std::string(const event_record& event, std::string_view text, bool is_found, uint64_t number)> make;
    // Gets a whole group, its lines by their offsets in the log, and its number from 1 on.
    std::function<void(const std::map<uint64_t, context_line>& lines, uint64_t number)> put;

    std::map<uint64_t, context_line> lines;
    std::string path, origin;  // the log of the lines
    uint64_t held = 0;         // bytes of them
    uint64_t number = 1;       // of the group that they are
    uint64_t given_to = 0;     // of a group that became too large to be held: what was given of its log
    uint64_t given_from = 0;
};

// Adds a record with its lines (EVENT_LINES); one that is not known is left out.
void context_groups_add(context_groups* groups, const event_record& event);
// Gives the last group.
void context_groups_end(context_groups* groups);

}  // namespace veldar::tool

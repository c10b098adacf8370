// Prints the events of an answer as people asked to see them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/veldar/output/event_output.h"

namespace veldar::tool {

// How events are to be shown.
struct event_view {
    std::string format, fields, color = "auto";
    bool oldest_first = false;
    uint32_t before = 0, after = 0;  // lines around each
};

// Where events come from, newest first.
struct event_feed {
    bool has_raw = true;  // the raw records are known
    size_t longest_host = 0, longest_source = 0;
    std::function<bool()> next;                        // moves to the next event; false at the end
    std::function<const event_record&()> tell;         // that event
    std::function<void()> hold;                        // keeps it for later
    std::function<const event_record&(size_t)> again;  // the event that was kept at this place; behind the last `next`
};

// Chooses format and columns. Throws failure_t with OUTCOME_USAGE for what does not go together.
void event_view_choose(const event_view& view, bool has_raw, event_output* output);
// Prints all events of the feed, and returns how many there were.
uint64_t event_print(const event_view& view, const event_feed& feed, event_output* output);

}  // namespace veldar::tool

#include "tools/veldar/output/event_context.h"

#include <algorithm>
#include <iterator>

namespace veldar::tool {

namespace {

constexpr uint64_t MOST_HELD = uint64_t{16} << 20;

// Where the record and its lines lie in the log.
struct span {
    uint64_t begin, end;
};

span span_of(const context_groups& groups) {
    const auto& [offset, line] = *groups.lines.rbegin();
    return {groups.lines.begin()->first, offset + line.size};
}

void give(context_groups* groups) {
    if (groups->lines.empty()) return;
    groups->put(groups->lines, groups->number++);
    groups->lines.clear();
    groups->held = 0;
}

// A line that is around records; what is found or held already stays.
void add_line(context_groups* groups, uint64_t offset, const std::string& text, uint64_t size,
              const event_record& event) {
    if (offset >= groups->given_from && offset < groups->given_to) return;
    const auto behind = groups->lines.upper_bound(offset);
    if (behind != groups->lines.begin()) {
        const auto& [begin, line] = *std::prev(behind);
        if (offset < begin + line.size) return;
    }
    groups->held += size;
    groups->lines[offset] = {groups->make(event, text, false, groups->number), size, false};
}

void add_found(context_groups* groups, const event_record& event) {
    const auto begin = groups->lines.lower_bound(event.offset);
    groups->lines.erase(begin, groups->lines.lower_bound(event.offset + event.size));
    groups->held += event.size;
    groups->lines[event.offset] = {groups->make(event, event.raw, true, groups->number), event.size, true};
}

}  // namespace

void context_groups_add(context_groups* groups, const event_record& event) {
    if (!event.has_raw) return;
    const uint64_t line_end = event.size - std::min<uint64_t>(event.raw.size(), event.size) == 2 ? 2 : 1;
    uint64_t begin = event.offset, end = event.offset + event.size;
    for (const std::string& line : event.before) begin -= std::min<uint64_t>(begin, line.size() + line_end);
    for (const std::string& line : event.after) end += line.size() + line_end;
    const bool same_log = event.path == groups->path && event.origin == groups->origin;
    bool joins = same_log && !groups->lines.empty();
    if (joins) {
        const span held = span_of(*groups);
        joins = begin <= held.end && end >= held.begin;
        const bool is_full = joins && groups->held > MOST_HELD;
        if (is_full) {
            groups->given_from = held.begin;
            groups->given_to = held.end;
            joins = false;
        }
    }
    if (!joins) give(groups);
    if (!same_log) groups->given_from = groups->given_to = 0;
    groups->path = event.path;
    groups->origin = event.origin;
    uint64_t at = begin;
    for (const std::string& line : event.before) {
        add_line(groups, at, line, line.size() + line_end, event);
        at += line.size() + line_end;
    }
    add_found(groups, event);
    at = event.offset + event.size;
    for (const std::string& line : event.after) {
        add_line(groups, at, line, line.size() + line_end, event);
        at += line.size() + line_end;
    }
}

void context_groups_end(context_groups* groups) {
    give(groups);
}

}  // namespace veldar::tool

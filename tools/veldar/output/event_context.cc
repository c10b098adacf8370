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
void add_line(context_groups* groups, uint64_t offset, std::string text, uint64_t size, const event_t& event) {
    if (offset >= groups->given_from && offset < groups->given_to) return;
    const auto behind = groups->lines.upper_bound(offset);
    if (behind != groups->lines.begin()) {
        const auto& [begin, line] = *std::prev(behind);
        if (offset < begin + line.size) return;
    }
    groups->held += size;
    groups->lines[offset] = {std::move(text), size, false, event};
}

void add_found(context_groups* groups, const raw_record& record, const event_t& event) {
    const auto begin = groups->lines.lower_bound(record.offset);
    groups->lines.erase(begin, groups->lines.lower_bound(record.offset + record.size));
    groups->held += record.size;
    groups->lines[record.offset] = {record.text, record.size, true, event};
}

}  // namespace

bool context_groups_add(context_groups* groups, event_source* source, const event_t& event) {
    const raw_record* const found = event_source_record(source, event);
    if (found == nullptr) return false;
    const raw_record record = *found;  // who gets a group reads others
    std::vector<std::string> before, after;
    event_source_context(source, event, groups->before, groups->after, &before, &after);
    const uint64_t line_end = record.size - std::min<uint64_t>(record.text.size(), record.size) == 2 ? 2 : 1;
    uint64_t begin = record.offset, end = record.offset + record.size;
    for (const std::string& line : before) begin -= std::min<uint64_t>(begin, line.size() + line_end);
    for (const std::string& line : after) end += line.size() + line_end;
    const bool same_log = record.path == groups->path;
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
    groups->path = record.path;
    uint64_t at = begin;
    for (std::string& line : before) {
        const uint64_t size = line.size() + line_end;
        add_line(groups, at, std::move(line), size, event);
        at += size;
    }
    add_found(groups, record, event);
    at = record.offset + record.size;
    for (std::string& line : after) {
        const uint64_t size = line.size() + line_end;
        add_line(groups, at, std::move(line), size, event);
        at += size;
    }
    return true;
}

void context_groups_end(context_groups* groups) {
    give(groups);
}

}  // namespace veldar::tool

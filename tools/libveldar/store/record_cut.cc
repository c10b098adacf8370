#include "tools/libveldar/store/record_cut.h"

#include <algorithm>
#include <bitset>

#include "tools/libveldar/formats/log_stamp.h"
#include "tools/libveldar/formats/uncoloured.h"

namespace veldar::tool {

namespace {

constexpr size_t NONE = std::string_view::npos;
constexpr size_t LINE_HEAD = 1024;  // of a line tells whether it begins a record
constexpr std::string_view CURSOR = "__CURSOR=", UTF8_MARK = "\xEF\xBB\xBF";
constexpr std::string_view SEPARATORS = " \t\r,[]}", BEHIND_OBJECT = " \t\r,]";

constexpr std::pair<record_rule, std::string_view> NAMES[] = {{record_rule::times, "times"},
                                                              {record_rule::lines, "lines"},
                                                              {record_rule::quotes, "quotes"},
                                                              {record_rule::journal, "journal"},
                                                              {record_rule::objects, "objects"}};

size_t line_end(std::string_view bytes, size_t from) {
    const size_t newline = bytes.find('\n', from);
    return newline == NONE ? NONE : newline + 1;
}

// The end of the line that begins at `from`, or how a length says that there is none yet.
size_t line_length(std::string_view bytes, bool at_end) {
    const size_t end = line_end(bytes, 0);
    return end != NONE ? end : at_end ? bytes.size() : 0;
}

bool is_blank(std::string_view line) {
    return line.empty() || line == "\r";
}
bool is_indented(std::string_view line) {
    return !line.empty() && (line[0] == ' ' || line[0] == '\t');
}

// The first line and those behind it of which `joins` says so, by their first `head` bytes.
template <typename Joins>
size_t joined_length(std::string_view bytes, bool at_end, size_t head, size_t lines_max, Joins joins) {
    size_t end = line_end(bytes, 0);
    if (end == NONE) return at_end ? bytes.size() : 0;
    for (size_t lines = 1; end < RECORD_MAX && lines < lines_max; lines++) {
        const size_t newline = bytes.find('\n', end), have = bytes.size() - end;
        const bool only_return = have == 1 && bytes[end] == '\r';  // a newline may follow
        if (newline == NONE && !at_end && (have < head || only_return)) return 0;
        if (have == 0 || !joins(bytes.substr(end, newline == NONE ? head : std::min(head, newline - end)))) return end;
        size_t next = newline + 1;
        if (newline == NONE) {
            if (!at_end && bytes.size() <= RECORD_MAX) return 0;
            next = bytes.size();
        }
        if (next > RECORD_MAX) return end;
        end = next;
    }
    return end;
}

size_t indents_length(std::string_view bytes, bool at_end) {
    return joined_length(bytes, at_end, 1, NONE,
                         [](std::string_view line) { return is_blank(line) || is_indented(line); });
}

size_t times_length(const time_place& times, std::string_view bytes, bool at_end) {
    const bool may_indent = is_indented(bytes);
    return joined_length(bytes, at_end, LINE_HEAD, RECORD_LINES_MAX, [&](std::string_view line) {
        std::string plain;
        std::string_view where;
        shape_time time;
        if (is_blank(line) || (is_indented(line) && !may_indent)) return true;
        return !time_place_take_any(times, uncoloured(line, &plain), &time, &where);
    });
}

// What the bytes hold of a record that goes on over line ends.
struct scan_result {
    size_t end = NONE;  // behind it; NONE: it is open, or broken
    bool broken = false;
};

// Tables have no separators but these, and a quote that opens a cell stands behind one.
scan_result scan_cells(std::string_view bytes) {
    bool quoted = false;
    size_t lines = 1;
    const size_t most = std::min(bytes.size(), RECORD_MAX);
    for (size_t i = 0; i < most; i++) {
        const char c = bytes[i];
        if (c == '"' && quoted) {
            quoted = i + 1 < bytes.size() && bytes[i + 1] == '"';
            i += quoted ? 1 : 0;
        } else if (c == '"') {
            quoted = i == 0 || std::string_view(",;\t|").find(bytes[i - 1]) != NONE;
        } else if (c == '\n') {
            if (!quoted) return {i + 1, false};
            if (++lines > RECORD_LINES_MAX) return {NONE, true};
        }
    }
    return {NONE, bytes.size() >= RECORD_MAX};
}

// An object from its brace on. Newlines inside of strings, and braces where none may stand, are no JSON: something was
// cut off, and what follows is not its rest.
scan_result scan_object(std::string_view bytes) {
    constexpr size_t DEPTH_MAX = 1024;
    std::bitset<DEPTH_MAX> in_array;
    size_t depth = 0;
    char before = 0;
    const size_t most = std::min(bytes.size(), RECORD_MAX);
    for (size_t i = 0; i < most; i++) {
        const char c = bytes[i];
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
        if (c == '"') {
            for (i++; i < most && bytes[i] != '"'; i++) {
                if (bytes[i] == '\n') return {NONE, true};
                i += bytes[i] == '\\' ? 1 : 0;
            }
        } else if (c == '{' || c == '[') {
            const bool fits = depth == 0 || (in_array[depth - 1] ? before == '[' || before == ',' : before == ':');
            if (!fits || depth == DEPTH_MAX) return {NONE, true};
            in_array[depth++] = c == '[';
        } else if (c == '}' || c == ']') {
            if (in_array[depth - 1] != (c == ']')) return {NONE, true};
            if (--depth == 0) return {i + 1, false};
        } else if ((before == '{' || before == ',') && c != ',' && !in_array[depth - 1]) {
            return {NONE, true};  // no name
        }
        before = c;
    }
    return {NONE, bytes.size() >= RECORD_MAX};
}

// Takes `{"Records": [` off the front when an object follows. A part of it is an object that is open.
void skip_envelope(std::string_view* bytes) {
    constexpr size_t ENVELOPE_MAX = 256;
    std::string_view rest = bytes->substr(0, ENVELOPE_MAX);
    for (const char* want = "{\"records\":["; *want != '\0'; want++) {
        if (*want != 'e') rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
        if (rest.empty() || (*want >= 'a' ? rest[0] | 0x20 : rest[0]) != *want) return;
        rest.remove_prefix(1);
    }
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
    if (rest.starts_with('{')) *bytes = std::string_view(rest.data(), static_cast<size_t>(bytes->end() - rest.data()));
}

size_t objects_length(std::string_view bytes, bool at_end) {
    const size_t first = bytes.find_first_not_of(SEPARATORS);
    if (first == NONE) return at_end ? bytes.size() : 0;
    if (bytes[first] == '\n') return first + 1;
    if (bytes[first] != '{') {
        return joined_length(bytes, at_end, LINE_HEAD, NONE, [](std::string_view line) {
            const size_t begin = line.find_first_not_of(SEPARATORS);
            return is_indented(line) && begin != NONE && line[begin] != '{';
        });
    }
    std::string_view object = bytes.substr(first);
    skip_envelope(&object);
    const scan_result scan = scan_object(object);
    if (scan.end == NONE) return scan.broken || at_end ? line_length(bytes, at_end) : 0;
    const size_t end = bytes.size() - object.size() + scan.end, next = bytes.find_first_not_of(BEHIND_OBJECT, end);
    if (next != NONE && (bytes[next] == '{' || bytes[next] == '}')) return next;
    const size_t line = line_end(bytes, end);
    if (line == NONE && bytes.size() < RECORD_MAX) return at_end ? bytes.size() : 0;
    return line == NONE || line > RECORD_MAX ? end : line;
}

}  // namespace

std::string record_cut_text(const record_cut& cut) {
    for (const auto& [rule, name] : NAMES) {
        if (rule != cut.rule) continue;
        return std::string(name) + (rule == record_rule::times ? " " + time_place_text(cut.times) : "");
    }
    return {};
}

record_cut record_cut_from_text(std::string_view text) {
    record_cut cut;
    const size_t blank = text.find(' ');
    for (const auto& [rule, name] : NAMES) {
        if (name == text.substr(0, blank)) cut.rule = rule;
    }
    const bool placed = blank != NONE && time_place_from_text(text.substr(blank + 1), &cut.times);
    if (cut.rule == record_rule::times && !placed) cut.rule = record_rule::indents;
    return cut;
}

record_cut record_cut_of(std::string_view rules, uint32_t line) {
    for (; line > 0 && !rules.empty(); line--) rules.remove_prefix(std::min(rules.find('\n'), rules.size() - 1) + 1);
    return record_cut_from_text(rules.substr(0, rules.find('\n')));
}

uint32_t record_cut_add(std::string* rules, const record_cut& cut) {
    const std::string text = record_cut_text(cut);
    const auto count = static_cast<uint32_t>(std::count(rules->begin(), rules->end(), '\n')) + 1;
    for (uint32_t line = 0; line < count; line++) {
        if (record_cut_text(record_cut_of(*rules, line)) == text) return line;
    }
    *rules += "\n" + text;
    return count;
}

size_t record_length(const record_cut& cut, std::string_view bytes, bool at_end) {
    if (bytes.starts_with(UTF8_MARK)) {
        const size_t size = record_length(cut, bytes.substr(UTF8_MARK.size()), at_end);
        return size == 0 && !at_end ? 0 : UTF8_MARK.size() + size;
    }
    switch (cut.rule) {
        case record_rule::indents:
            return indents_length(bytes, at_end);
        case record_rule::times:
            return times_length(cut.times, bytes, at_end);
        case record_rule::lines:
            return line_length(bytes, at_end);
        case record_rule::quotes: {
            const scan_result scan = scan_cells(bytes);
            if (scan.end != NONE) return scan.end;
            return scan.broken || at_end ? line_length(bytes, at_end) : 0;
        }
        case record_rule::journal:
            return joined_length(bytes, at_end, CURSOR.size(), NONE,
                                 [](std::string_view line) { return line != CURSOR; });
        case record_rule::objects:
            return objects_length(bytes, at_end);
    }
    return line_length(bytes, at_end);
}

bool record_is_open(const record_cut& cut, std::string_view bytes) {
    scan_result scan;
    skip_utf8_mark(&bytes);
    if (cut.rule == record_rule::quotes) {
        scan = scan_cells(bytes);
    } else if (cut.rule == record_rule::objects) {
        const size_t first = bytes.find_first_not_of(SEPARATORS);
        if (first == NONE || bytes[first] != '{') return false;
        bytes.remove_prefix(first);
        static_cast<void>(skip_envelope(&bytes));
        scan = scan_object(bytes);
    } else {
        return false;
    }
    return scan.end == NONE && !scan.broken && !bytes.empty();
}

std::string_view record_text(std::string_view record) {
    if (record.ends_with('\n')) record.remove_suffix(1);
    if (record.ends_with('\r')) record.remove_suffix(1);
    return record;
}

std::string_view record_content(const record_cut& cut, std::string_view record, uint64_t offset) {
    std::string_view text = record_text(record);
    if (offset == 0) skip_utf8_mark(&text);
    if (cut.rule != record_rule::objects) return text;
    const size_t first = std::min(text.find_first_not_of(SEPARATORS), text.size());
    if (first < text.size() && text[first] != '{') return text;
    text.remove_prefix(first);
    static_cast<void>(skip_envelope(&text));
    return text.substr(0, text.find_last_not_of(BEHIND_OBJECT) + 1);
}

}  // namespace veldar::tool

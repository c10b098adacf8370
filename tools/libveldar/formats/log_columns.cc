#include "tools/libveldar/formats/log_columns.h"

#include <algorithm>
#include <charconv>
#include <set>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {
namespace {

constexpr size_t NAME_SIZE_MAX = 64;
constexpr size_t TEXT_MAX = 16384;
constexpr std::string_view SEPARATORS = ",\t;|";
constexpr std::string_view W3C_HEAD = "#Fields:", ZEEK_HEAD = "#fields\t";

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || static_cast<signed char>(c) < 0;
}

std::string_view trimmed(std::string_view text) {
    skip_blanks(&text);
    while (text.ends_with(' ') || text.ends_with('\t') || text.ends_with('\r')) text.remove_suffix(1);
    return text;
}

std::vector<std::string_view> cells_of(std::string_view line, char separator) {
    std::vector<std::string_view> cells;
    std::string_view cell;
    for (bool quoted; cells.size() < COLUMNS_MAX && take_cell(&line, separator, &cell, &quoted);) {
        cells.push_back(trimmed(cell));
    }
    return cells;
}

void set_names(const std::vector<std::string_view>& cells, log_columns* out) {
    size_t size = 0;
    for (const std::string_view cell : cells) {
        if ((size += cell.size()) > TEXT_MAX) return;
        std::string& name = out->names.emplace_back(cell.substr(0, NAME_SIZE_MAX));
        std::replace_if(
            name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
    }
}

// Whether a cell can be the name of a column.
bool is_name(std::string_view cell) {
    return !cell.empty() && cell.size() <= NAME_SIZE_MAX && cell.find('=') == cell.npos &&
           (is_letter(cell[0]) || std::string_view("_@%$(").find(cell[0]) != std::string_view::npos) &&
           std::count(cell.begin(), cell.end(), ' ') <= 3;
}

bool is_header(const std::vector<std::string_view>& cells) {
    return std::all_of(cells.begin(), cells.end(), is_name) &&
           std::set<std::string_view>(cells.begin(), cells.end()).size() == cells.size();
}

std::string lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    return out;
}

bool sounds_like_time(std::string_view name) {
    const std::string folded = lower(name);
    return folded.find("time") != std::string::npos || folded.find("date") != std::string::npos ||
           folded.find("stamp") != std::string::npos;
}

// The columns of the time, as a record has them: by their usual names first, then by names that sound like it.
void find_time(const std::vector<std::string_view>& cells, log_columns* out) {
    const size_t count = std::min(cells.size(), out->names.size());
    const int head_time = out->time, head_date = out->date;
    out->date = out->time = NO_COLUMN;
    log_stamp stamp;
    for (size_t i = 0; i < count; i++) {
        const std::string name = lower(out->names[i]);
        if (name == "date") out->date = static_cast<int>(i);
        if (name == "time") out->time = static_cast<int>(i);
    }
    if (out->date != NO_COLUMN && out->time != NO_COLUMN && out->time != out->date) {
        const auto at = [&](int column) { return std::string(cells[static_cast<size_t>(column)]); };
        if (take_any_time(at(out->date) + " " + at(out->time), &stamp)) return;
    }
    out->date = out->time = NO_COLUMN;
    for (const bool by_name : {true, false}) {
        for (size_t i = 0; i < count && out->time == NO_COLUMN; i++) {
            const bool fits = by_name ? is_time_name(out->names[i]) : sounds_like_time(out->names[i]);
            if (fits && take_any_time(cells[i], &stamp)) out->time = static_cast<int>(i);
        }
    }
    if (out->time != NO_COLUMN) return;
    out->time = head_time;
    out->date = head_date;
}

// Whether the first line names the cells of the others.
bool find_csv(std::span<const std::string_view> lines, char separator, bool wanted, log_columns* out) {
    *out = {};
    std::string_view head = lines[0];
    skip_utf8_mark(&head);
    while (head.starts_with('#')) head = trimmed(head.substr(1));
    const std::vector<std::string_view> names = cells_of(head, separator);
    if (names.size() < 2 || (!wanted && !is_header(names))) return false;
    out->separator = separator;
    set_names(names, out);
    size_t same = 0, all = 0;
    bool open = false;  // a quote that goes on in the next line
    for (const std::string_view line : lines.subspan(1)) {
        const bool inside = open;
        if (std::count(line.begin(), line.end(), '"') % 2 != 0) open = !open;
        if (line.empty() || line == "\r" || inside || open) continue;
        const std::vector<std::string_view> cells = cells_of(line, separator);
        all++;
        if (cells.size() != names.size()) continue;
        same++;
        if (out->time == NO_COLUMN) find_time(cells, out);
    }
    const bool timed = out->time != NO_COLUMN;
    return wanted ? same > 0 : same * 10 >= all * 6 && same > 0 && (timed || (names.size() > 2 && same >= 2));
}

// Whether the lines before the first event name the columns, and in which of the two manners.
const char* find_in_comments(std::span<const std::string_view> lines, log_columns* out) {
    *out = {};
    const char* name = nullptr;
    for (std::string_view line : lines) {
        skip_utf8_mark(&line);
        if (line.empty() || line[0] == '#' || line == "\r") {
            if (log_columns_from_head(line, out)) name = line.starts_with(ZEEK_HEAD) ? "zeek" : "w3c";
            continue;
        }
        if (name == nullptr) return nullptr;
        // CloudFront names its columns with blanks between them and has tabs in its lines.
        if (line.find('\t') != std::string_view::npos) out->separator = '\t';
        find_time(cells_of(line, out->separator), out);
        return name;
    }
    return name;
}

}  // namespace

bool take_cell(std::string_view* rest, char separator, std::string_view* cell, bool* quoted) {
    *quoted = false;
    if (rest->data() == nullptr) return false;
    size_t end = 0, from = 0;
    if (rest->starts_with('"')) {
        // A quote that no separator follows is a part of the cell.
        for (end = 1; (end = rest->find('"', end)) != std::string_view::npos; end++) {
            if (end + 1 < rest->size() && (*rest)[end + 1] == '"') {
                *quoted = true;
                end++;
                continue;
            }
            if (end + 1 >= rest->size() || (*rest)[end + 1] == separator || (*rest)[end + 1] == '\r') break;
        }
        if (end != std::string_view::npos) from = 1;
    }
    if (from == 0) {
        *quoted = false;
        end = std::min(rest->find(separator), rest->size());
    }
    *cell = rest->substr(from, end - from);
    const size_t next = rest->find(separator, end);
    *rest = next == std::string_view::npos ? std::string_view() : rest->substr(next + 1);
    return true;
}

bool log_columns_from_head(std::string_view line, log_columns* out) {
    const bool zeek = line.starts_with(ZEEK_HEAD);
    if (!zeek && !line.starts_with(W3C_HEAD)) return false;
    const char separator = zeek ? '\t' : out->separator == '\t' ? '\t' : ' ';
    std::string_view names = trimmed(line.substr(zeek ? ZEEK_HEAD.size() : W3C_HEAD.size()));
    const char between = names.find('\t') != std::string_view::npos ? '\t' : ' ';
    log_columns found;
    found.separator = separator;
    set_names(cells_of(names, between), &found);
    for (size_t i = 0; i < found.names.size(); i++) {
        if (found.names[i] == "date") found.date = static_cast<int>(i);
        if (found.names[i] == "time" || found.names[i] == "ts") found.time = static_cast<int>(i);
    }
    if (!found.known()) return false;
    if (found.time == NO_COLUMN) found.date = NO_COLUMN;
    *out = std::move(found);
    return true;
}

const char* log_columns_find(std::span<const std::string_view> first_lines, std::string_view wanted, log_columns* out) {
    *out = {};
    while (!first_lines.empty() && (first_lines[0].empty() || first_lines[0] == "\r")) {
        first_lines = first_lines.subspan(1);
    }
    if (first_lines.empty()) return nullptr;
    const char* const name = find_in_comments(first_lines, out);
    if (name != nullptr && (wanted.empty() || wanted == name)) return name;
    if (!wanted.empty() && wanted != "csv") return nullptr;
    for (const char separator : SEPARATORS) {
        if (find_csv(first_lines, separator, wanted == "csv", out)) return "csv";
    }
    *out = {};
    return nullptr;
}

std::string log_columns_text(const log_columns& columns) {
    if (!columns.known()) return {};
    std::string text = std::to_string(columns.time) + " " + std::to_string(columns.date) + " " + columns.separator;
    for (const std::string& name : columns.names) text.append(name).append(1, '\x1f');
    return text;
}

bool log_columns_from_text(std::string_view text, log_columns* out) {
    *out = {};
    log_columns columns;
    if (text.empty()) return true;
    for (int* const number : {&columns.time, &columns.date}) {
        const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), *number);
        const size_t size = static_cast<size_t>(end - text.data());
        if (fault != std::errc() || *number < NO_COLUMN || !text.substr(size).starts_with(' ')) return false;
        text.remove_prefix(size + 1);
    }
    if (text.empty()) return false;
    columns.separator = text[0];
    text.remove_prefix(1);
    for (size_t end; (end = text.find('\x1f')) != std::string_view::npos; text.remove_prefix(end + 1)) {
        columns.names.emplace_back(text.substr(0, end));
        if (columns.names.size() > COLUMNS_MAX) return false;
    }
    *out = std::move(columns);
    return text.empty();
}

}  // namespace veldar::tool

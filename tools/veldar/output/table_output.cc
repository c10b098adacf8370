#include "tools/veldar/output/table_output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "tools/veldar/output/event_output.h"

namespace veldar::tool {

namespace {

constexpr size_t LEARNED_ROWS = 1000;  // that decide how wide a table's columns are
constexpr size_t WIDEST_PADDING = 60;
constexpr size_t LEAST_BAR = 8;

std::string fixed_text(double number, int digits) {
    std::array<char, 400> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed, digits);
    std::string result(text.data(), end.ptr);
    if (result.find('.') != std::string::npos) {
        result.erase(result.find_last_not_of('0') + 1);
        if (result.back() == '.') result.pop_back();
    }
    return result == "-0" ? "0" : result;
}

std::string infinity_text(double number) {
    return std::isnan(number) ? "NaN" : number < 0 ? "-Inf" : "+Inf";
}

std::string shortest_text(double number) {
    std::array<char, 400> text;
    return {text.data(), std::to_chars(text.data(), text.data() + text.size(), number).ptr};
}

std::string one_line(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t' || c == '\r'; }, ' ');
    return text;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + text;
    return all;
}

std::string table_text(const table_cell& cell) {
    const std::string about = cell.is_estimate ? "about " : "";
    switch (cell.kind) {
        case table_cell::TEXT:
            return cell.text.empty() ? "-" : one_line(cell.text);
        case table_cell::COUNT:
            return about + std::to_string(cell.count);
        case table_cell::NUMBER:
            return about + number_text(cell.number);
        case table_cell::TEXTS:
            return cell.texts.empty() ? "-" : one_line(joined(cell.texts));
        case table_cell::NOTHING:
            break;
    }
    return "-";
}

std::string exact_text(const table_cell& cell) {
    switch (cell.kind) {
        case table_cell::TEXT:
            return cell.text;
        case table_cell::COUNT:
            return std::to_string(cell.count);
        case table_cell::NUMBER:
            return exact_number_text(cell.number);
        case table_cell::TEXTS:
            return joined(cell.texts);
        case table_cell::NOTHING:
            break;
    }
    return {};
}

void put_json_cell(std::string* out, const table_cell& cell) {
    switch (cell.kind) {
        case table_cell::TEXT:
            return json_put_string(out, cell.text);
        case table_cell::COUNT:
            out->append(std::to_string(cell.count));
            return;
        case table_cell::NUMBER:
            if (!std::isfinite(cell.number)) return json_put_string(out, infinity_text(cell.number));
            out->append(exact_number_text(cell.number));
            return;
        case table_cell::TEXTS: {
            char before = '[';
            for (const std::string& text : cell.texts) {
                out->push_back(before);
                json_put_string(out, text);
                before = ',';
            }
            out->append(before == '[' ? "[]" : "]");
            return;
        }
        case table_cell::NOTHING:
            out->append("null");
            return;
    }
}

void put_json_row(table_output* table, const std::vector<table_cell>& cells) {
    std::string* const out = &table->out->bytes;
    for (size_t i = 0; i < cells.size(); i++) {
        out->push_back(i == 0 ? '{' : ',');
        json_put_string(out, table->columns[i].name);
        out->push_back(':');
        put_json_cell(out, cells[i]);
    }
    out->append("}\n");
}

void put_separated_row(table_output* table, const std::vector<std::string>& texts) {
    const bool csv = table->format == table_format::csv;
    std::string* const out = &table->out->bytes;
    for (size_t i = 0; i < texts.size(); i++) {
        if (i > 0) out->push_back(csv ? ',' : '\t');
        csv ? csv_put_field(out, texts[i]) : tsv_put_field(out, texts[i]);
    }
    out->append(csv ? "\r\n" : "\n");
}

// The text cut to so many characters.
std::string fitted(const std::string& text, size_t width) {
    if (text_width(text) <= width) return text;
    std::string cut;
    for (size_t at = 0, count = 0; at < text.size() && count + 1 < width; count++) {
        const size_t length = std::max<size_t>(utf8_length(std::string_view(text).substr(at)), 1);
        cut += text.substr(at, length);
        at += length;
    }
    return cut + "~";
}

// The room for a bar behind the columns of a line.
size_t bar_room(const table_output& table) {
    size_t used = 0;
    for (const size_t width : table.widths) used += width + 2;
    return table.line_width > used + LEAST_BAR ? table.line_width - used : LEAST_BAR;
}

void put_line(table_output* table, const std::vector<std::string>& texts, const std::string& bar) {
    std::string line;
    for (size_t i = 0; i < texts.size(); i++) {
        const bool right = table->columns[i].is_number;
        const std::string text = table->line_width > 0 ? fitted(texts[i], table->widths[i]) : texts[i];
        const size_t width = text_width(text);
        const std::string padding(width < table->widths[i] ? table->widths[i] - width : 0, ' ');
        line += (i == 0 ? "" : "  ") + (right ? padding + text : text + padding);
    }
    line += "  " + bar;
    line.erase(line.find_last_not_of(' ') + 1);
    output_put(table->out, line + "\n");
    output_end_record(table->out);
}

double bar_part(const table_output& table, const std::vector<table_cell>& cells) {
    if (table.bar_peak <= 0) return 0;
    const table_cell& cell = cells[table.bar_column];
    const double value = cell.kind == table_cell::COUNT ? static_cast<double>(cell.count) : cell.number;
    return std::isfinite(value) ? std::max(value / table.bar_peak, 0.0) : 0;
}

std::string bar_of(const table_output& table, double part) {
    return table.bar_peak > 0 ? bar_text(part, bar_room(table)) : "";
}

// Decides the widths and prints what was held.
void settle(table_output* table) {
    if (table->is_settled) return;
    table->is_settled = true;
    std::vector<std::string> names;
    for (const table_column& column : table->columns) names.push_back(column.name);
    const size_t widest = table->line_width > 0 ? std::max<size_t>(table->line_width / 2, 20) : WIDEST_PADDING;
    for (size_t i = 0; i < names.size(); i++) {
        size_t width = text_width(names[i]);
        for (const auto& texts : table->held) width = std::max(width, text_width(texts[i]));
        table->widths.push_back(table->columns[i].is_number ? width : std::min(width, widest));
    }
    put_line(table, names, "");
    for (size_t i = 0; i < table->held.size(); i++)
        put_line(table, table->held[i], bar_of(*table, table->held_bars[i]));
    table->held.clear();
}

}  // namespace

table_format table_format_from_name(const std::string& name) {
    const auto found = std::find(TABLE_FORMATS.begin(), TABLE_FORMATS.end(), name);
    return found == TABLE_FORMATS.end() ? table_format::table
                                        : static_cast<table_format>(found - TABLE_FORMATS.begin());
}

table_cell text_cell(std::string_view text) {
    return {.kind = table_cell::TEXT, .text = std::string(text)};
}
table_cell count_cell(uint64_t count) {
    return {.kind = table_cell::COUNT, .count = count};
}
table_cell number_cell(double number) {
    return {.kind = table_cell::NUMBER, .number = number};
}

void table_begin(table_output* table) {
    if (table->format != table_format::tsv && table->format != table_format::csv) return;
    std::vector<std::string> names;
    for (const table_column& column : table->columns) names.push_back(column.name);
    put_separated_row(table, names);
}

void table_put_row(table_output* table, const std::vector<table_cell>& cells) {
    if (table->format == table_format::jsonl) {
        put_json_row(table, cells);
        return output_end_record(table->out);
    }
    std::vector<std::string> texts;
    for (const table_cell& cell : cells) {
        texts.push_back(table->format == table_format::table ? table_text(cell) : exact_text(cell));
    }
    if (table->format != table_format::table) {
        put_separated_row(table, texts);
        return output_end_record(table->out);
    }
    const double part = bar_part(*table, cells);
    if (table->is_settled) return put_line(table, texts, bar_of(*table, part));
    table->held.push_back(std::move(texts));
    table->held_bars.push_back(part);
    if (table->held.size() == LEARNED_ROWS) settle(table);
}

void table_end(table_output* table) {
    if (table->format == table_format::table && !table->held.empty()) settle(table);
}

std::string number_text(double number) {
    if (!std::isfinite(number)) return infinity_text(number);
    const double size = std::abs(number);
    if (size != 0 && (size < 1e-4 || size >= 1e15)) {
        std::array<char, 40> text;
        const auto end =
            std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::scientific, 5);
        return {text.data(), end.ptr};
    }
    const int before = size < 1 ? 1 : static_cast<int>(std::log10(size)) + 1;
    return fixed_text(number, std::max(6 - before, 0));
}

std::string exact_number_text(double number) {
    if (!std::isfinite(number)) return infinity_text(number);
    const double size = std::abs(number);
    if (size != 0 && (size < 1e-5 || size >= 1e15)) return shortest_text(number);
    std::array<char, 400> text;
    return {text.data(), std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed).ptr};
}

size_t text_width(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string bar_text(double part, size_t width) {
    static constexpr std::array<const char*, 8> EIGHTHS = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
    const auto eighths = static_cast<size_t>(std::lround(std::min(part, 1.0) * static_cast<double>(width) * 8));
    std::string bar;
    for (size_t i = 0; i < eighths / 8; i++) bar += "█";
    bar += EIGHTHS[eighths % 8];
    return bar.empty() && part > 0 ? EIGHTHS[1] : bar;
}

size_t terminal_width() {
    struct winsize size = {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return std::max<size_t>(size.ws_col, 20);
    const char* const columns = std::getenv("COLUMNS");
    uint32_t width = 0;
    if (columns != nullptr) std::from_chars(columns, columns + std::char_traits<char>::length(columns), width);
    return width > 0 && width <= 10000 ? std::max(width, 20u) : 80;
}

}  // namespace veldar::tool

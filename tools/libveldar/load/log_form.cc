#include "tools/libveldar/load/log_form.h"

#include <algorithm>
#include <ctime>

#include "tools/libveldar/formats/uncoloured.h"
#include "tools/libveldar/formats/user_formats.h"
#include "tools/libveldar/load/time_field.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/record_reader.h"

namespace veldar::tool {

namespace {

constexpr size_t FORMAT_LINES = 100, TIME_LINES = 500;  // day and month may take many lines to show
constexpr size_t EXAMPLE_BYTES = 120;
constexpr size_t CHANGED_LINES = 64, CHANGED_LINES_LEAST = 16;  // what shows that a log goes on in another form
constexpr size_t CHANGED_BYTES = 64 << 10;

const line_format* text_format() {
    static const line_format* const text = format_by_name("text");
    return text;
}

// The first whole lines of a log without colours; its only line even when it is not whole.
std::vector<std::string_view> first_lines(std::string_view head, size_t count, std::string* plain) {
    head = uncoloured(head, plain);
    std::vector<std::string_view> lines;
    while (!head.empty() && lines.size() < count) {
        const size_t newline = head.find('\n');
        const bool whole = newline != std::string_view::npos;
        if (whole || lines.empty()) lines.push_back(record_text(head.substr(0, newline)));
        head.remove_prefix(whole ? newline + 1 : head.size());
    }
    return lines;
}

// The first records by a rule that needs no times.
std::vector<std::string_view> cut_records(std::string_view head, record_rule rule) {
    record_cut cut;
    cut.rule = rule;
    std::vector<std::string_view> records;
    while (!head.empty() && records.size() < FORMAT_LINES) {
        const size_t size = record_length(cut, head, true);
        const std::string_view content = record_content(cut, head.substr(0, size), 1);
        head.remove_prefix(size);
        if (!content.empty() && (!head.empty() || records.empty())) records.push_back(content);
    }
    return records;
}

// The records of a log that begins with objects over several lines, or with an array of objects; else its lines.
std::vector<std::string_view> first_records(std::string_view head, const std::vector<std::string_view>& lines) {
    const size_t first = std::min(head.find_first_not_of(" \t\r\n"), head.size());
    if (first == head.size() || (head[first] != '{' && head[first] != '[')) return lines;
    const std::vector<std::string_view> records = cut_records(head, record_rule::objects);
    const bool objects = !records.empty() && records[0].starts_with('{');
    return objects ? records : lines;
}

// What the options say; null when they say nothing.
const line_format* forced_format(const load_options& options, format_context* context) {
    context->time_field = options.time_field;
    if (!options.time_format.empty()) time_place_from_pattern(options.time_format, &context->times);
    const bool placed = !options.time_format.empty() && options.time_field.empty();
    return placed ? text_format() : format_by_name(options.format);
}

time_hints hints_of(const std::string& order, const format_context* context) {
    time_hints hints;
    hints.now_s = static_cast<int64_t>(std::time(nullptr));
    hints.modified_s = context->modified_s == NO_TIME_SEEN ? hints.now_s : context->modified_s;
    hints.now_s = std::max(hints.now_s, hints.modified_s);
    hints.order = order;
    return hints;
}

void find_times(std::string_view head, const std::string& order, format_context* context) {
    std::string plain;
    const time_hints hints = hints_of(order, context);
    const std::vector<std::string_view> lines = first_lines(head, TIME_LINES, &plain);
    context->times = time_place_find(std::span(lines).first(std::min(lines.size(), FORMAT_LINES)), hints);
    const bool settled = context->times.known() && context->times.also.empty();
    if (!settled && lines.size() > FORMAT_LINES) context->times = time_place_find(lines, hints);
}

// When this machine was started, for a file that was written since.
int64_t boot_time_s(int64_t modified_s) {
    timespec up = {};
    ::clock_gettime(CLOCK_BOOTTIME, &up);
    const int64_t boot_s = std::time(nullptr) - up.tv_sec;
    return modified_s >= boot_s ? boot_s : NO_TIME_SEEN;
}

std::string no_time_note(const log_form_counts& counts, const format_context& context) {
    if (context.times.pattern.find("%u") != std::string::npos && context.boot_s == NO_TIME_SEEN) {
        return "times count from a start of a machine that is not known; they are the file's modification time";
    }
    const bool all = counts.dated_by_file == counts.events;
    const std::string which = all ? "no line says"
                              : counts.dated_by_file == 1
                                  ? "the first line does not say"
                                  : "the first " + std::to_string(counts.dated_by_file) + " lines do not say";
    return which + " a time that is understood; times are " +
           (counts.is_pipe ? "that of the load" : "the file's modification time") + " (see " +
           input_name("time-format") + ")";
}

bool has_given_form(const load_options& options) {
    return !options.format.empty() || !options.time_format.empty() || !options.time_field.empty();
}

// How many of the lines are of the form and say a time.
size_t count_dated(std::span<const std::string_view> lines, const line_format& format, format_context context) {
    parsed_line parsed;
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](std::string_view line) {
        return parse_log_line(format, line, &context, &parsed) && parsed.has_time;
    }));
}

}  // namespace

const line_format* log_form_choose(const load_options& options, std::string_view head, const std::string& recorded,
                                   format_context* context) {
    skip_utf8_mark(&head);
    const line_format* format = forced_format(options, context);
    // "text" alone may only say that the log was too short to tell when it was first seen.
    if (format == nullptr && recorded != text_format()->name) format = format_by_record(recorded, context);
    std::string plain;
    const std::vector<std::string_view> lines = first_lines(head, FORMAT_LINES, &plain);
    if (!context->columns.known()) {
        const line_format* table = detect_columns(lines, format, context);
        const bool quotes = table == nullptr && head.find('"') != std::string_view::npos;
        if (quotes) table = detect_columns(cut_records(head, record_rule::quotes), format, context);
        if (format == nullptr) format = table;
    }
    if (format == nullptr) format = detect_format(first_records(head, lines), *context);
    if (format->user != nullptr) user_format_prepare(*format->user, context);
    // Those that name their fields say their time in one of them.
    const bool names_fields = format->is_json || context->columns.known() || format->records == record_rule::journal;
    if ((names_fields && recorded.empty()) || !context->time_field.empty()) {
        time_field_find(*format, first_records(head, first_lines(head, TIME_LINES, &plain)),
                        hints_of(options.date_order, context), context);
    }
    if (format->is_json || !context->time_field.empty()) return format;
    const bool is_text = format == text_format();
    // What a format reads by itself has one order of day and month.
    if (!context->times.known() && (is_text || recorded.empty())) {
        find_times(head, format->is_placed ? options.date_order : "", context);
    }
    if (!format->is_placed) {
        context->times.also.clear();
        return format;
    }
    context->boot_s = boot_time_s(context->modified_s);
    return format;
}

const line_format* log_form_of_file(const load_options& options, std::string_view head, const std::string& recorded,
                                    format_context* context) {
    skip_utf8_mark(&head);
    format_context first_context = *context;
    const line_format* const format = log_form_choose(options, head, recorded, context);
    if (has_given_form(options) || !recorded.empty()) return format;
    size_t end = 0;
    for (size_t i = 0; i < CHANGED_LINES_LEAST; i++) end = std::min(head.find('\n', end), head.size() - 1) + 1;
    std::string plain;
    const std::string_view first_head = head.substr(0, end);
    const std::vector<std::string_view> lines = first_lines(first_head, CHANGED_LINES_LEAST, &plain);
    if (lines.size() < CHANGED_LINES_LEAST || count_dated(lines, *format, *context) != 0) return format;
    const line_format* const first = log_form_choose(options, first_head, recorded, &first_context);
    if (count_dated(lines, *first, first_context) != lines.size()) return format;
    *context = first_context;
    return first;
}

record_cut log_form_cut(const line_format& format, std::string_view head, const format_context& context) {
    record_cut cut;
    if (format.records != record_rule::times) {
        cut.rule = format.records;
        return cut;
    }
    if (!context.times.known()) return cut;
    skip_utf8_mark(&head);
    // Should the format see times where the place shows none, their lines would be lost in others.
    format_context scratch = context;
    std::string plain;
    parsed_line parsed;
    shape_time time;
    std::string_view where;
    for (const std::string_view line : first_lines(head, FORMAT_LINES, &plain)) {
        parse_log_line(format, line, &scratch, &parsed);
        if (begins_record(line) && parsed.has_time && !time_place_take_any(context.times, line, &time, &where))
            return cut;
    }
    cut.rule = record_rule::times;
    cut.times = context.times;
    return cut;
}

namespace {

// Whether a line at the log's beginning has a time in the field that is asked for.
bool has_time_field(const load_options& options, std::string_view head, format_context* context, std::string* error) {
    *context = format_context();
    const line_format* const format = log_form_choose(options, head, {}, context);
    std::string plain, example;
    parsed_line parsed;
    context->boot_s = 0;
    for (const std::string_view line : first_records(head, first_lines(head, TIME_LINES, &plain))) {
        parse_log_line(*format, line, context, &parsed);
        if (parsed.has_time) return true;
        if (example.empty() && !parsed.no_event && begins_record(line)) example = line.substr(0, EXAMPLE_BYTES);
    }
    if (example.empty()) return true;
    *error = "no line says a time in the field " + options.time_field + "; the first is: " + example;
    return false;
}

}  // namespace

bool log_form_check(const load_options& options, const log_zone& zone, std::string_view head, std::string* error) {
    skip_utf8_mark(&head);
    format_context context;
    context.zone = zone;
    context.year = options.year;
    context.boot_s = 0;
    const line_format* const format = forced_format(options, &context);
    if (!options.time_field.empty()) return has_time_field(options, head, &context, error);
    if (format == nullptr || (format == text_format() && !context.times.known())) return true;
    std::string plain, example;
    parsed_line parsed;
    detect_columns(first_lines(head, FORMAT_LINES, &plain), format, &context);
    for (const std::string_view line : first_records(head, first_lines(head, TIME_LINES, &plain))) {
        if (!begins_record(line)) continue;
        if (example.empty()) example = line.substr(0, EXAMPLE_BYTES);
        const bool formed = parse_log_line(*format, line, &context, &parsed);
        if (formed && (format != text_format() || parsed.has_time)) return true;
    }
    if (example.empty()) return true;
    *error = "no line has the form of " + (options.time_format.empty() ? options.format : options.time_format) +
             "; the first is: " + example;
    return false;
}

bool log_form_changed(const load_options& options, const log_event_maker& maker, std::string_view text, log_form* out) {
    if (has_given_form(options)) return false;
    std::string plain;
    std::vector<std::string_view> lines = first_lines(text, CHANGED_LINES, &plain);
    std::erase_if(lines, [](std::string_view line) { return !begins_record(line); });
    if (lines.size() < CHANGED_LINES_LEAST) return false;
    if (count_dated(lines, *maker.format, maker.context) * 10 > lines.size()) return false;
    const format_context& before = maker.context;
    format_context* const now = &out->context;
    *now = format_context();
    now->zone = before.zone;
    now->modified_s = before.modified_s;
    now->last_s = before.last_s;
    if (before.last_s != NO_TIME_SEEN)
        now->last_local_s = before.last_s + log_zone_at(now->zone, before.last_s).offset_s;
    out->format = log_form_choose(options, text.substr(0, CHANGED_BYTES), {}, now);
    const bool other = format_record(*out->format, *now) != format_record(*maker.format, before);
    if (!other || count_dated(lines, *out->format, *now) * 10 < lines.size() * 9) return false;
    out->cut = log_form_cut(*out->format, text.substr(0, CHANGED_BYTES), *now);
    return true;
}

bool log_form_is_dated(const load_options& options, const log_zone& zone, std::string_view head, std::string* error) {
    format_context context;
    context.zone = zone;
    context.year = options.year;
    const line_format* const format = log_form_of_file(options, head, {}, &context);
    std::string plain, example;
    parsed_line parsed;
    size_t records = 0, dated = 0;
    for (const std::string_view line : first_records(head, first_lines(head, TIME_LINES, &plain))) {
        if (!begins_record(line)) continue;
        parse_log_line(*format, line, &context, &parsed);
        if (parsed.no_event) continue;
        // In a log with times a line without one continues the record before.
        if (!parsed.has_time && context.times.known() && dated > 0) continue;
        if (!parsed.has_time && example.empty()) example = line.substr(0, EXAMPLE_BYTES);
        records++;
        dated += parsed.has_time;
    }
    if (dated * 2 >= records) return true;
    *error = "left out: only " + std::to_string(dated) + " of its first " + std::to_string(records) +
             " records say a time that is understood, not this one: " + example;
    return false;
}

std::string log_form_zone(const load_options& options) {
    return options.zone.empty() || options.zone == "local" ? log_zone_local_name() : options.zone;
}

std::vector<std::string> log_form_notes(const load_options& options, const format_context& context,
                                        const log_form_counts& counts) {
    std::vector<std::string> notes;
    const time_place& times = context.times;
    if (counts.dated_by_file > 0) notes.push_back(no_time_note(counts, context));
    if (counts.events == counts.dated_by_file) return notes;
    if (const uint64_t own = counts.events - counts.dated_by_file - counts.dated_by_line;
        counts.is_told && own * 2 < counts.events) {
        notes.push_back("only " + std::to_string(own) + " of " + std::to_string(counts.events) +
                        " lines say a time that is understood; the others have that of a line beside them");
    }
    if (!context.time_field.empty() && options.time_field.empty()) {
        notes.push_back("the time is taken from the field " + context.time_field + " (see " + input_name("time-field") +
                        ")");
    }
    if (!times.also.empty()) {
        notes.push_back("times such as " + times.example + " are taken as " + times.pattern + ", but " + times.also +
                        " fits as well (see " + input_name("date-order") + ")");
    }
    if (!context.unclear_zone.empty() && options.zone.empty()) {
        notes.push_back("the zone " + context.unclear_zone + " has several meanings; " +
                        std::to_string(context.unclear_zones) + " times with it are taken as " +
                        log_form_zone(options) + " (see " + input_name("tz") + ")");
    }
    if (!times.known()) return notes;
    if (times.pattern.find("%u") != std::string::npos && context.boot_s != NO_TIME_SEEN) {
        notes.push_back("times since the start are counted from the last start of this machine");
    }
    if (!times.shape.has_date) {
        notes.push_back(
            "lines say the time of day only; their days are counted back over midnights from " +
            std::string(counts.is_pipe ? "today" : "the file's modification, or tell from lines with a date"));
    }
    if (!times.shape.has_clock) notes.push_back("lines say the day only; it is taken from its beginning");
    return notes;
}

}  // namespace veldar::tool

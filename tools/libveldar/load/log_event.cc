#include "tools/libveldar/load/log_event.h"

#include <algorithm>
#include <vector>

#include "tools/libveldar/formats/json_text.h"
#include "tools/libveldar/formats/uncoloured.h"
#include "tools/libveldar/formats/unit_number.h"
#include "tools/libveldar/store/record_reader.h"

namespace veldar::tool {

namespace {

constexpr std::string_view HOST = "host", SOURCE = "source", SOURCETYPE = "sourcetype";

// Takes the first line, without its line end, off the text.
std::string_view take_line(std::string_view* text) {
    const size_t newline = text->find('\n');
    const std::string_view line = text->substr(0, newline);
    text->remove_prefix(newline == std::string_view::npos ? text->size() : newline + 1);
    return record_text(line);
}

// The line is without colours.
void parse_first(log_event_maker* maker, std::string_view line) {
    maker->formed = parse_log_line(*maker->format, line, &maker->context, &maker->first);
    if (!maker->first.has_time) return;
    maker->time = maker->first.time;
    maker->has_time = true;
    maker->from_file = false;
}

std::string_view host_of(const log_event_maker& maker) {
    return maker.host_fixed || maker.first.host.empty() ? std::string_view(maker.host) : maker.first.host;
}

// The fields as terms, and the numbers of values with a unit; `name` is scratch.
void add_fields(term_set* terms, const parsed_line& parsed, std::string* name) {
    for (const field_view& field : parsed.fields) {
        term_set_add_field(terms, field.name, field.value);
        double number = 0;
        if (may_have_unit(field.value) && unit_number(field.value, &number)) {
            name->assign(field.name).append(NUMBER_SUFFIX);
            term_set_add_field(terms, *name, unit_text(number));
        }
    }
}

}  // namespace

void log_event_note(log_event_maker* maker, std::string_view record) {
    parse_first(maker, uncoloured(record_text(parsed_part(*maker->format, record)), &maker->plain));
}

void log_event_look_ahead(log_event_maker* maker, const record_cut& cut, std::string_view records, int64_t otherwise) {
    const format_context before = maker->context;
    while (!maker->has_time && !records.empty()) {
        const size_t size = record_length(cut, records, true);
        log_event_note(maker, record_content(cut, records.substr(0, size), 1));
        records.remove_prefix(size);
    }
    maker->context = before;
    maker->from_file = !maker->has_time;
    if (!maker->has_time && !log_time_store(otherwise, 0, &maker->time)) maker->time = {};
    maker->has_time = true;
}

void log_event_fields(log_event_maker* maker, std::string_view record, std::vector<field_view>* fields) {
    std::string_view left = record = uncoloured(record, &maker->plain);
    const std::string_view part = parsed_part(*maker->format, record);
    left.remove_prefix(std::min(part.size() + 1, left.size()));
    parse_first(maker, record_text(part));
    *fields = maker->first.fields;
    while (!left.empty()) {
        parse_continued_line(take_line(&left), &maker->continued);
        fields->insert(fields->end(), maker->continued.fields.begin(), maker->continued.fields.end());
    }
}

void log_event_make(log_event_maker* maker, std::string_view record) {
    record = uncoloured(record, &maker->plain);
    std::string_view left = record;
    term_set* const terms = &maker->terms;
    term_set_reset(terms);
    const std::string_view part = parsed_part(*maker->format, record);
    left.remove_prefix(std::min(part.size() + 1, left.size()));
    parse_first(maker, record_text(part));
    const std::string_view text =
        maker->format->is_json ? uncoloured(json_text(record, &maker->decoded), &maker->decoded) : record;
    term_set_add_text(terms, text);
    if (maker->with_parts) term_set_add_parts(terms, text);
    maker->line_host = host_of(*maker);
    term_set_add_field(terms, HOST, maker->line_host);
    term_set_add_field(terms, SOURCE, maker->source);
    term_set_add_field(terms, SOURCETYPE, maker->sourcetype);
    add_fields(terms, maker->first, &maker->decoded);
    while (!left.empty()) {
        parse_continued_line(take_line(&left), &maker->continued);
        add_fields(terms, maker->continued, &maker->decoded);
    }
}

}  // namespace veldar::tool

#include "tools/libveldar/load/event_terms.h"

#include "tools/libveldar/store/record_reader.h"

namespace veldar::tool {

namespace {

// The record of the event, the part of it that is indexed, with the maker as it was at its load; false when it cannot
// be read.
bool prepare(event_terms* terms, const event_t& event, std::string_view* text) {
    const raw_record* const record = event_source_record(terms->source, event);
    if (record == nullptr) return false;
    const event_source& source = *terms->source;
    log_event_maker* const maker = &terms->maker;
    const line_format* const format = format_by_record(record->file->format, &maker->context);
    maker->format = format != nullptr ? format : format_by_name("text");
    // The index has the numbers of the names that the event got, whichever options the load had.
    maker->host = event_source_name(source.hosts, event.value.h);
    maker->host_fixed = true;
    maker->source = event_source_name(source.sources, event.value.s);
    maker->sourcetype = event_source_name(source.sourcetypes, event.value.st);
    *text = std::string_view(record->text).substr(0, RECORD_MAX);
    return true;
}

}  // namespace

std::span<const std::string_view> event_terms_of(event_terms* terms, const event_t& event, bool* is_known) {
    std::string_view text;
    *is_known = prepare(terms, event, &text);
    if (!*is_known) return {};
    log_event_make(&terms->maker, text);
    return term_set_terms(&terms->maker.terms);
}

std::span<const field_view> event_fields_of(event_terms* terms, const event_t& event) {
    std::string_view text;
    terms->fields.clear();
    if (prepare(terms, event, &text)) log_event_fields(&terms->maker, text, &terms->fields);
    return terms->fields;
}

}  // namespace veldar::tool

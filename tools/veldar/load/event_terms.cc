#include "tools/veldar/load/event_terms.h"

#include "tools/veldar/store/record_reader.h"

namespace veldar::tool {

std::span<const std::string_view> event_terms_of(event_terms* terms, const event_t& event, bool* is_known) {
    const raw_record* const record = event_source_record(terms->source, event);
    *is_known = record != nullptr;
    if (record == nullptr) return {};
    const event_source& source = *terms->source;
    log_event_maker* const maker = &terms->maker;
    const line_format* const format = format_by_record(record->file->format, &maker->context);
    maker->format = format != nullptr ? format : format_by_name("text");
    // The index has the numbers of the names that the event got, whichever options the load had.
    maker->host = event_source_name(source.hosts, event.value.h);
    maker->host_fixed = true;
    maker->source = event_source_name(source.sources, event.value.s);
    maker->sourcetype = event_source_name(source.sourcetypes, event.value.st);
    log_event_make(maker, std::string_view(record->text).substr(0, RECORD_MAX));
    return term_set_terms(&maker->terms);
}

}  // namespace veldar::tool

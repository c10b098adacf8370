#include "tools/libveldar/load/event_record.h"

#include <algorithm>
#include <array>

#include "tools/libveldar/formats/terms.h"

namespace veldar::tool {

namespace {

// Names of columns that every event has: a field of such a name is not told apart from them.
bool is_column(std::string_view name) {
    constexpr std::array<std::string_view, 7> COLUMNS = {"time",      "host",    "source", "sourcetype",
                                                         "directory", "address", "raw"};
    return std::find(COLUMNS.begin(), COLUMNS.end(), name) != COLUMNS.end();
}

std::string_view name_of(const std::vector<std::string>& names, uint32_t number, std::string* scratch) {
    if (number < names.size()) return names[number];
    *scratch = std::to_string(number);
    return *scratch;
}

void read_fields(event_reader* reader, const event_t& event) {
    event_fields* const all = &reader->record.fields;
    reader->terms.source = reader->source;
    for (const field_view& field : event_fields_of(&reader->terms, event)) {
        const std::string name = fold_value(field.name);
        if (is_column(name) || field.value.empty()) continue;
        auto known = std::find_if(all->begin(), all->end(), [&](const auto& one) { return one.first == name; });
        if (known == all->end()) known = all->insert(all->end(), {name, {}});
        const bool is_new = std::find(known->second.begin(), known->second.end(), field.value) == known->second.end();
        if (is_new) known->second.emplace_back(field.value);
    }
}

void read_lines(event_reader* reader, const event_t& event, const raw_record& found) {
    event_record* const record = &reader->record;
    record->path = found.path;
    record->offset = found.offset;
    record->size = found.size;
    event_source_context(reader->source, event, reader->lines_before, reader->lines_after, &record->before,
                         &record->after);
}

}  // namespace

const event_record& event_record_of(event_reader* reader, const event_t& event) {
    event_record* const record = &reader->record;
    event_source* const source = reader->source;
    const auto wants = [reader](unsigned part) { return (reader->parts & part) != 0; };
    record->time = event.value.time;
    record->nanoseconds = event.value.subsecond;
    record->address = event.value.address;
    record->directory = source->slices->directories[event.source].name;
    record->is_metric = event.is_metric;
    record->has_raw = false;
    record->raw = {};
    record->fields.clear();
    record->before.clear();
    record->after.clear();
    if (wants(EVENT_NAMES)) {
        record->host = name_of(source->hosts, event.value.h, &record->host_number);
        record->source = name_of(source->sources, event.value.s, &record->source_number);
        record->sourcetype = name_of(source->sourcetypes, event.value.st, &record->sourcetype_number);
    }
    if (!reader->has_raw) return *record;
    if (wants(EVENT_FRACTION) && record->nanoseconds == 0 && !event.is_metric) {
        static_cast<void>(event_source_fraction(source, event, &record->nanoseconds, false));
    }
    if (wants(EVENT_FIELDS)) read_fields(reader, event);
    const raw_record* const found =
        wants(EVENT_RAW) || wants(EVENT_LINES) ? event_source_record(source, event) : nullptr;
    if (found == nullptr) return *record;
    if (wants(EVENT_LINES)) read_lines(reader, event, *found);
    record->has_raw = true;
    record->raw = found->text;
    return *record;
}

}  // namespace veldar::tool

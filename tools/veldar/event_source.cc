#include "tools/veldar/event_source.h"

#include <algorithm>

#include "tools/veldar/store.h"

namespace veldar {

namespace {

raw_reader* reader_of(event_source* source, uint32_t directory) {
    if (source->readers.size() <= directory) {
        source->readers.resize(directory + 1);
        source->unreadable.resize(directory + 1);
    }
    raw_reader_ptr& reader = source->readers[directory];
    if (reader == nullptr && !source->unreadable[directory]) {
        std::string error;
        reader = raw_reader_open(source->slices->directories[directory].path, &error);
        source->unreadable[directory] = reader == nullptr;
        if (reader == nullptr) troubles_add(source->trouble, error);
    }
    return reader.get();
}

}  // namespace

void event_source_open(event_source* source, const slice_set* slices, troubles* trouble) {
    source->slices = slices;
    source->trouble = trouble;
}

void event_source_read_names(event_source* source) {
    const std::string& store = source->slices->store;
    if (store.empty() || source->slices->directories.empty()) return;
    const bool read = store_read_names(store, "hosts", &source->hosts) &&
                      store_read_names(store, "sources", &source->sources) &&
                      store_read_names(store, "sourcetypes", &source->sourcetypes);
    if (!read) troubles_add(source->trouble, store + ": the names of hosts and sources cannot be read");
}

bool event_source_knows_raw(const slice_set& slices) {
    return std::all_of(slices.directories.begin(), slices.directories.end(),
                       [](const slice_directory& directory) { return directory.has_sources; });
}

const raw_record* event_source_record(event_source* source, const stream_event& event) {
    const bool same =
        source->has_record && source->directory == event.directory && source->address == event.value.address;
    if (same) return &source->record;
    source->has_record = false;
    raw_reader* const reader = reader_of(source, event.directory);
    if (reader == nullptr) return nullptr;
    std::string error;
    if (!raw_reader_fetch(reader, event.value.address, &source->record, &error)) {
        troubles_add(source->trouble, error);
        return nullptr;
    }
    source->has_record = true;
    source->directory = event.directory;
    source->address = event.value.address;
    return &source->record;
}

bool event_source_context(event_source* source, const stream_event& event, uint32_t before, uint32_t after,
                          std::vector<std::string>* lines_before, std::vector<std::string>* lines_after) {
    raw_reader* const reader = reader_of(source, event.directory);
    std::string error;
    if (reader == nullptr) return false;
    if (raw_reader_context(reader, event.value.address, before, after, lines_before, lines_after, &error)) return true;
    troubles_add(source->trouble, error);
    return false;
}

void stream_check_raw(event_stream* stream, event_source* source) {
    if (!stream->query->needs_raw()) return;
    if (!event_source_knows_raw(stream->slices)) {
        throw tool_failure{
            EXIT_USAGE,
            "a phrase, or a word with other characters than letters, digits, '_', '.' and '-', is looked "
            "for in the events' text, and there is no source map beside these slices"};
    }
    stream->passes = [stream, source, scratch = std::string()](const stream_event& event) mutable {
        const raw_record* const record = event_source_record(source, event);
        return record != nullptr && record_passes(stream->query->plans[event.plan], record->text, &scratch);
    };
}

std::string event_source_name(const std::vector<std::string>& names, uint32_t number) {
    return number < names.size() ? names[number] : std::to_string(number);
}

}  // namespace veldar

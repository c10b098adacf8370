#include "tools/libveldar/query/event_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/libveldar/formats/json_text.h"
#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/formats/uncoloured.h"
#include "tools/libveldar/formats/user_formats.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

constexpr uint64_t NANOSECONDS = 1000000000;
constexpr uint32_t NEIGHBOURS = 1000;  // lines around a record without a time in which its time is looked for

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

// The fraction of the time that a record begins with; false when it says no time.
bool has_fraction(const line_format& format, format_context* context, std::string_view record, uint64_t* nanoseconds) {
    parsed_line parsed;
    std::string plain;
    parse_log_line(format, uncoloured(parsed_part(format, record), &plain), context, &parsed);
    if (parsed.has_time) *nanoseconds = parsed.time.time_ns;
    return parsed.has_time;
}

// Whether slices of events lie where no log can be read. Those of metrics keep all that is known of a time.
bool keep_whole_seconds(const slice_set& slices) {
    std::vector<bool> asked(slices.directories.size());
    for (size_t i = 0; i < slices.slices->size(); i++) {
        const uint32_t directory = slices.slices->source(i);
        snapshot_slice_ptr warm;
        std::string error;
        if (asked[directory] || slices.directories[directory].has_sources) continue;
        if (slice_open(slices, i, &warm, &error) != SLICE_OPEN) continue;
        asked[directory] = true;
        if (!st_warm_slice_is_msidx(warm->body)) return true;
    }
    return false;
}

// The text in which phrases are looked for: the record's, and what its colours and the escapes of JSON hide.
std::string_view searched_text(const raw_record& record, std::string* scratch) {
    format_context context;
    const line_format* const format = format_by_record(record.file->format, &context);
    std::string decoded;
    std::string_view text = record.text;
    if (format != nullptr && format->is_json) text = json_text(text, &decoded);
    text = uncoloured(text, &decoded);
    if (text.data() == record.text.data()) return text;
    scratch->assign(record.text).append("\n").append(text);
    return *scratch;
}

}  // namespace

void event_source_open(event_source* source, const slice_set* slices, troubles* trouble) {
    source->slices = slices;
    source->trouble = trouble;
    // Events of formats that are not known any more are told as text.
    std::string fault;
    if (const std::string path = user_formats_path(); !path.empty()) static_cast<void>(user_formats_read(path, &fault));
}

void event_source_read_names(event_source* source) {
    const std::string& store = source->slices->store;
    if (store.empty() || source->slices->directories.empty()) return;
    const bool read = store_read_names(store, "hosts", &source->hosts) &&
                      store_read_names(store, "sources", &source->sources) &&
                      store_read_names(store, "sourcetypes", &source->sourcetypes);
    if (read) return;
    troubles_add(source->trouble, store + ": the names of hosts and sources cannot be read: " + std::strerror(errno));
}

bool event_source_knows_raw(const slice_set& slices) {
    return std::all_of(slices.directories.begin(), slices.directories.end(),
                       [](const slice_directory& directory) { return directory.has_sources; });
}

const raw_record* event_source_record(event_source* source, const event_t& event) {
    const bool same = source->has_record && source->directory == event.source && source->address == event.value.address;
    if (same) return &source->record;
    source->has_record = false;
    raw_reader* const reader = reader_of(source, event.source);
    if (reader == nullptr) return nullptr;
    std::string error;
    if (!raw_reader_fetch(reader, event.value.address, &source->record, &error)) {
        troubles_add(source->trouble, error);
        return nullptr;
    }
    source->has_record = true;
    source->directory = event.source;
    source->address = event.value.address;
    return &source->record;
}

bool event_source_context(event_source* source, const event_t& event, uint32_t before, uint32_t after,
                          std::vector<std::string>* lines_before, std::vector<std::string>* lines_after) {
    const raw_record* const record = event_source_record(source, event);
    if (record == nullptr) return false;
    raw_reader* const reader = reader_of(source, event.source);
    std::string error;
    if (raw_reader_context(reader, *record, before, after, lines_before, lines_after, &error)) return true;
    troubles_add(source->trouble, error);
    return false;
}

bool event_source_fraction(event_source* source, const event_t& event, uint64_t* nanoseconds, bool asked_too) {
    const raw_record* const record = event_source_record(source, event);
    if (record == nullptr) return false;
    format_context context;
    const line_format* const format = format_by_record(record->file->format, &context);
    context.boot_s = 0;  // whole seconds change no fraction
    context.modified_s = static_cast<int64_t>(record->file->modified_ns / NANOSECONDS);
    *nanoseconds = 0;
    if (format == nullptr || has_fraction(*format, &context, record->text, nanoseconds) || !asked_too) return true;
    std::vector<std::string> before, after;
    if (!event_source_context(source, event, NEIGHBOURS, NEIGHBOURS, &before, &after)) return false;
    std::reverse(before.begin(), before.end());
    for (const std::vector<std::string>& lines : {before, after}) {
        for (const std::string& line : lines) {
            if (begins_record(line) && has_fraction(*format, &context, line, nanoseconds)) return true;
        }
    }
    return true;
}

namespace {

// Refuses a query that only the raw records can answer where there are none.
void require_raw(const prepared_query& query, const slice_set& slices) {
    if (query.needs_raw() && !event_source_knows_raw(slices)) {
        throw failure_t{OUTCOME_USAGE,
                        "a phrase, or a word with other characters than letters, digits, '_', '.' and '-', is looked "
                        "for in the events' text, and there is no source map beside these slices"};
    }
    if (query.cuts_a_second() && keep_whole_seconds(slices)) {
        throw failure_t{OUTCOME_USAGE,
                        "these slices keep whole seconds, and there is no source map beside them: give " +
                            input_name("since") + " and " + input_name("until") + " without fractions"};
    }
}

bool passes_raw(const prepared_query& query, event_source* source, const event_t& event) {
    if (query.cuts(event.value.time)) {
        st_timeval_t time = {event.value.time, event.value.subsecond};
        if (!event.is_metric && !event_source_fraction(source, event, &time.time_ns)) return false;
        if (!query.holds(time)) return false;
    }
    const query_plan& plan = query.plans[event.query];
    if (!plan.needs_raw()) return true;
    const raw_record* const record = event_source_record(source, event);
    return record != nullptr && record_passes(plan, searched_text(*record, &source->searched), &source->scratch);
}

}  // namespace

event_cursor_ptr events_open(const prepared_query& query, uint64_t limit, event_source* source) {
    event_cursor_options_t options;
    options.sources = slices_sources(*source->slices);
    for (const query_plan& plan : query.plans) options.queries.push_back(query_of_plan(query, plan));
    options.limit = limit;
    options.on_failure = slices_hear(source->trouble);
    slices_tell_errors(*source->slices, source->trouble);
    require_raw(query, *source->slices);
    if (query.needs_raw() || query.cuts_a_second()) {
        options.passes = [&query, source](const event_t& event) { return passes_raw(query, source, event); };
    }
    warm_rc_t rc;
    event_cursor_ptr cursor = event_cursor_open(options, &rc);
    if (cursor == nullptr) slice_fail_unless_told(rc);
    if (cursor == nullptr) throw failure_t{OUTCOME_IO, slice_error(source->slices->path, rc)};
    return cursor;
}

bool events_next(event_cursor_t* cursor, event_t* event) {
    warm_rc_t rc;
    const int count = event_cursor_next(cursor, {event, 1}, &rc);
    if (count < 0) slice_fail_unless_told(rc);
    if (count < 0) throw failure_t{OUTCOME_IO, rc.message};
    return count > 0;
}

std::string event_source_name(const std::vector<std::string>& names, uint32_t number) {
    return number < names.size() ? names[number] : std::to_string(number);
}

}  // namespace veldar::tool

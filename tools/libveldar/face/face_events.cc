// veldar.h: the events that a query finds, one by one and as tables.
#include <algorithm>
#include <optional>
#include <span>
#include <utility>

#include "tools/libveldar/face/face.h"
#include "tools/libveldar/formats/terms.h"
#include "tools/libveldar/load/event_terms.h"
#include "tools/libveldar/query/event_source.h"
#include "tools/libveldar/store/slices.h"

using namespace veldar::tool;

struct veldar_events {
    veldar_store* store = nullptr;
    uint64_t id = 0;  // of these alone in the process
    prepared_query query;
    slice_set slices;
    troubles trouble;
    event_source source;
    event_terms terms;
    veldar::event_cursor_ptr cursor;  // goes before what it borrows
    bool knows_raw = false;
    bool has_event = false;
    veldar::event_t event = {};
    std::optional<failure_t> failure;                              // which ended them: every further call fails so
    uint64_t left = UINT64_MAX;                                    // of the limit
    std::vector<std::pair<std::string, std::string_view>> fields;  // of the event, once asked for
    bool has_fields = false;
    std::string scratch;
};

namespace {

bool next(veldar_events* events) {
    events->has_fields = false;
    if (events->failure) throw *events->failure;
    try {
        events->has_event = events->left > 0 && events_next(events->cursor.get(), &events->event);
    } catch (const failure_t& failure) {
        events->has_event = false;
        events->failure = failure;
        throw;
    }
    if (events->has_event) events->left--;
    return events->has_event;
}

veldar_status at_end(const veldar_events* events, const face_call& call) {
    return events->trouble.incomplete ? call.end(OUTCOME_INCOMPLETE, &events->trouble) : VELDAR_END;
}

void require_event(const veldar_events* events) {
    if (!events->has_event) throw failure_t{OUTCOME_USAGE, "no event was read"};
}

int64_t full_time(veldar_events* events) {
    uint64_t nanoseconds = events->event.value.subsecond;
    if (nanoseconds == 0 && events->knows_raw && !events->event.is_metric) {
        static_cast<void>(event_source_fraction(&events->source, events->event, &nanoseconds, false));
    }
    return time_ns_of(events->event.value.time, nanoseconds);
}

// Null when the record cannot be read.
const raw_record* record_of(veldar_events* events) {
    return events->knows_raw ? event_source_record(&events->source, events->event) : nullptr;
}

// Under the names that queries have for them, each value once.
void read_fields(veldar_events* events) {
    events->fields.clear();
    for (const field_view& field : event_fields_of(&events->terms, events->event)) {
        const std::pair<std::string, std::string_view> found = {fold_value(field.name), field.value};
        const bool known = std::find(events->fields.begin(), events->fields.end(), found) != events->fields.end();
        if (!known && !field.value.empty()) events->fields.push_back(found);
    }
    events->has_fields = true;
}

std::string name_of(const veldar_events* events, veldar_part part) {
    const event_source& source = events->source;
    const veldar::st_tsval& value = events->event.value;
    switch (part) {
        case VELDAR_HOST:
            return event_source_name(source.hosts, value.h);
        case VELDAR_SOURCE:
            return event_source_name(source.sources, value.s);
        case VELDAR_SOURCETYPE:
            return event_source_name(source.sourcetypes, value.st);
        default:
            return events->slices.directories[events->event.source].name;
    }
}

constexpr unsigned EVERYTHING = VELDAR_TIMES | VELDAR_RAWS | VELDAR_NAMES;
enum column_t { TIME, RAW, FIRST_NAME, ADDRESS = FIRST_NAME + 4 };
constexpr veldar_part NAMES[] = {VELDAR_HOST, VELDAR_SOURCE, VELDAR_SOURCETYPE, VELDAR_DIRECTORY};

// The row of the event at hand, in the columns of `with`.
void put_parts(veldar_events* events, unsigned with, veldar_table* table) {
    if ((with & VELDAR_TIMES) != 0) column_put(&table->columns[TIME], full_time(events));
    if ((with & VELDAR_RAWS) != 0) {
        veldar_table::column* const raw = &table->columns[RAW];
        const raw_record* const record = record_of(events);
        record == nullptr ? column_put_nothing(raw) : column_put(raw, std::string_view(record->text));
    }
    for (size_t i = 0; (with & VELDAR_NAMES) != 0 && i < std::size(NAMES); i++) {
        column_put(&table->columns[FIRST_NAME + i], std::string_view(name_of(events, NAMES[i])));
    }
}

// Texts of rows that have none.
void leave_out(size_t rows, veldar_table::column* column) {
    column->offsets.assign(rows + 1, 0);
    column->valid.assign(rows, 0);
    column->has_gaps = rows > 0;
}

void empty(veldar_table::column* column) {
    column->ints.clear();
    column->offsets.assign(1, 0);
    column->bytes.clear();
    column->valid.clear();
    column->has_gaps = false;
}

void require_parts(unsigned with) {
    if ((with & ~EVERYTHING) != 0) throw failure_t{OUTCOME_USAGE, "no such parts of events"};
}

}  // namespace

extern "C" {

veldar_status veldar_search(veldar_store* store, const veldar_query* query, uint64_t limit, veldar_events** events) {
    *events = nullptr;
    return face_run(&store->hearing, [&](const face_call&) {
        auto made = std::make_unique<veldar_events>();
        static std::atomic<uint64_t> begun = 0;
        made->store = store;
        made->id = ++begun;
        made->query = query_prepare(query_from(query));
        made->slices = slices_list(store->path, false);
        event_source_open(&made->source, &made->slices, &made->trouble);
        event_source_read_names(&made->source);
        made->terms.source = &made->source;
        made->cursor = events_open(made->query, limit, &made->source);
        made->knows_raw = event_source_knows_raw(made->slices);
        if (limit != 0) made->left = limit;
        *events = made.release();
        return VELDAR_OK;
    });
}

veldar_status veldar_events_next(veldar_events* events, veldar_event* event) {
    return face_run(&events->store->hearing, [&](const face_call& call) {
        if (!next(events)) return at_end(events, call);
        const veldar::event_t& found = events->event;
        record_to({.size = 0,
                   .time_ns = time_ns_of(found.value.time, found.value.subsecond),
                   .address = found.value.address,
                   .directory = found.source},
                  event);
        return VELDAR_OK;
    });
}

veldar_status veldar_event_text(veldar_events* events, veldar_part part, veldar_text* text) {
    *text = text_to({});
    return face_run(&events->store->hearing, [&](const face_call& call) {
        require_event(events);
        if (part == VELDAR_RAW) {
            if (!events->knows_raw) return VELDAR_END;
            const raw_record* const record = record_of(events);
            if (record == nullptr) return call.end(OUTCOME_INCOMPLETE, &events->trouble);
            *text = text_to(record->text);
            return VELDAR_OK;
        }
        if (part < VELDAR_RAW || part > VELDAR_DIRECTORY) throw failure_t{OUTCOME_USAGE, "no such part of an event"};
        events->scratch = name_of(events, part);
        *text = text_to(events->scratch);
        return VELDAR_OK;
    });
}

veldar_status veldar_event_time(veldar_events* events, int64_t* time_ns) {
    *time_ns = 0;
    return face_run(&events->store->hearing, [&](const face_call&) {
        require_event(events);
        *time_ns = full_time(events);
        return VELDAR_OK;
    });
}

veldar_status veldar_event_field(veldar_events* events, size_t number, veldar_text* name, veldar_text* value) {
    *name = *value = text_to({});
    return face_run(&events->store->hearing, [&](const face_call& call) {
        require_event(events);
        if (!events->knows_raw) return VELDAR_END;
        if (!events->has_fields && record_of(events) == nullptr) return call.end(OUTCOME_INCOMPLETE, &events->trouble);
        if (!events->has_fields) read_fields(events);
        if (number >= events->fields.size()) return VELDAR_END;
        *name = text_to(events->fields[number].first);
        *value = text_to(events->fields[number].second);
        return VELDAR_OK;
    });
}

veldar_status veldar_events_table(veldar_events* events, size_t rows, unsigned with, veldar_table** table) {
    *table = nullptr;
    return face_run(&events->store->hearing, [&](const face_call& call) {
        if (rows == 0) throw failure_t{OUTCOME_USAGE, "a table of no rows is asked for"};
        require_parts(with);
        auto made = std::make_unique<veldar_table>();
        made->events_id = events->id;
        table_column(made.get(), "time", VELDAR_TIME);
        for (const char* const name : {"raw", "host", "source", "sourcetype", "directory"}) {
            table_column(made.get(), name, VELDAR_TEXT);
        }
        table_column(made.get(), "address", VELDAR_UINT64);
        while (made->rows < rows && next(events)) {
            const veldar::st_tsval& value = events->event.value;
            put_parts(events, with, made.get());
            if ((with & VELDAR_TIMES) == 0) {
                column_put(&made->columns[TIME], time_ns_of(value.time, value.subsecond));
            }
            column_put(&made->columns[ADDRESS], uint64_t{value.address});
            made->events.push_back(events->event);
            made->rows++;
        }
        events->has_event = false;
        if ((with & VELDAR_RAWS) == 0) leave_out(made->rows, &made->columns[RAW]);
        for (size_t i = 0; (with & VELDAR_NAMES) == 0 && i < std::size(NAMES); i++) {
            leave_out(made->rows, &made->columns[FIRST_NAME + i]);
        }
        if (made->rows == 0) return at_end(events, call);
        *table = made.release();
        return VELDAR_OK;
    });
}

veldar_status veldar_events_fill(veldar_events* events, veldar_table* table, unsigned with) {
    return face_run(&events->store->hearing, [&](const face_call&) {
        if (table->events_id != events->id) throw failure_t{OUTCOME_USAGE, "the table is none of these events"};
        require_parts(with);
        events->has_event = events->has_fields = false;
        if ((with & VELDAR_TIMES) != 0) empty(&table->columns[TIME]);
        if ((with & VELDAR_RAWS) != 0) empty(&table->columns[RAW]);
        for (size_t i = 0; (with & VELDAR_NAMES) != 0 && i < std::size(NAMES); i++) {
            empty(&table->columns[FIRST_NAME + i]);
        }
        for (const veldar::event_t& event : table->events) {
            events->event = event;
            put_parts(events, with, table);
        }
        return VELDAR_OK;
    });
}

veldar_status veldar_events_row(veldar_events* events, const veldar_table* table, size_t row) {
    return face_run(&events->store->hearing, [&](const face_call&) {
        if (table->events_id != events->id || row >= table->events.size()) {
            throw failure_t{OUTCOME_USAGE, "the table has no such row of these events"};
        }
        events->event = table->events[row];
        events->has_event = true;
        events->has_fields = false;
        return VELDAR_OK;
    });
}

void veldar_events_close(veldar_events* events) {
    delete events;
}

}  // extern "C"

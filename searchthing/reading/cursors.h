// Cursors over many slices: one over events, one over terms. Each hands out what was live at one moment, in pieces.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/directory/tsidx.h"
#include "searchthing/lexicon/term_choice.h"
#include "searchthing/search/query.h"
#include "searchthing/values/st_tsval.h"

namespace veldar {

// Where a read goes: a directory, whose handle must outlive it, or one slice file, which need not belong to one.
struct cursor_source_t {
    TSIDX* tsidx = nullptr;  // null: a file
    std::string path;        // of the file
};

// Is told the path of a slice or directory that cannot be read, and why; from there on it is left out. May be told the
// same more than once. Want of memory, and the end
// that st_tsidx_set_read_stop calls for, always fail the read.
using cursor_failure_fn = std::function<void(const std::string& path, const warm_rc_t& rc)>;

// A cursor over the events of any number of directories and slices, newest first.
//
//   event_cursor_options_t options;
//   options.sources = {{.tsidx = st_directory(thing)}};
//   options.queries = {query};
//   const event_cursor_ptr cursor = event_cursor_open(options, &rc);
//   std::array<event_t, 64> events;
//   for (int n; (n = event_cursor_next(cursor.get(), events, &rc)) > 0;) ...
//
// Events of one time come by source, the last one first, then by address, descending. An event that lies in several
// slices of a source (one time and address) is given once, as the newest of the slices has it; an event of metrics is
// given as often as it is there: its address does not tell it from others.
//
// The cursor begins with the slices that were live at one moment; a handle for writing syncs first. A slice is opened
// when the events have reached its latest time, and read no further than events are asked for. When one has gone before
// it was opened, the cursor lists its sources again and goes on with what there is behind the event given last.
//
// A cursor is used by one thread at a time, the one that uses its directories, which may be used for other reads
// meanwhile.

struct event_t {
    st_tsval value;
    uint32_t source;  // its number in the options
    uint32_t query;   // the first one that finds it
    bool is_metric;   // its fraction of a second is all there is
};

// Where a cursor stands: behind this event and all that come before it.
struct event_position_t {
    bool is_set = false;  // else before the first event
    st_timeval_t time;
    uint32_t source = 0;
    uint32_t address = 0;
    uint64_t metrics = 0;  // how many events of metrics of this time and source have come
};

struct event_cursor_options_t {
    std::vector<cursor_source_t> sources;
    std::vector<st_query_spec> queries;  // the texts are borrowed; an event that several find is given once
    const char* term =
        nullptr;             // instead of the queries' texts: the events with exactly this term ("*" is a character)
    uint64_t limit = 0;      // how many events will be asked for, 0 for all: a hint
    bool is_exact = true;    // else a superset of the match (warmslice_search.h)
    event_position_t after;  // where to go on
    std::function<bool(const event_t&)> passes;  // decides what the index cannot; null: every event passes
    cursor_failure_fn on_failure;                // null: what cannot be read fails the cursor
};

struct event_cursor_t;
struct event_cursor_closer {
    void operator()(event_cursor_t* cursor) const;
};
using event_cursor_ptr = std::unique_ptr<event_cursor_t, event_cursor_closer>;

// A cursor before the first event. Null with the reason in `rc`: a status of parse_query (parsed_query.h), or the
// failure to list a directory. The failure of a directory is in st_tsidx_last_failure, too.
event_cursor_ptr event_cursor_open(const event_cursor_options_t& options, warm_rc_t* rc);

// Fills the array with the next events. Their number, less than asked for at the end alone; or the failure of a slice
// or directory, or WARM_RC_RETRIES when slices go faster than they can be opened, and then the cursor is at its end.
[[nodiscard]] int event_cursor_next(event_cursor_t* cursor, std::span<event_t> events, warm_rc_t* rc);

event_position_t event_cursor_position(const event_cursor_t* cursor);

// A cursor over the terms of any number of directories and slices: each term once, ascending, with what the metadata of
// all slices say of it added up.
//
//   term_cursor_options_t options;
//   options.sources = {{.tsidx = st_directory(thing)}};
//   options.choice.prefix = "host::";
//   const term_cursor_ptr cursor = term_cursor_open(options, &rc);
//   std::string_view term;
//   while (term_cursor_next(cursor.get(), &term, &rc) == 0 && term.data() != nullptr) ...
//
// It reads the slices that were live at one moment, all of which it keeps open, a descriptor each; a handle for writing
// syncs first. Memory is bounded whatever the number of terms: at most 8 MiB of lexicon pieces, and 16 KiB a slice. A
// cursor is used by one thread at a time, the one that uses its directories.

struct term_cursor_options_t {
    std::vector<cursor_source_t> sources;
    term_choice_t choice;          // metadata are read for terms that it takes alone; `after` resumes
    cursor_failure_fn on_failure;  // null: what cannot be read, minified slices too, fails the cursor
};

struct term_cursor_t;
struct term_cursor_closer {
    void operator()(term_cursor_t* cursor) const;
};
using term_cursor_ptr = std::unique_ptr<term_cursor_t, term_cursor_closer>;

// A cursor before the first term. Null with the reason in `rc`: a failure to list a directory or to open a slice, or
// WARM_RC_RETRIES when slices go faster than they can be opened. The failure of a directory is in
// st_tsidx_last_failure, too.
term_cursor_ptr term_cursor_open(const term_cursor_options_t& options, warm_rc_t* rc);

// Moves to the next term, NUL-terminated and valid until the cursor moves; a null view after the last one. 0, or the
// failure of a slice, and then the cursor is at its end.
[[nodiscard]] int term_cursor_next(term_cursor_t* cursor, std::string_view* term, warm_rc_t* rc);

// What the slices say of the term. 0, or the failure of a slice; one that `on_failure` hears of does not count.
[[nodiscard]] int term_cursor_totals(term_cursor_t* cursor, term_totals_t* totals, warm_rc_t* rc);

}  // namespace veldar

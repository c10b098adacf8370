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
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/slice/term_choice.h"

namespace veldar {

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

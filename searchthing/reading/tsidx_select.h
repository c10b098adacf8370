// Selections over any number of directories and slices: counts and aggregates by bins of time and groups.
//
//   select_options_t options;
//   options.sources = {{.tsidx = st_directory(thing), .path = {}}};
//   options.query = query;  // with opt_span for bins
//   options.spec.groups = {"status"};
//   options.spec.projections = {{"bytes", SELECT_AVG | SELECT_MAX}};
//   select_table_t table;
//   if (select_read(options, &table, nullptr, &rc) == 0) {
//       for (size_t i = 0; i < table.rows.size(); i++) { const select_row_t row = select_table_row(table, i); ... }
//   }
//
// Each source is read at one moment; a handle for writing syncs first. When a slice has gone before it was opened, its
// directory is read anew. An event that lies in several slices is counted in each of them until they are merged.
// Deleted events are not counted. Slices are read one at a time, newest first; memory is that of the table, of a bit an
// event of the slice, and of the terms of the fields asked for; for several fields at once also 4 bytes an event and
// field, 2^20 events at a time.
#pragma once

#include <memory>

#include "searchthing/reading/tsidx_snapshot.h"
#include "searchthing/search/query.h"
#include "searchthing/search/select_spec.h"
#include "searchthing/search/select_table.h"

namespace veldar {

struct select_options_t {
    std::vector<cursor_source_t> sources;
    st_query_spec query;  // its text is borrowed
    select_spec_t spec;
    cursor_failure_fn on_failure;  // null: what cannot be read fails the selection. Want of memory and the limits of
                                   // bins and cells always do
};

// Fills a finished table (select_table_finish). 0; a status of parse_query for a text that is no query, and
// WARM_RC_TOKEN_TOO_BIG "token too big" for a literal over 2,048 bytes; a failure of select_spec_check,
// select_bins_open, select_bins_check or warm_slice_select; the failure to list a directory or to open a slice;
// WARM_RC_RETRIES when slices go faster than they can be opened. The failure of a directory is in
// st_tsidx_last_failure, too. `report` may be null.
[[nodiscard]] int select_read(const select_options_t& options, select_table_t* table, select_report_t* report,
                              warm_rc_t* rc);

// A selection over one directory whose rows are read one after the other. The handle keeps copies of the query
// and the fields.
struct st_select_handle;
// Nothing is read yet. Null without memory, which is logged. The directory must outlive the handle.
st_select_handle* st_tsidx_select_handle_new(TSIDX* tsidx, const st_query_spec* query, const select_spec_t* spec);
// The next row, sorted by bin, then group texts: 1; 0 after the last one; or a failure of select_read, which every
// further call repeats. The first call does the work. The row is valid until the handle is freed.
[[nodiscard]] int st_tsidx_select_handle_read(st_select_handle* handle, select_row_t* row);
// Why the last read failed, and what the selection did.
const warm_rc_t* st_tsidx_select_handle_failure(const st_select_handle* handle);
const select_report_t* st_tsidx_select_handle_report(const st_select_handle* handle);
void st_tsidx_select_handle_free(st_select_handle* handle);  // null is allowed

}  // namespace veldar

#include "searchthing/reading/tsidx_select.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "searchthing/base/log.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/search/select_slice.h"

namespace veldar {

namespace {

// One selection while it reads its sources.
struct selection_read {
    const select_options_t& options;
    const parsed_query_t& query;
    const select_bins_t& bins;
};

// Whether a failure is the selection's, whatever is to happen to slices that cannot be read.
bool is_of_selection(int status) {
    return status == WARM_RC_NO_MEMORY || status == WARM_RC_TIME_BINS_LIMIT || status == WARM_RC_CAPACITY ||
           status == WARM_RC_LEGACY_PROJECTION;
}

// A failure of one slice: 0 when it was told and the slice is left out. The table must hold nothing of it.
int fail(const selection_read& read, const std::string& path, const warm_rc_t& why, warm_rc_t* rc) {
    if (!read.options.on_failure || is_of_selection(why.warm_rc)) return _cpy_rc(rc, &why);
    read.options.on_failure(path, why);
    return 0;
}

int check_times(const selection_read& read, st_time_t first, st_time_t last, warm_rc_t* rc) {
    const st_query_spec& query = read.query.spec;
    const int64_t earliest = select_time({std::max(first, query.earliest.time_s), 0});
    const int64_t latest = select_time({std::min(last, query.latest.time_s), 0});
    return select_bins_check(read.bins, earliest, latest, rc);
}

// Adds one open slice to a table, all of it or nothing.
int add_slice(const selection_read& read, WARM* warm, select_table_t* table, select_report_t* report, warm_rc_t* rc) {
    const select_spec_t& spec = read.options.spec;
    if (!read.options.on_failure) return warm_slice_select(warm, read.query, spec, read.bins, table, report, rc);
    select_table_t own;
    select_table_init(&own, spec);
    ST_TRY(warm_slice_select(warm, read.query, spec, read.bins, &own, report, rc));
    if (!table->rows.empty()) return select_table_merge(table, own, rc);
    *table = std::move(own);
    return 0;
}

int read_file(const selection_read& read, const std::string& path, select_table_t* table, select_report_t* report,
              warm_rc_t* rc) {
    warm_rc_t why;
    const warm_ptr warm(st_warm_slice_open_rdonly(path.c_str(), &why));
    if (warm == nullptr) return fail(read, path, why, rc);
    st_time_t first = st_warm_slice_earliest(warm.get()), last = st_warm_slice_latest(warm.get());
    ST_TRY(check_times(read, first, last, rc));
    return add_slice(read, warm.get(), table, report, &why) == 0 ? 0 : fail(read, path, why, rc);
}

// The slices of one listing: 0, TSIDX_VANISHED or a failure.
int64_t read_snapshot(const selection_read& read, tsidx_snapshot* snapshot, select_table_t* table,
                      select_report_t* report, warm_rc_t* rc) {
    const st_query_spec& query = read.query.spec;
    st_time_t first = TSIDX_LAST_TIME, last = TSIDX_FIRST_TIME;
    for (size_t i = 0; i < snapshot->size(); i++) {
        if (!snapshot->overlaps(i, query.earliest.time_s, query.latest.time_s)) continue;
        first = std::min(first, snapshot->slice(i).meta.earliest);
        last = std::max(last, snapshot->slice(i).meta.latest);
    }
    ST_TRY(check_times(read, first, last, rc));
    for (size_t i = 0; i < snapshot->size(); i++) {
        if (!snapshot->overlaps(i, query.earliest.time_s, query.latest.time_s)) continue;
        warm_rc_t why;
        int64_t status = snapshot->try_open(i, &why);
        if (status == TSIDX_VANISHED) return status;
        if (status == 0) status = add_slice(read, snapshot->warm(i), table, report, &why);
        snapshot->close(i);
        if (status == 0) continue;
        if (fail(read, snapshot->path(i), why, rc) != 0) return _cpy_rc(rc, (snapshot->fail(i, why), &why));
    }
    return 0;
}

int read_directory(const selection_read& read, TSIDX* tsidx, select_table_t* table, select_report_t* report,
                   warm_rc_t* rc) {
    bool is_of_slice = false;
    const select_report_t before = *report;
    const int64_t status = tsidx_over_snapshot(tsidx, [&](tsidx_snapshot& snapshot) -> int64_t {
        select_table_init(table, read.options.spec);
        *report = before;
        const int64_t result = read_snapshot(read, &snapshot, table, report, rc);
        is_of_slice = result != 0 && result != TSIDX_VANISHED;
        return result;
    });
    if (status == 0) return 0;
    if (is_of_slice) return static_cast<int>(status);
    // What is recorded with the directory: it could not be listed, or does not hold still.
    select_table_init(table, read.options.spec);
    *report = before;
    if (tsidx->last_failure.warm_rc == 0) _set_rc(&tsidx->last_failure, static_cast<int>(status));
    return fail(read, tsidx->path, tsidx->last_failure, rc);
}

int read_sources(const selection_read& read, select_table_t* table, select_report_t* report, warm_rc_t* rc) {
    for (const cursor_source_t& source : read.options.sources) {
        select_table_t part;
        select_table_init(&part, read.options.spec);
        if (source.tsidx == nullptr) {
            ST_TRY(read_file(read, source.path, &part, report, rc));
        } else {
            ST_TRY(read_directory(read, source.tsidx, &part, report, rc));
        }
        if (table->rows.empty()) {
            *table = std::move(part);
        } else {
            ST_TRY(select_table_merge(table, part, rc));
        }
    }
    select_table_finish(table);
    return 0;
}

int parse(const st_query_spec& query, parsed_query_t* parsed, warm_rc_t* rc) {
    const int status = parse_query(query_with_bounds(query), parsed, rc);
    return status == WARM_RC_DIMSET_BUFFER ? _set_rc_msg(rc, WARM_RC_TOKEN_TOO_BIG, "token too big") : status;
}

}  // namespace

int select_read(const select_options_t& options, select_table_t* table, select_report_t* report, warm_rc_t* rc) {
    select_report_t ignored;
    if (report == nullptr) report = &ignored;
    *report = {};
    try {
        parsed_query_t query;
        select_bins_t bins;
        ST_TRY(select_spec_check(options.spec, rc));
        ST_TRY(parse(options.query, &query, rc));
        ST_TRY(select_bins_open(&bins, query.spec, options.spec, rc));
        select_table_init(table, options.spec);
        if (tsidx_is_empty_range(query.spec)) return 0;
        ST_TRY(read_sources({options, query, bins}, table, report, rc));
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
    return 0;
}

struct query_copy_closer {
    void operator()(st_query_spec* query) const { st_query_free_copy(query); }
};

struct st_select_handle {
    TSIDX* tsidx = nullptr;
    std::unique_ptr<st_query_spec, query_copy_closer> query;
    select_spec_t spec;
    bool is_read = false;
    select_table_t table;
    size_t next = 0;
    select_report_t report;
    warm_rc_t rc;
};

st_select_handle* st_tsidx_select_handle_new(TSIDX* tsidx, const st_query_spec* query, const select_spec_t* spec) {
    try {
        auto handle = std::make_unique<st_select_handle>();
        handle->tsidx = tsidx;
        handle->query.reset(st_query_copy(query));
        handle->spec = *spec;
        if (handle->query != nullptr) return handle.release();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    _log(0, "ERROR st_select_handle_new: memory alloc failed %i\n", errno);
    return nullptr;
}

int st_tsidx_select_handle_read(st_select_handle* handle, select_row_t* row) {
    if (!handle->is_read) {
        handle->is_read = true;
        try {
            select_options_t options;
            options.sources = {{.tsidx = handle->tsidx, .path = {}}};
            options.query = *handle->query;
            options.spec = handle->spec;
            handle->rc.warm_rc = select_read(options, &handle->table, &handle->report, &handle->rc);
        } catch (const std::bad_alloc&) {
            _set_rc(&handle->rc, WARM_RC_NO_MEMORY);
        }
    }
    if (handle->rc.warm_rc != 0) return handle->rc.warm_rc;
    if (handle->next == handle->table.rows.size()) return 0;
    *row = select_table_row(handle->table, handle->next++);
    return 1;
}

const warm_rc_t* st_tsidx_select_handle_failure(const st_select_handle* handle) {
    return &handle->rc;
}
const select_report_t* st_tsidx_select_handle_report(const st_select_handle* handle) {
    return &handle->report;
}

void st_tsidx_select_handle_free(st_select_handle* handle) {
    delete handle;
}

}  // namespace veldar

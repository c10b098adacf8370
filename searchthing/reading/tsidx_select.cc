#include "searchthing/reading/tsidx_select.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/base/log.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/search/select_slice.h"

namespace veldar {

namespace {

// Whether a failure is the selection's, whatever is to happen to slices that cannot be read.
bool is_of_selection(int status) {
    return status == WARM_RC_NO_MEMORY || status == WARM_RC_TIME_BINS_LIMIT || status == WARM_RC_CAPACITY ||
           status == WARM_RC_LEGACY_PROJECTION;
}

// One selection over the slices of a snapshot.
class selection_read {
  public:
    selection_read(const select_options_t& options, const parsed_query_t& query, const select_bins_t& bins,
                   select_table_t* table, select_report_t* report)
        : options_(options), query_(query), bins_(bins), table_(table), report_(report) {}

    int run(warm_rc_t* rc) {
        tsidx_snapshot snapshot(options_.sources, options_.on_failure);
        const auto over_list = [&]() -> int64_t {
            select_table_init(table_, options_.spec);
            *report_ = {};
            return read(&snapshot, rc);
        };
        ST_TRY(static_cast<int>(snapshot.hold(over_list, rc)));
        select_table_finish(table_);
        return 0;
    }

  private:
    // 0, TSIDX_VANISHED or a failure.
    int64_t read(tsidx_snapshot* snapshot, warm_rc_t* rc) {
        const st_timeval_t &earliest = query_.spec.earliest, &latest = query_.spec.latest;
        ST_TRY(check_times(*snapshot, rc));
        bool is_over = false;
        const auto add = [&](size_t i, warm_rc_t* why) {
            const int status = add_slice(snapshot->warm(i), why);
            if (status == 0 || !is_of_selection(status)) return status;
            is_over = true;  // and nobody else is to hear of it
            _cpy_rc(rc, why);
            return tsidx_snapshot::END;
        };
        const int64_t status = snapshot->each(earliest.time_s, latest.time_s, add, rc);
        return is_over ? rc->warm_rc : status;
    }

    int check_times(const tsidx_snapshot& snapshot, warm_rc_t* rc) const {
        const st_timeval_t &earliest = query_.spec.earliest, &latest = query_.spec.latest;
        st_time_t first = TSIDX_LAST_TIME, last = TSIDX_FIRST_TIME;
        for (size_t i = 0; i < snapshot.size(); i++) {
            const st_filename_metadata_t& meta = snapshot.slice(i).meta;
            const bool tells_times = meta.earliest != TSIDX_FIRST_TIME || meta.latest != TSIDX_LAST_TIME;
            if (!tells_times || !snapshot.overlaps(i, earliest.time_s, latest.time_s)) continue;
            first = std::min(first, meta.earliest);
            last = std::max(last, meta.latest);
        }
        first = std::max(first, earliest.time_s);
        last = std::min(last, latest.time_s);
        return select_bins_check(bins_, select_time({first, 0}), select_time({last, 0}), rc);
    }

    // Adds one open slice to the table; where failures are only told, all of it or nothing.
    int add_slice(WARM* warm, warm_rc_t* rc) {
        const select_spec_t& spec = options_.spec;
        if (!options_.on_failure) return warm_slice_select(warm, query_, spec, bins_, table_, report_, rc);
        select_table_t own;
        select_table_init(&own, spec);
        ST_TRY(warm_slice_select(warm, query_, spec, bins_, &own, report_, rc));
        if (!table_->rows.empty()) return select_table_merge(table_, own, rc);
        *table_ = std::move(own);
        return 0;
    }

    const select_options_t& options_;
    const parsed_query_t& query_;
    const select_bins_t& bins_;
    select_table_t* table_;
    select_report_t* report_;
};

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
        ST_TRY(selection_read(options, query, bins, table, report).run(rc));
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
    return 0;
}

struct st_select_handle {
    TSIDX* tsidx = nullptr;
    query_copy_ptr query;
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
    ST_ASSERT(handle->is_read && handle->next <= handle->table.rows.size());
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

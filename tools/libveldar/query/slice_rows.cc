#include "tools/libveldar/query/slice_rows.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "searchthing/slice/warmslice_runs.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar::tool {

namespace {

// Of a name that does not tell, the times of the first and the last value.
void take_times(const st_filename_metadata_t& meta, WARM* warm, slice_row* row) {
    row->earliest = meta.earliest;
    row->latest = meta.latest;
    row->has_times = meta.earliest != TSIDX_FIRST_TIME || meta.latest != TSIDX_LAST_TIME;
    if (row->has_times || warm == nullptr || row->events == 0 || st_warm_slice_is_msidx(warm->body)) return;
    uint64_t subseconds = 0;
    warm_rc_t rc;
    const uint32_t last = st_warm_slice_values(warm) - 1;
    row->has_times = get_tsval_timestamp(warm, 0, &row->latest, &subseconds, &rc) == 0 &&
                     get_tsval_timestamp(warm, last, &row->earliest, &subseconds, &rc) == 0;
}

// False for a slice that is gone.
bool read_slice(const slice_set& set, size_t i, troubles* trouble, slice_row* row) {
    snapshot_slice_ptr warm;
    std::string error;
    const slice_state_t state = slice_open(set, i, &warm, &error);
    if (state == SLICE_VANISHED) return false;
    const std::string path = set.slices->path(i), name = path.substr(path.rfind('/') + 1);
    row->name = set.directories.size() > 1 ? set.directories[set.slices->source(i)].name + "/" + name : name;
    row->path = path;
    row->slices = 1;
    if (state == SLICE_UNREADABLE) {
        troubles_add(trouble, error);
        std::error_code unknown;
        const uint64_t bytes = std::filesystem::file_size(path, unknown);
        row->bytes = unknown ? 0 : bytes;
        row->format = "unreadable";
        row->readable = false;
    } else {
        row->bytes = warm->file_size;
        row->format = warm->body->magic;
        row->events = st_warm_slice_values(warm.get()) - warm_slice_runs(warm.get());
        row->deleted = warm_slice_count_deleted(warm.get());
        row->terms = st_warm_slice_terms(warm.get());
    }
    take_times(set.slices->slice(i).meta, warm.get(), row);
    return true;
}

void add_to_bucket(const slice_row& row, slice_row* bucket) {
    if (row.has_times) {
        bucket->has_times = true;
        bucket->earliest = std::min(bucket->earliest, row.earliest);
        bucket->latest = std::max(bucket->latest, row.latest);
    }
    bucket->slices++;
    bucket->events += row.events;
    bucket->deleted += row.deleted;
    bucket->terms += row.terms;
    bucket->bytes += row.bytes;
}

}  // namespace

std::vector<slice_row> slice_rows_read(const slice_set& set, bool buckets, troubles* trouble) {
    std::vector<slice_row> rows;
    for (const slice_directory& directory : set.directories) {
        if (!buckets) break;
        rows.emplace_back();
        rows.back().name = directory.name;
    }
    for (size_t i = 0; i < set.slices->size(); i++) {
        slice_row row;
        if (!read_slice(set, i, trouble, &row)) continue;
        if (buckets) {
            add_to_bucket(row, &rows[set.slices->source(i)]);
        } else {
            rows.push_back(row);
        }
    }
    for (slice_row& row : rows) {
        if (buckets) row.format = fmt::format("{} slice{}", row.slices, row.slices == 1 ? "" : "s");
    }
    return rows;
}

}  // namespace veldar::tool

// veldar ls: the slices of a store, an index directory or a single file, or the directories with what is in them.
#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <vector>

#include "searchthing/slice/warmslice_runs.h"
#include "searchthing/slice/warmslice_values.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/slices.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct ls_options {
    std::string path;
    std::string zone, format = "table";
    bool buckets = false;
};

struct ls_row {
    std::string name;
    std::string format;  // the magic; of a directory how many slices it has
    bool has_times = false;
    st_time_t earliest = INT_MAX, latest = INT_MIN;
    bool readable = true;  // else nothing but times and bytes is known
    uint64_t slices = 0, events = 0, deleted = 0, terms = 0, bytes = 0;
};

// Of a name that does not tell, the times of the first and the last value.
void take_times(const st_filename_metadata_t& meta, WARM* warm, ls_row* row) {
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
bool read_slice(const slice_set& set, size_t i, troubles* trouble, ls_row* row) {
    snapshot_slice_ptr warm;
    std::string error;
    const slice_state_t state = slice_open(set, i, &warm, &error);
    if (state == SLICE_VANISHED) return false;
    const std::string path = set.slices->path(i), name = path.substr(path.rfind('/') + 1);
    row->name = set.directories.size() > 1 ? set.directories[set.slices->source(i)].name + "/" + name : name;
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

void add_to_bucket(const ls_row& row, ls_row* bucket) {
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

// One row a slice, newest first, or one a directory, oldest first.
std::vector<ls_row> read_rows(const slice_set& set, bool buckets, troubles* trouble) {
    std::vector<ls_row> rows;
    for (const slice_directory& directory : set.directories) {
        if (!buckets) break;
        rows.emplace_back();
        rows.back().name = directory.name;
    }
    for (size_t i = 0; i < set.slices->size(); i++) {
        ls_row row;
        if (!read_slice(set, i, trouble, &row)) continue;
        if (buckets) {
            add_to_bucket(row, &rows[set.slices->source(i)]);
        } else {
            rows.push_back(row);
        }
    }
    for (ls_row& row : rows) {
        if (buckets) row.format = fmt::format("{} slice{}", row.slices, row.slices == 1 ? "" : "s");
    }
    return rows;
}

std::string time_cell(const ls_row& row, st_time_t time, const log_zone& zone) {
    return row.has_times ? event_time_text(time, 0, zone) : "-";
}

std::string number_cell(const ls_row& row, uint64_t number) {
    return row.readable ? fmt::to_string(number) : "-";
}

void put_table(text_output* out, const std::vector<ls_row>& rows, bool buckets) {
    size_t width = 10;
    const int times = time_width(out->zone);
    for (const ls_row& row : rows) width = std::max(width, row.format.size());
    output_put(out, fmt::format("{:<{}}  {:<{}}  {:>10}  {:>8}  {:>9}  {:>12}  {:<{}}  {}\n", "earliest", times,
                                "latest", times, "events", "deleted", "terms", "bytes", buckets ? "slices" : "format",
                                width, buckets ? "directory" : "slice"));
    for (const ls_row& row : rows) {
        output_put(out,
                   fmt::format("{:<{}}  {:<{}}  {:>10}  {:>8}  {:>9}  {:>12}  {:<{}}  {}\n",
                               time_cell(row, row.earliest, out->zone), times, time_cell(row, row.latest, out->zone),
                               times, number_cell(row, row.events), number_cell(row, row.deleted),
                               number_cell(row, row.terms), row.bytes, row.format, width, row.name));
        output_end_record(out);
    }
}

void put_jsonl(text_output* out, const std::vector<ls_row>& rows, bool buckets) {
    for (const ls_row& row : rows) {
        std::string* const line = &out->bytes;
        *line += buckets ? "{\"directory\":" : "{\"slice\":";
        json_put_string(line, row.name);
        if (row.has_times) {
            *line += fmt::format(",\"earliest\":\"{}\",\"latest\":\"{}\"", event_time_text(row.earliest, 0, out->zone),
                                 event_time_text(row.latest, 0, out->zone));
        }
        if (row.readable) {
            *line += fmt::format(",\"events\":{},\"deleted\":{},\"terms\":{}", row.events, row.deleted, row.terms);
        }
        *line += fmt::format(",\"bytes\":{}", row.bytes);
        *line += buckets ? fmt::format(",\"slices\":{}", row.slices) : fmt::format(",\"format\":\"{}\"", row.format);
        *line += "}\n";
        output_end_record(out);
    }
}

int ls_run(const tool_context& context, const ls_options& options) {
    const slice_set slices = slices_list_all(context.path_or_store(options.path));
    troubles trouble;
    slices_tell_errors(slices, &trouble);
    const std::vector<ls_row> rows = read_rows(slices, options.buckets, &trouble);
    text_output out;
    output_open(&out, "never");
    out.zone = time_zone_of(options.zone);
    if (options.format == "jsonl") {
        put_jsonl(&out, rows, options.buckets);
    } else {
        put_table(&out, rows, options.buckets);
    }
    output_flush(&out);
    return trouble.status;
}

}  // namespace

void add_ls_command(const command& veldar) {
    static ls_options options;
    const command ls = veldar.subcommand("ls", "List slices, or the directories that hold them");
    ls.text("PATH", &options.path, "A store, an index directory or a slice (else the store)");
    ls.flag("-b,--buckets", &options.buckets, "One line a directory instead of one a slice");
    ls.text("--format", &options.format, "table or jsonl").one_of({"table", "jsonl"}).with_default();
    add_zone_option(ls, &options.zone);
    ls.run([](const tool_context& context) { return ls_run(context, options); });
}

}  // namespace veldar::tool

// veldar ls: the slices of a store, an index directory or a single file, or the directories with what is in them.
#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "tools/libveldar/query/slice_rows.h"
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

std::string time_cell(const slice_row& row, st_time_t time, const log_zone& zone) {
    return row.has_times ? event_time_text(time, 0, zone) : "-";
}

std::string number_cell(const slice_row& row, uint64_t number) {
    return row.readable ? fmt::to_string(number) : "-";
}

void put_table(text_output* out, const std::vector<slice_row>& rows, bool buckets) {
    size_t width = 10;
    const int times = time_width(out->zone);
    for (const slice_row& row : rows) width = std::max(width, row.format.size());
    output_put(out, fmt::format("{:<{}}  {:<{}}  {:>10}  {:>8}  {:>9}  {:>12}  {:<{}}  {}\n", "earliest", times,
                                "latest", times, "events", "deleted", "terms", "bytes", buckets ? "slices" : "format",
                                width, buckets ? "directory" : "slice"));
    for (const slice_row& row : rows) {
        output_put(out,
                   fmt::format("{:<{}}  {:<{}}  {:>10}  {:>8}  {:>9}  {:>12}  {:<{}}  {}\n",
                               time_cell(row, row.earliest, out->zone), times, time_cell(row, row.latest, out->zone),
                               times, number_cell(row, row.events), number_cell(row, row.deleted),
                               number_cell(row, row.terms), row.bytes, row.format, width, row.name));
        output_end_record(out);
    }
}

void put_jsonl(text_output* out, const std::vector<slice_row>& rows, bool buckets) {
    for (const slice_row& row : rows) {
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
    const std::vector<slice_row> rows = slice_rows_read(slices, options.buckets, &trouble);
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

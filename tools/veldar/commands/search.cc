// veldar search: prints the events that a query finds.
#include <algorithm>

#include "tools/libveldar/query/event_source.h"
#include "tools/libveldar/query/query_hints.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"

namespace veldar::tool {

namespace {

struct search_options {
    query_options query;
    uint64_t limit = 0;  // 0: all
    bool oldest_first = false;
    uint32_t before = 0, after = 0, around = 0;
    std::string format, fields, color = "auto";
};

// Raw records where they can be read, addresses elsewhere.
void choose_format(const search_options& options, const slice_set& slices, event_output* output) {
    output->has_raw = event_source_knows_raw(slices);
    output->context.before = std::max(options.before, options.around);
    output->context.after = std::max(options.after, options.around);
    output->format = options.fields.empty() ? FORMAT_RAW : FORMAT_TSV;
    if (!options.format.empty()) event_format_from_name(options.format, &output->format);
    const event_format_t format = output->format;
    if (std::max({options.before, options.after, options.around}) > 0 && format != FORMAT_RAW &&
        format != FORMAT_JSONL) {
        throw failure_t{OUTCOME_USAGE, "context lines go with --format raw and jsonl only"};
    }
    if (!options.fields.empty() && (format == FORMAT_RAW || format == FORMAT_TABLE || format == FORMAT_ADDR)) {
        throw failure_t{OUTCOME_USAGE, "--fields goes with --format jsonl, csv and tsv only"};
    }
    event_output_choose(output, options.fields);
    if (output->has_raw || output->format == FORMAT_ADDR) return;
    say_trouble("there is no source map beside these slices, so the events' text is not known");
    if (output->format == FORMAT_RAW) output->format = FORMAT_ADDR;
}

// Each returns how many events it found.
uint64_t print_as_found(event_cursor_t* events, uint64_t limit, event_output* output) {
    event_output_begin(output);
    event_t event;
    uint64_t count = 0;
    for (; (limit == 0 || count < limit) && !output->out->closed && events_next(events, &event); count++) {
        event_output_put(output, event);
    }
    return count;
}

uint64_t print_held(event_cursor_t* events, const search_options& options, event_output* output) {
    std::vector<event_t> found;
    event_t event;
    while ((options.limit == 0 || found.size() < options.limit) && events_next(events, &event)) found.push_back(event);
    if (options.oldest_first) std::reverse(found.begin(), found.end());
    for (size_t i = 0; event_output_learns(*output) && i < found.size(); i++) event_output_learn(output, found[i]);
    event_output_begin(output);
    for (size_t i = 0; i < found.size() && !output->out->closed; i++) event_output_put(output, found[i]);
    return found.size();
}

int search_run(const tool_context& context, const search_options& options) {
    const prepared_query query = query_prepare(options.query);
    troubles trouble;
    const slice_set slices = slices_list(store_choose(context.store));
    event_source source;
    event_source_open(&source, &slices, &trouble);
    const event_cursor_ptr events = events_open(query, options.limit, &source);
    text_output out;
    output_open(&out, options.color);
    out.zone = time_zone_of(options.query.zone);
    event_output output;
    output.out = &out;
    output.source = &source;
    choose_format(options, slices, &output);
    if (out.colour) output.wanted = highlight_of(query.plans);
    const bool holds = options.oldest_first || event_output_learns(output);
    const uint64_t found =
        holds ? print_held(events.get(), options, &output) : print_as_found(events.get(), options.limit, &output);
    event_output_end(&output);
    output_flush(&out);
    const bool is_all = options.limit == 0 || found < options.limit;
    if (!trouble.incomplete && !out.closed) {
        hint_comparisons(slices.path, query);
        if (is_all) hint_more(slices.path, query, found);
    }
    return answer_status(found > 0, trouble);
}

}  // namespace

void add_search_command(const command& veldar) {
    static search_options options;
    const command search = veldar.subcommand("search", "Print the events that a query finds, newest first");
    add_query_options(search, &options.query);
    search.number("-n,--limit", &options.limit, 1, UINT64_MAX, "At most this many events, the newest ones");
    search.flag("-r,--reverse", &options.oldest_first, "Print the oldest of them first");
    search.number("-A,--after-context", &options.after, 0, UINT32_MAX,
                  "Print this many lines of the log behind each event; with raw and jsonl");
    search.number("-B,--before-context", &options.before, 0, UINT32_MAX, "Print this many lines before each event");
    search.number("-C,--context", &options.around, 0, UINT32_MAX, "Both");
    search.text("--format", &options.format, "raw, table, jsonl, csv, tsv or addr")
        .one_of({"raw", "table", "jsonl", "csv", "tsv", "addr"});
    search.text("--fields", &options.fields,
                "With jsonl, csv or tsv (the default then): the time and these fields, such as status,path; or all");
    search.text("--color", &options.color, "auto, always or never").one_of({"auto", "always", "never"});
    search.run([](const tool_context& context) { return search_run(context, options); });
}

}  // namespace veldar::tool

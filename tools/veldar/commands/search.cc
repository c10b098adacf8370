// veldar search: prints the events that a query finds.
#include <algorithm>

#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/query/event_source.h"
#include "tools/veldar/query/query_hints.h"
#include "tools/veldar/query/query_input.h"
#include "tools/veldar/store/store.h"

namespace veldar::tool {

namespace {

struct search_options {
    query_options query;
    uint64_t limit = 0;  // 0: all
    bool oldest_first = false;
    uint32_t before = 0, after = 0, around = 0;
    std::string format, color = "auto";
};

// Raw records where they can be read, addresses elsewhere.
void choose_format(const search_options& options, const slice_set& slices, event_output* output) {
    output->has_raw = event_source_knows_raw(slices);
    output->before = std::max(options.before, options.around);
    output->after = std::max(options.after, options.around);
    output->format = FORMAT_RAW;
    if (!options.format.empty()) event_format_from_name(options.format, &output->format);
    if ((output->before > 0 || output->after > 0) && output->format != FORMAT_RAW) {
        throw tool_failure{EXIT_USAGE, "context lines go with --format raw only"};
    }
    if (output->has_raw || output->format == FORMAT_ADDR) return;
    say_trouble("there is no source map beside these slices, so the events' text is not known");
    if (output->format == FORMAT_RAW) output->format = FORMAT_ADDR;
}

// Each returns how many events it found.
uint64_t print_newest_first(event_cursor_t* events, uint64_t limit, event_output* output) {
    event_t event;
    uint64_t count = 0;
    for (; (limit == 0 || count < limit) && !output->out->closed && events_next(events, &event); count++) {
        event_output_put(output, event);
    }
    return count;
}

uint64_t print_oldest_first(event_cursor_t* events, uint64_t limit, event_output* output) {
    std::vector<event_t> found_events;
    event_t event;
    while ((limit == 0 || found_events.size() < limit) && events_next(events, &event)) found_events.push_back(event);
    for (auto one = found_events.rbegin(); one != found_events.rend() && !output->out->closed; ++one) {
        event_output_put(output, *one);
    }
    return found_events.size();
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
    event_output output;
    output.out = &out;
    output.source = &source;
    choose_format(options, slices, &output);
    if (out.colour) output.wanted = highlight_of(query.plans);
    event_output_begin(&output);
    const auto print = options.oldest_first ? print_oldest_first : print_newest_first;
    const uint64_t found = print(events.get(), options.limit, &output);
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
                  "Print this many lines of the log behind each event");
    search.number("-B,--before-context", &options.before, 0, UINT32_MAX, "Print this many lines before each event");
    search.number("-C,--context", &options.around, 0, UINT32_MAX, "Both");
    search.text("--format", &options.format, "raw, table, jsonl, csv, tsv or addr")
        .one_of({"raw", "table", "jsonl", "csv", "tsv", "addr"});
    search.text("--color", &options.color, "auto, always or never").one_of({"auto", "always", "never"});
    search.run([](const tool_context& context) { return search_run(context, options); });
}

}  // namespace veldar::tool

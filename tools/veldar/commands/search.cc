// veldar search: prints the events that a query finds.
#include <algorithm>

#include "tools/libveldar/query/event_source.h"
#include "tools/libveldar/query/query_hints.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/spread.h"
#include "tools/veldar/output/event_print.h"

namespace veldar::tool {

namespace {

struct search_options {
    query_options query;
    uint64_t limit = 0;  // 0: all
    uint32_t around = 0;
    event_view view;
    spread_options spread;
};

int search_spread(const tool_context& context, const search_options& options) {
    question asked = question_of_query("search", options.query);
    asked.set("limit", options.limit);
    asked.set("fields", options.view.fields);
    asked.set("before", options.view.before);
    asked.set("after", options.view.after);
    return spread_run(context.store, options.spread, asked,
                      {.format = options.view.format,
                       .color = options.view.color,
                       .zone = options.query.zone,
                       .oldest_first = options.view.oldest_first});
}

int search_run(const tool_context& context, search_options options) {
    options.view.before = std::max(options.view.before, options.around);
    options.view.after = std::max(options.view.after, options.around);
    if (spread_is_wanted(options.spread)) return search_spread(context, options);
    const prepared_query query = query_prepare(options.query);
    troubles trouble;
    const slice_set slices = slices_list(store_choose(context.store));
    event_source source;
    event_source_open(&source, &slices, &trouble);
    const event_cursor_ptr events = events_open(query, options.limit, &source);
    text_output out;
    output_open(&out, options.view.color);
    out.zone = time_zone_of(options.query.zone);
    event_output output;
    output.out = &out;
    event_feed feed;
    feed.has_raw = event_source_knows_raw(slices);
    event_view_choose(options.view, feed.has_raw, &output);
    if (out.colour) output.wanted = highlight_of(query.plans);
    event_reader reader;
    reader.source = &source;
    reader.parts = event_output_parts(output);
    reader.lines_before = options.view.before;
    reader.lines_after = options.view.after;
    reader.has_raw = feed.has_raw;
    if ((reader.parts & EVENT_NAMES) != 0) event_source_read_names(&source);
    for (const std::string& name : source.hosts) feed.longest_host = std::max(feed.longest_host, name.size());
    for (const std::string& name : source.sources) feed.longest_source = std::max(feed.longest_source, name.size());
    event_t event;
    std::vector<event_t> held;
    uint64_t left = options.limit == 0 ? UINT64_MAX : options.limit;
    feed.next = [&] { return left-- > 0 && events_next(events.get(), &event); };
    feed.tell = [&]() -> const event_record& { return event_record_of(&reader, event); };
    feed.hold = [&] { held.push_back(event); };
    feed.again = [&](size_t place) -> const event_record& { return event_record_of(&reader, held[place]); };
    const uint64_t found = event_print(options.view, feed, &output);
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
    search.flag("-r,--reverse", &options.view.oldest_first, "Print the oldest of them first");
    search.number("-A,--after-context", &options.view.after, 0, UINT32_MAX,
                  "Print this many lines of the log behind each event; with raw and jsonl");
    search.number("-B,--before-context", &options.view.before, 0, UINT32_MAX,
                  "Print this many lines before each event");
    search.number("-C,--context", &options.around, 0, UINT32_MAX, "Both");
    search.text("--format", &options.view.format, "raw, table, jsonl, csv, tsv or addr")
        .one_of({"raw", "table", "jsonl", "csv", "tsv", "addr"});
    search.text("--fields", &options.view.fields,
                "With jsonl, csv or tsv (the default then): the time and these fields, such as status,path; or all");
    search.text("--color", &options.view.color, "auto, always or never").one_of({"auto", "always", "never"});
    add_spread_options(search, &options.spread);
    add_budget_options(search, &options.spread);
    search.run([](const tool_context& context) { return search_run(context, options); });
}

}  // namespace veldar::tool

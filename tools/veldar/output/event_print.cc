#include "tools/veldar/output/event_print.h"

#include <algorithm>

#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

namespace {

uint64_t print_as_found(const event_feed& feed, event_output* output) {
    event_output_begin(output, feed.longest_host, feed.longest_source);
    uint64_t count = 0;
    for (; !output->out->closed && feed.next(); count++) event_output_put(output, feed.tell());
    return count;
}

uint64_t print_held(const event_feed& feed, bool oldest_first, event_output* output) {
    uint64_t count = 0;
    for (; feed.next(); count++) feed.hold();
    const auto place = [&](uint64_t i) { return oldest_first ? count - 1 - i : i; };
    for (uint64_t i = 0; event_output_learns(*output) && i < count; i++)
        event_output_learn(output, feed.again(place(i)));
    event_output_begin(output, feed.longest_host, feed.longest_source);
    for (uint64_t i = 0; i < count && !output->out->closed; i++) event_output_put(output, feed.again(place(i)));
    return count;
}

}  // namespace

void event_view_choose(const event_view& view, bool has_raw, event_output* output) {
    output->has_raw = has_raw;
    output->context.before = view.before;
    output->context.after = view.after;
    output->format = view.fields.empty() ? FORMAT_RAW : FORMAT_TSV;
    if (!view.format.empty()) event_format_from_name(view.format, &output->format);
    const event_format_t format = output->format;
    if (std::max(view.before, view.after) > 0 && format != FORMAT_RAW && format != FORMAT_JSONL) {
        throw failure_t{OUTCOME_USAGE, "context lines go with --format raw and jsonl only"};
    }
    if (!view.fields.empty() && (format == FORMAT_RAW || format == FORMAT_TABLE || format == FORMAT_ADDR)) {
        throw failure_t{OUTCOME_USAGE, "--fields goes with --format jsonl, csv and tsv only"};
    }
    event_output_choose(output, view.fields);
    if (output->has_raw || output->format == FORMAT_ADDR) return;
    say_trouble("there is no source map beside these slices, so the events' text is not known");
    if (output->format == FORMAT_RAW) output->format = FORMAT_ADDR;
}

uint64_t event_print(const event_view& view, const event_feed& feed, event_output* output) {
    const bool holds = view.oldest_first || event_output_learns(*output);
    const uint64_t found = holds ? print_held(feed, view.oldest_first, output) : print_as_found(feed, output);
    event_output_end(output);
    output_flush(output->out);
    return found;
}

}  // namespace veldar::tool

// veldar terms and seen: what the lexicons and the metadata of the slices tell without reading an event.
#include <algorithm>
#include <vector>

#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

struct terms_options {
    std::string pattern, sort = "count";
    uint64_t limit = 0;  // 0: all
};

// A count before a name: aligned on a terminal, separated by a tab elsewhere.
void put_count(text_output* out, uint64_t count) {
    const std::string text = std::to_string(count);
    if (out->terminal) output_put(out, std::string(text.size() < 10 ? 10 - text.size() : 0, ' '));
    output_put(out, text);
    output_put(out, out->terminal ? "  " : "\t");
}

void put_term(text_output* out, uint64_t count, std::string_view term) {
    put_count(out, count);
    std::string text = term_query_text(term);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t' || c == '\r'; }, ' ');
    output_put(out, text);
    output_put(out, "\n");
    output_end_record(out);
}

uint64_t print_by_count(const std::string& path, const terms_options& options, text_output* out, troubles* trouble) {
    const std::vector<counted_term> found = terms_by_count(path, options.pattern, options.limit, trouble);
    for (const counted_term& one : found) {
        put_term(out, one.totals.count, one.term);
        if (out->closed) break;
    }
    return found.size();
}

uint64_t print_by_term(const std::string& path, const terms_options& options, text_output* out, troubles* trouble) {
    uint64_t printed = 0;
    const auto visit = [&](std::string_view term, const term_totals_t& totals) {
        put_term(out, totals.count, term);
        return ++printed != options.limit && !out->closed;
    };
    walk_terms(path, term_choice_of(term_pattern_from_text(options.pattern)), visit, trouble);
    return printed;
}

int terms_run(const tool_context& context, const terms_options& options) {
    troubles trouble;
    text_output out;
    output_open(&out, "never");
    const std::string path = store_choose(context.store);
    const uint64_t printed = (options.sort == "count" ? print_by_count : print_by_term)(path, options, &out, &trouble);
    output_flush(&out);
    return answer_status(printed > 0, trouble);
}

int seen_run(const tool_context& context, const std::string& text, const std::string& zone) {
    troubles trouble;
    const term_totals_t all = term_seen(store_choose(context.store), text, &trouble);
    text_output out;
    output_open(&out, "never");
    out.zone = time_zone_of(zone);
    output_put(&out, "events\t" + std::to_string(all.count) + "\n");
    if (all.count > 0) {
        output_put(&out, "first\t" + event_time_text(all.earliest, 0, out.zone) + "\n");
        output_put(&out, "last\t" + event_time_text(all.latest, 0, out.zone) + "\n");
    }
    output_flush(&out);
    return answer_status(all.count > 0, trouble);
}

}  // namespace

void add_terms_command(const command& veldar) {
    static terms_options options;
    const command terms = veldar.subcommand("terms", "List terms with the number of events that hold them");
    terms.text("PATTERN", &options.pattern, "word, wo*, field=value, field=*; every term without it");
    terms.text("--sort", &options.sort, "By count (the greatest first) or by term")
        .one_of({"count", "term"})
        .with_default();
    terms.number("-n,--limit", &options.limit, 1, UINT64_MAX, "At most this many");
    terms.run([](const tool_context& context) { return terms_run(context, options); });
}

void add_seen_command(const command& veldar) {
    static std::string term, zone;
    const command seen = veldar.subcommand("seen", "Tell when a term was first and last seen, and how often");
    seen.text("TERM", &term, "A word or field=value").required();
    add_zone_option(seen, &zone);
    seen.run([](const tool_context& context) { return seen_run(context, term, zone); });
}

}  // namespace veldar::tool

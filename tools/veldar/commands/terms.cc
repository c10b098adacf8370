// veldar terms and seen: what the lexicons and the metadata of the slices tell without reading an event.
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/spread.h"
#include "tools/veldar/output/term_output.h"

namespace veldar::tool {

namespace {

struct terms_options {
    std::string pattern, sort = "count";
    uint64_t limit = 0;  // 0: all
    spread_options spread;
};

question terms_question(const terms_options& options) {
    question asked;
    asked.kind = "terms";
    asked.set("pattern", options.pattern);
    asked.set("sort", options.sort);
    asked.set("limit", options.limit);
    return asked;
}

int terms_run(const tool_context& context, const terms_options& options) {
    if (spread_is_wanted(options.spread)) return spread_run(context.store, options.spread, terms_question(options), {});
    troubles trouble;
    text_output out;
    output_open(&out, "never");
    const term_walk walk = terms_at(store_choose(context.store), terms_of_pattern(options.pattern), &trouble);
    const uint64_t printed = terms_print(walk, options.sort, options.limit, &out);
    output_flush(&out);
    return answer_status(printed > 0, trouble);
}

struct seen_options {
    std::string term, zone;
    spread_options spread;
};

int seen_run(const tool_context& context, const seen_options& options) {
    const term_choice_t choice = terms_of_one(options.term);
    if (spread_is_wanted(options.spread)) {
        question asked;
        asked.kind = "seen";
        asked.set("term", options.term);
        return spread_run(context.store, options.spread, asked, {.zone = options.zone});
    }
    troubles trouble;
    const term_totals_t all = term_seen(terms_at(store_choose(context.store), choice, &trouble));
    text_output out;
    output_open(&out, "never");
    out.zone = time_zone_of(options.zone);
    seen_print(all, &out);
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
    add_spread_options(terms, &options.spread);
    terms.run([](const tool_context& context) { return terms_run(context, options); });
}

void add_seen_command(const command& veldar) {
    static seen_options options;
    const command seen = veldar.subcommand("seen", "Tell when a term was first and last seen, and how often");
    seen.text("TERM", &options.term, "A word or field=value").required();
    add_zone_option(seen, &options.zone);
    add_spread_options(seen, &options.spread);
    seen.run([](const tool_context& context) { return seen_run(context, options); });
}

}  // namespace veldar::tool

#include "tools/veldar/output/term_output.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/veldar/output/event_output.h"

namespace veldar::tool {

namespace {

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

uint64_t print_by_count(const term_walk& walk, uint64_t limit, text_output* out) {
    const std::vector<counted_term> found = terms_by_count(walk, limit);
    for (const counted_term& one : found) {
        put_term(out, one.totals.count, one.term);
        if (out->closed) break;
    }
    return found.size();
}

}  // namespace

uint64_t terms_print(const term_walk& walk, const std::string& sort, uint64_t limit, text_output* out) {
    if (sort == "count") return print_by_count(walk, limit, out);
    uint64_t printed = 0;
    walk([&](std::string_view term, const term_totals_t& totals) {
        put_term(out, totals.count, term);
        return ++printed != limit && !out->closed;
    });
    return printed;
}

void seen_print(const term_totals_t& all, text_output* out) {
    output_put(out, "events\t" + std::to_string(all.count) + "\n");
    if (all.count == 0) return;
    output_put(out, "first\t" + event_time_text(all.earliest, 0, out->zone) + "\n");
    output_put(out, "last\t" + event_time_text(all.latest, 0, out->zone) + "\n");
}

void fields_print(std::span<const field_totals> fields, text_output* out) {
    output_put(out, out->terminal ? "    events      values  field\n" : "");
    for (const field_totals& field : fields) {
        const std::string name = field_query_text(field.name);
        output_put(out, out->terminal ? fmt::format("{:>10}  {:>10}  {}\n", field.events, field.values, name)
                                      : fmt::format("{}\t{}\t{}\n", field.events, field.values, name));
        output_end_record(out);
    }
}

void new_terms_print(std::span<const counted_term> terms, const std::string& format, text_output* out) {
    table_output table;
    table.out = out;
    table.format = table_format_from_name(format);
    table.columns = {{"first", false}, {"count", true}, {"term", false}};
    table_begin(&table);
    for (const counted_term& one : terms) {
        if (out->closed) break;
        table_put_row(&table, {text_cell(event_time_text(one.totals.earliest, 0, out->zone)),
                               count_cell(one.totals.count), text_cell(term_query_text(one.term))});
    }
    table_end(&table);
}

}  // namespace veldar::tool

// Uses an open slice in every way, whatever is in it: for damaged files, where the only demand is that nothing breaks.
// Aborts when a reader contradicts itself.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "searchthing/columns/cstore.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/postings/plist.h"
#include "searchthing/search/select_slice.h"
#include "searchthing/search/slice_metric_events.h"
#include "searchthing/search/warmslice_search.h"
#include "searchthing/slice/warmslice_lists.h"
#include "searchthing/slice/warmslice_meta.h"
#include "searchthing/slice/warmslice_runs.h"
#include "searchthing/slice/warmslice_terms.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar {

// How far a walk goes: a few damaged bytes can claim billions of everything.
inline constexpr uint32_t WALK_LIMIT = 600;

// False while calls are made to fail: one may succeed and the same one fail after it.
inline bool walk_is_strict = true;

inline bool walk_holds(bool holds) {
    if (!holds && walk_is_strict) std::abort();
    return holds;
}
inline void walk_require(bool holds) {
    static_cast<void>(walk_holds(holds));
}

// A digest of all that walks have met: whether damage reads as it did before.
inline uint64_t walk_digest = 0;

inline void walk_saw(uint64_t what) {
    walk_digest = (std::rotl(walk_digest, 23) ^ what) * 0x9E3779B97F4A7C15;
}
inline void walk_saw(double what) {
    walk_saw(what == what ? std::bit_cast<uint64_t>(what) : 1);
}
inline void walk_saw(std::string_view text) {
    for (const char one : text) walk_saw(uint64_t{static_cast<unsigned char>(one)});
}

// A failure that is passed over would stay in the record of a call that succeeds.
template <typename Call>
int walk_told(const Call& call) {
    warm_rc_t rc;
    const int status = call(&rc);
    walk_require(status < 0 ? status == rc.warm_rc : rc.warm_rc == 0);
    walk_saw(static_cast<uint64_t>(status));
    if (status >= 0) return status;
    walk_saw(uint64_t{rc.detail});
    walk_saw(rc.message);
    return status;
}

inline void walk_values(WARM* warm) {
    warm_rc_t rc;
    const uint32_t values = st_warm_slice_values(warm);
    for (uint32_t i = 0; i < std::min(values, WALK_LIMIT); i++) {
        const uint32_t id = i % 2 == 0 ? i : values - i;
        st_tsval value;
        std::memset(&value, 0xA5, sizeof value);  // what is not set shows
        st_time_t seconds = 0;
        uint64_t subseconds = 0;
        const int time_status =
            walk_told([&](auto* told) { return get_tsval_timestamp(warm, id, &seconds, &subseconds, told); });
        const int status =
            walk_told([&](auto* told) { return tsval_reader_decode(&warm->tsval_reader, id, &value, false, 0, told); });
        walk_require(status != 0 || (time_status == 0 && value.time == seconds && value.subsecond == subseconds));
        if (status == 0) walk_saw(std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
    }
    st_tsval none;
    walk_require(tsval_reader_decode(&warm->tsval_reader, values, &none, false, 0, &rc) != 0);
}

// The list by next, then by seek and by both bulk readers, which must see the same events.
inline void walk_list(plist_reader* reader, uint32_t term, uint32_t values) {
    warm_rc_t rc;
    std::vector<uint32_t> ids;
    if (walk_told([&](auto* told) { return _seek_reader(reader, term, told); }) != 0) return;
    uint32_t id = 0;
    bool complete = true;
    for (;;) {
        complete = walk_told([&](auto* told) { return _next(reader, &id, told); }) == 0;
        if (!complete || id == PLIST_END || ids.size() == WALK_LIMIT) break;
        walk_require(id < values && (ids.empty() || id > ids.back()));
        walk_saw(uint64_t{id});
        ids.push_back(id);
    }
    if (ids.empty()) return;
    const uint32_t begin = ids[ids.size() / 2];
    const uint32_t end = ids.back() + 1;
    if (!walk_holds(_seek_reader(reader, term, &rc) == 0)) return;
    if (walk_told([&](auto* told) { return _seek(reader, begin, &id, told); }) == 0) walk_require(id == begin);

    uint32_t copy[WALK_LIMIT];
    uint32_t count = 0;
    if (!walk_holds(_seek_reader(reader, term, &rc) == 0)) return;
    if (walk_told([&](auto* told) { return plist_copy(reader, copy, WALK_LIMIT, end, &count, told); }) == 0) {
        walk_require(std::vector<uint32_t>(copy, copy + count) == ids);
    }
    if (end - begin > 1 << 20) return;
    std::vector<uint8_t> bits(_calc_bitmap_size(begin, end));
    if (!walk_holds(_seek_reader(reader, term, &rc) == 0)) return;
    if (walk_told([&](auto* told) { return plist_or_into_bitmap(reader, bits.data(), begin, end, told); }) != 0) return;
    uint32_t set = 0;
    for (const uint8_t byte : bits) set += st_get_num_bits_set(byte);
    walk_require(set == ids.size() - ids.size() / 2);
}

inline int walk_term(int32_t, const char* text, size_t size, void* count) {
    walk_saw(std::string_view(text, size));
    return ++*static_cast<uint32_t*>(count) < WALK_LIMIT ? 1 : -1;
}

// The terms by prefix and needle, with what the slice tells of them.
inline void walk_choices(WARM* warm) {
    uint32_t visited = 0;
    warm_rc_t rc;
    const auto visit = [](const char* term, size_t length, uint64_t count, void* seen) {
        walk_saw(count);
        return walk_term(0, term, length, seen);
    };
    const int64_t total = warm_slice_apply_terms(warm, nullptr, visit, &visited, &rc);
    walk_saw(static_cast<uint64_t>(total));
    if (total < 0 && visited < WALK_LIMIT) walk_require(rc.warm_rc == total);
    for (const auto& [prefix, needle] : {std::pair<const char*, const char*>{"h", "*a*"}, {"ha", "h*"}, {"b", "all"}}) {
        const term_choice_t choice = {.prefix = prefix, .needle = needle, .after = {}, .wanted = {}};
        warm_terms terms;
        term_totals_t totals;
        if (walk_told([&](auto* told) { return terms.open(warm, choice, 4096, told); }) != 0) continue;
        for (uint32_t i = 0; i < WALK_LIMIT; i++) {
            if (walk_told([&](auto* told) { return terms.next(told); }) != 0 || terms.at_end()) break;
            walk_saw(terms.text());
            if (walk_told([&](auto* told) { return terms.add_totals(&totals, told); }) == 0) walk_saw(totals.count);
        }
    }
}

inline void walk_terms(WARM* warm) {
    walk_choices(warm);
    if (!st_warm_slice_has_fclex(warm)) return;
    uint32_t visited = 0;
    st_fclex_apply(warm->lexicon, nullptr, walk_term, &visited, nullptr);
    warm_rc_t rc;
    plist_reader reader;
    const bool has_lists = _init_reader(&reader, warm, 1024, nullptr, &rc) == 0;
    for (uint32_t term = 0; term < std::min(st_warm_slice_terms(warm), WALK_LIMIT); term++) {
        st_term_metadata metadata;
        if (walk_told([&](auto* told) { return warm_slice_term_metadata(warm, term, nullptr, &metadata, told); }) == 0)
            walk_saw(uint64_t{metadata.count} << 32 | (metadata.earliest ^ std::rotl(metadata.latest, 16)));
        if (has_lists) walk_list(&reader, term, st_warm_slice_values(warm));
    }
    close_plist_reader(&reader);
}

// Every event by the fields of the first term that names one, alone, as a number, and with another field.
inline void walk_selections(WARM* warm) {
    st_enum_answer first[1];
    if (!st_warm_slice_has_fclex(warm)) return;
    const int found = st_fclex_enum(warm->lexicon, nullptr, first, 1, false);
    const std::string term = found == 1 ? first[0].term : "host::";
    const std::string field = term.substr(term.starts_with(' ') ? 1 : 0, term.find("::"));
    st_query_spec query;
    query.lispy = "[AND]";
    parsed_query_t parsed;
    warm_rc_t rc;
    if (!walk_holds(parse_query(query_with_bounds(query), &parsed, &rc) == 0)) return;
    for (uint32_t way = 0; way < 5; way++) {
        select_spec_t spec;
        if (way % 2 == 1) spec.groups = {field.empty() ? "host" : field};
        if (way >= 3) spec.groups.push_back("host");
        if (way >= 2)
            spec.projections = {{"*", SELECT_ALL_AGGREGATES}, {field.empty() ? "bytes" : field, 1 + way * 100}};
        parsed.spec.opt_span = {way == 0 ? 0 : 3600, 0};
        parsed.spec.opt_b = way % 3 == 0 ? SELECT_KEEPS_MISSING : 0;
        select_bins_t bins;
        select_table_t table;
        select_report_t report;
        select_table_init(&table, spec);
        if (!walk_holds(select_bins_open(&bins, parsed.spec, spec, &rc) == 0)) return;
        if (walk_told([&](auto* told) { return warm_slice_select(warm, parsed, spec, bins, &table, &report, told); }) !=
            0) {
            continue;
        }
        uint64_t events = 0;
        for (const select_table_t::row_t& row : table.rows) {
            events += row.count;
            walk_saw(static_cast<uint64_t>(row.bin) ^ row.count << 8 ^ row.group);
        }
        for (const select_cell_t& cell : table.cells) {
            walk_saw(cell.count << 32 | cell.numbers);
            for (const double number : {cell.minimum, cell.maximum, cell.sum.sum}) walk_saw(number);
        }
        walk_require(!spec.groups.empty() || events == report.events);
    }
}

// What becomes of a text.
inline int walk_parse(const char* text, token_case_t token_case) {
    st_query_spec query;
    query.lispy = text;
    query.token_case = token_case;
    parsed_query_t parsed;
    const int status = walk_told([&](auto* told) { return parse_query(query, &parsed, told); });
    for (const frame_t& frame : parsed.frames) {
        walk_saw(static_cast<uint64_t>(frame._op) << 32 | frame.parent);
        for (const auto* const words : {&frame._kw_list, &frame._not_kw_list})
            for (const std::string& word : *words) walk_saw(word + " ");
        for (const comp_t& one : frame._comparisons) walk_saw(one.field), walk_saw(one.number);
    }
    return status;
}

// One query in every way: answers, candidates, count and bitmap, which agree as far as each of them can be had.
inline void walk_query(WARM* warm, const char* text, token_case_t token_case, st_timeval_t earliest = {INT32_MIN, 0},
                       st_timeval_t before = {INT32_MAX, 0}) {
    st_query_spec query;
    st_query_init(&query);
    st_query_set_time_bound(&query, true, earliest.time_s, earliest.time_ns, before.time_s, before.time_ns);
    query.lispy = text;
    query.token_case = token_case;
    st_tsval answers[WALK_LIMIT];
    search_report_t report;
    uint64_t count = 0, matches = 0;
    bitmap_and_bounds_t bits;
    const auto search = [&](bool is_exact) {
        return walk_told(
            [&](auto* told) { return warm_slice_search(warm, &query, answers, WALK_LIMIT, is_exact, nullptr, told); });
    };
    const int possible = search(false), found = search(true);
    const bool counted =
        walk_told([&](auto* told) { return warm_slice_count(warm, &query, &count, &report, told); }) == 0 &&
        !report.from_metadata;
    const bool selected =
        walk_told([&](auto* told) { return query_to_bitmap_and_bounds(warm, &query, &bits, &matches, told); }) == 0;
    free_bitmap_and_bounds(&bits);
    for (int i = 0; i < found; i++)
        walk_saw(uint64_t{answers[i].address} << 32 | static_cast<uint32_t>(answers[i].time));
    walk_saw(count << 32 | matches);
    if (earliest.time_s != INT32_MIN || before.time_s != INT32_MAX)
        return;  // times that are out of order leave open what lies in a span
    walk_require(found < 0 || possible < 0 || found <= possible);
    if (st_warm_slice_is_msidx(warm->body)) {
        // Bits stand for runs there, and a damaged d bit hides a value from the answers alone.
        walk_require(!counted || found < 0 || static_cast<uint64_t>(found) <= count);
        return;
    }
    // Beyond one window a search may end before it meets the damage.
    if (!selected || st_warm_slice_has_deletes(warm) || st_warm_slice_values(warm) > 4096) return;
    walk_require(!counted || count == matches);
    walk_require(found < 0 || static_cast<uint64_t>(found) == std::min<uint64_t>(matches, WALK_LIMIT));
}

// The literal operations by themselves: what they find is the same for whoever asks.
inline void walk_literals(WARM* warm) {
    const st_timeval_t first = {INT32_MIN, 0}, last = {INT32_MAX, 0};
    const std::vector<std::string> one = {"all"};
    const literal_group groups[] = {{one, {}, {}}, {{}, one, {}}};
    for (const st_timeval_t& earliest : {first, last}) {
        for (size_t i = 0; i < 2 * std::size(groups); i++) {
            const literal_group& group = groups[i / 2];
            id_range_t range;
            query_result_t result;
            const int status = walk_told([&](auto* told) {
                return i % 2 == 0 ? and_literals(warm, group, false, &earliest, &last, &range, &result, nullptr,
                                                 nullptr, true, nullptr, told)
                                  : or_literals(warm, group, false, &earliest, &last, &range, &result, nullptr, told);
            });
            walk_require(status == 0 || match_kind(result) == MATCH_NOTHING);
            walk_saw(uint64_t{match_kind(result)} << 62 | uint64_t{range.begin} << 31 | range.end);
            for (const uint32_t id : match_list(result)) walk_saw(uint64_t{id});
            for (const auto* const bits : {&result.bitmap, &result.not_bitmap})
                walk_saw(std::string_view(reinterpret_cast<const char*>(bits->data()), bits->size()));
        }
    }
}

inline void walk_searches(WARM* warm) {
    const uint32_t values = st_warm_slice_values(warm);
    if (values > 1 << 16) return;
    st_timeval_t middle = {INT32_MIN, 0};
    uint64_t subseconds = 0;
    if (values > 0) {
        walk_told([&](auto* told) { return get_tsval_timestamp(warm, values / 2, &middle.time_s, &subseconds, told); });
    }
    walk_literals(warm);
    uint32_t number = 0;
    const std::string long_field = "[AND [GT " + std::string(2046, 'n') + " 1]]";
    for (const char* text : {"[AND all]", "[OR h* *e [AND all [NOT *1*]]]",
                             "[AND half [GT bytes 5] [OR x [NOT tenth]]]", "[AND burst tenth [NEQ status 200]]",
                             "[OR [NOT all] [LTE bytes 100]]", "[AND]", "[OR \\ host::web1 [NOT \\ metric_name::cpu]]",
                             "[AND \\ metric_name::* [GT \\ load 3]]", long_field.c_str()}) {
        const st_timeval_t first = {INT32_MIN, 0}, behind = {INT32_MAX, 0};
        walk_query(warm, text, TOKEN_CASE_ASIS, number % 4 == 3 ? middle : first, number % 4 == 1 ? middle : behind);
        number++;
    }
    walk_selections(warm);
}

inline int walk_set(uint32_t, const ds_dimset_t* set, void* words, warm_rc_t*) {
    for (const uint32_t word : ds_dimset_allfields(set)) *static_cast<uint32_t*>(words) ^= word;
    return 0;
}

// What only metric slices have: runs, dimension sets, a column store.
inline void walk_metrics(WARM* warm) {
    warm_rc_t rc;
    uint32_t end = warm_slice_runs(warm);
    for (uint32_t i = 0; i < std::min(warm_slice_runs(warm), WALK_LIMIT); i++) {
        warm_run_t run;
        if (walk_told([&](auto* told) { return warm_slice_run(warm, i, &run, told); }) != 0) break;
        walk_require(run.count != 0 && run.first == end && run.count <= st_warm_slice_values(warm) - end);
        end += run.count;
    }
    for (uint32_t term = 0; term < std::min(st_warm_slice_terms(warm), WALK_LIMIT); term++) {
        st_term_metadata record;
        if (walk_told([&](auto* told) { return warm_slice_recomputed_metadata(warm, term, nullptr, &record, told); }) ==
            0)
            walk_saw(uint64_t{record.count} << 32 | (record.earliest ^ std::rotl(record.latest, 16)));
    }
    uint32_t words = 0;
    ds_reader_t* const sets = st_warm_slice_dimset_reader(warm, &rc);
    if (sets != nullptr && sets->num_dimsets < 1 << 16) {
        walk_told(
            [&](auto* told) { return ds_reader_apply(sets, ds_verify_version(warm->body), walk_set, &words, told); });
    }
    walk_saw(uint64_t{words});
    const cs_reader_t* const store = st_warm_slice_cstore(warm, &rc);
    walk_saw(static_cast<uint64_t>(rc.warm_rc));
    if (store != nullptr) walk_told([&](auto* told) { return cs_verify(store, told); });
    if (warm_slice_runs(warm) == 0) return;
    st_query_spec query;
    query.lispy = "[OR \\ host::* [AND *]]";
    parsed_query_t parsed;
    uint32_t events = 0;
    if (!walk_holds(parse_query(query_with_bounds(query), &parsed, &rc) == 0)) return;
    walk_told([&](auto* told) {
        return warm_slice_metric_events(
            warm, parsed, nullptr,
            [&](const st_metric_event_t& event) {
                walk_saw(uint64_t{event.nanoseconds} << 32 | static_cast<uint32_t>(event.time));
                for (const std::string_view term : event.dimensions) walk_saw(term);
                for (const st_metric_measure_t& one : event.measures) walk_saw(one.name), walk_saw(one.value);
                return ++events < WALK_LIMIT;
            },
            told);
    });
}

inline void walk_slice(WARM* warm) {
    warm_rc_t rc;
    walk_values(warm);
    walk_terms(warm);
    walk_searches(warm);
    walk_metrics(warm);
    walk_saw(uint64_t{st_warm_slice_has_deletes(warm)});
    walk_saw(uint64_t{st_warm_slice_blocksize(warm)});
    walk_saw(static_cast<uint64_t>(st_warm_slice_dimsets_offset(warm, &rc)));
    walk_require(st_warm_slice_size(warm, &rc) == warm->file_size);
    const uint32_t last = st_warm_slice_values(warm) - 1;
    if (warm->writable) walk_told([&](auto* told) { return warm_slice_set_deleted(warm, last, told); });
}

}  // namespace veldar

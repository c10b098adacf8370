// The checker of metric slices with runs: preambles, dimension sets, and their relations to the lists, the metadata and
// the columns.
#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "libzero/endian.h"
#include "searchthing/columns/dimset_io.h"
#include "searchthing/format/metric_terms.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

constexpr uint64_t SETS_HEAD = sizeof(ds_header_t);

enum term_kind : uint8_t { KIND_OTHER, KIND_DIMENSION, KIND_HOST, KIND_SOURCE, KIND_SOURCE_TYPE, KIND_METRIC };

// What the sets say of a term: the runs whose set holds it, and the events of those.
struct term_facts {
    term_kind kind = KIND_OTHER;
    uint32_t runs = 0;
    uint64_t sum = 0, squares = 0;  // of the runs' numbers
    uint64_t events = 0;
    st_time_t earliest = INT32_MAX, latest = INT32_MIN;
};

struct metric_run {
    uint32_t first = 0, count = 0;
    st_time_t earliest = 0, latest = 0;
};

struct metric_check {
    fsck_state* fsck = nullptr;
    std::vector<metric_run> runs;  // empty when the preambles cannot be followed
    std::vector<term_facts> terms;
    fsck_columns columns;
    std::span<const uint8_t> sets;  // the section
    uint64_t sets_offset = 0;       // in the file
    uint64_t words_read = 0;        // of sets, which may overlap
};

term_kind kind_of(std::string_view term) {
    constexpr std::array<std::pair<std::string_view, term_kind>, 6> KINDS = {{{METRIC_NAME_TERM, KIND_METRIC},
                                                                              {" host::", KIND_HOST},
                                                                              {" source::", KIND_SOURCE},
                                                                              {" sourcetype::", KIND_SOURCE_TYPE},
                                                                              {" _catalog::", KIND_OTHER},
                                                                              {" _dims::", KIND_OTHER}}};
    for (const auto& [prefix, kind] : KINDS) {
        if (term.starts_with(prefix)) return kind;
    }
    return term.starts_with(' ') ? KIND_DIMENSION : KIND_OTHER;
}

void read_kinds(metric_check* check) {
    const fsck_state& fsck = *check->fsck;
    // A term takes a byte of the lexicon at least: of a number beyond that nothing can be known.
    check->terms.resize(std::min<size_t>(fsck.image->header.num_terms.get(), fsck.image->bytes.size()));
    uint64_t left = lexicon_walk_budget(fsck.lexicon);
    for (uint32_t number = 0; fsck.has_lexicon && number < fsck.lexicon.blocks && left != 0; number++) {
        lexicon_block block;
        if (!lexicon_block_begin(fsck.lexicon, number, &block)) continue;
        left -= std::min(left, lexicon_block_bytes(fsck.lexicon, number));
        for (uint64_t id = uint64_t{number} * fsck.lexicon.tperb; block.position < block.count; id++) {
            if (lexicon_block_next(&block) != nullptr || id >= check->terms.size()) break;
            check->terms[id].kind = kind_of(block.term);
        }
    }
}

void add_value(metric_check* check, uint32_t id, const char* what, std::string detail) {
    fsck_add(check->fsck, IN_VALUES, fsck_value_offset(check->fsck->values, *check->fsck->image, id), what,
             std::move(detail));
}

// Runs follow each other from the first value to the last; false when they do not.
bool read_runs(metric_check* check) {
    const fsck_values& values = check->fsck->values;
    uint64_t next = values.preambles;
    for (uint32_t p = 0; p < values.preambles; p++) {
        metric_run one;
        one.first = static_cast<uint32_t>(fsck_value_time(values, p));
        one.count = fsck_value_address(values, p);
        if (one.first != next || one.count == 0 || one.count > values.count - next) {
            add_value(check, p, "runs do not follow each other",
                      fmt::format("run {} from value {} on: {}, {} values, of {}", p, next, one.first, one.count,
                                  values.count));
            return false;
        }
        next += one.count;
        check->runs.push_back(one);
    }
    if (next == values.count) return true;
    add_value(check, 0, "values behind the last run", fmt::format("{} to {}", next, values.count));
    return false;
}

// The values of a run are newest first, within the header's times.
void check_run_values(metric_check* check, metric_run* one) {
    const fsck_values& values = check->fsck->values;
    const st_warm_slice_body& h = check->fsck->image->header;
    const auto low = static_cast<st_time_t>(h.earliest.get()), high = static_cast<st_time_t>(h.latest.get());
    std::pair<st_time_t, uint32_t> before = {INT32_MAX, UINT32_MAX};
    // Values without bytes are all the same one.
    const uint32_t count = values.time_nbits + values.addr_nbits == 0 ? 1 : one->count;
    for (uint32_t id = one->first; id < one->first + count; id++) {
        const std::pair<st_time_t, uint32_t> at = {fsck_value_time(values, id), fsck_value_address(values, id)};
        if (at.first < low || at.first > high) {
            add_value(check, id, "time outside the header's",
                      fmt::format("value {}: {}, {} to {}", id, at.first, low, high));
        }
        if (at.second >= 1000) {
            add_value(check, id, "milliseconds above 999", fmt::format("value {}: {}", id, at.second));
        }
        if (at > before) {
            add_value(check, id, "values of a run are not newest first",
                      fmt::format("value {} at {} behind {}", id, at.first, before.first));
        }
        before = at;
    }
    one->latest = fsck_value_time(values, one->first);
    one->earliest = before.first;
}

void check_times(metric_check* check) {
    const st_warm_slice_body& h = check->fsck->image->header;
    fsck_report* const report = check->fsck->report;
    report->has_times = true;
    report->earliest = INT32_MAX;
    report->latest = INT32_MIN;
    for (metric_run& one : check->runs) {
        check_run_values(check, &one);
        report->earliest = std::min(report->earliest, one.earliest);
        report->latest = std::max(report->latest, one.latest);
    }
    const auto earliest = static_cast<st_time_t>(h.earliest.get()), latest = static_cast<st_time_t>(h.latest.get());
    if (earliest != report->earliest) {
        fsck_add(check->fsck, IN_HEADER, offsetof(st_warm_slice_body, earliest), "earliest is not that of the values",
                 fmt::format("{}, values {}", earliest, report->earliest));
    }
    if (latest != report->latest) {
        fsck_add(check->fsck, IN_HEADER, offsetof(st_warm_slice_body, latest), "latest is not that of the values",
                 fmt::format("{}, values {}", latest, report->latest));
    }
}

// A set's words, which lie in the section; false when its place or its own counts are wrong, which the layout and this
// tell, or when sets that overlap would take quadratic time.
bool read_set(metric_check* check, uint32_t id, std::vector<uint32_t>* words) {
    const uint32_t sets = load_le32(check->sets.data() + 8), total = load_le32(check->sets.data() + 12);
    const auto end_of = [&](uint32_t set) { return load_le32(check->sets.data() + SETS_HEAD + uint64_t{set} * 4); };
    const uint32_t begin = id == 0 ? 0 : end_of(id - 1), end = end_of(id);
    words->clear();
    if (begin >= end || end > total || check->words_read > 4 * uint64_t{total}) return false;
    check->words_read += end - begin;
    const uint64_t at = SETS_HEAD + (uint64_t{sets} + begin) * 4;
    for (uint32_t i = 0; i < end - begin; i++) words->push_back(load_le32(check->sets.data() + at + uint64_t{i} * 4));
    const auto add = [&](const char* what, const std::string& detail) {
        fsck_add(check->fsck, IN_DIMSETS, check->sets_offset + at, what, fmt::format("set {}: {}", id, detail));
    };
    const bool sound = words->size() > DS_MIN_WORDS && words->size() <= DS_MAX_DIMSET_SIZE_WORDS &&
                       ds_dimset_is_sound(ds_dimset_at(words->data()), end - begin) && (*words)[1] != 0;
    if (!sound) {
        add("counts of a set",
            fmt::format("{} words, {} columns in {}", (*words)[0], words->size() > 1 ? (*words)[1] : 0, words->size()));
        words->clear();
        return false;
    }
    return true;
}

// Each term exists and is of the kind that its place asks for.
void check_set_terms(metric_check* check, uint32_t id, const ds_dimset_t* set) {
    const auto require = [&](uint32_t term, term_kind kind, term_kind or_kind) {
        const bool exists = term < check->terms.size();
        const bool fits = exists && (check->terms[term].kind == kind || check->terms[term].kind == or_kind);
        if (fits || (exists && !check->fsck->has_lexicon)) return;
        fsck_add_term(check->fsck, IN_DIMSETS, check->sets_offset, term, "term that does not belong there",
                      fmt::format("in set {}", id));
    };
    const std::span<const uint32_t> fields = ds_dimset_all_dims(set);
    constexpr std::array<term_kind, 3> FIELDS = {KIND_HOST, KIND_SOURCE, KIND_SOURCE_TYPE};
    for (size_t i = 0; i < FIELDS.size(); i++) {
        if (fields[i] != DS_NO_TERM) require(fields[i], FIELDS[i], FIELDS[i]);
    }
    for (const uint32_t term : ds_dimset_opt_dims(set)) require(term, KIND_DIMENSION, KIND_OTHER);
    for (const uint32_t term : ds_dimset_opt_cols(set)) require(term, KIND_METRIC, KIND_METRIC);
}

void note_term(metric_check* check, uint32_t term, uint64_t number, const metric_run& run) {
    if (term >= check->terms.size()) return;
    term_facts& facts = check->terms[term];
    facts.runs++;
    facts.sum += number;
    facts.squares += number * number;
    facts.events += run.count;
    facts.earliest = std::min(facts.earliest, run.earliest);
    facts.latest = std::max(facts.latest, run.latest);
}

// Set `id` is that of run P - 1 - id.
void note_set(metric_check* check, uint32_t id, const ds_dimset_t* set) {
    if (id >= check->runs.size()) return;
    const uint64_t number = check->runs.size() - 1 - id;
    const metric_run& run = check->runs[number];
    for (const uint32_t term : ds_dimset_allfields(set)) {
        if (term != DS_NO_TERM) note_term(check, term, number, run);
    }
    for (const uint32_t term : ds_dimset_opt_cols(set)) check->columns[term].push_back({run.first, run.count});
}

// False when a set cannot be read, so that the sets do not tell all.
bool check_sets(metric_check* check) {
    const uint32_t sets = load_le32(check->sets.data() + 8);
    const bool sorted = ds_verify_version(&check->fsck->image->header) == DS_VERIFY_V3;
    const auto ascend = [](std::span<const uint32_t> words) {
        return std::adjacent_find(words.begin(), words.end(), std::greater_equal<>()) == words.end();
    };
    std::vector<uint32_t> before, words;
    bool whole = true;
    for (uint32_t id = 0; id < sets; id++) {
        before.swap(words);
        if (!read_set(check, id, &words)) {
            whole = false;
            continue;
        }
        const ds_dimset_t* const set = ds_dimset_at(words.data());
        const auto add = [&](const char* what) {
            fsck_add(check->fsck, IN_DIMSETS, check->sets_offset, what, fmt::format("set {}", id));
        };
        if (!ascend(sorted ? ds_dimset_opt_dims(set) : ds_dimset_opt_fields(set))) add("dimensions do not ascend");
        if (sorted && !ascend(ds_dimset_opt_cols(set))) add("columns do not ascend");
        if (sorted && before.size() > DS_MIN_WORDS && ds_dimset_compare(ds_dimset_at(before.data()), set) >= 0) {
            add("sets do not ascend");
        }
        check_set_terms(check, id, set);
        note_set(check, id, set);
    }
    return whole;
}

// The list of a term has the runs whose sets hold it. Terms other than dimensions and metrics need not be in sets.
void check_term(metric_check* check, uint32_t term) {
    const fsck_state& fsck = *check->fsck;
    const term_facts& facts = check->terms[term];
    if (facts.kind == KIND_OTHER && facts.runs == 0) return;
    const fsck_list& list = fsck.lists[term];
    if (list.good && (list.count != facts.runs || list.sum != facts.sum || list.squares != facts.squares)) {
        fsck_add_term(check->fsck, IN_LISTS, fsck.image->sections[IN_LISTS].offset, term,
                      "list differs from the dimension sets", fmt::format("{} runs, sets {}", list.count, facts.runs));
    }
    if (!slice_section_whole(*fsck.image, IN_METADATA)) return;
    uint64_t at = 0;
    const fsck_term_record record = fsck_read_record(fsck, term, &at);
    const auto add = [&](const char* what, int64_t stored, int64_t found) {
        fsck_add_term(check->fsck, IN_METADATA, fsck.image->sections[IN_METADATA].offset + at, term, what,
                      fmt::format("{}, its runs have {}", stored, found));
    };
    if (record.count != facts.events) add("count", record.count, static_cast<int64_t>(facts.events));
    if (!record.has_times || facts.runs == 0) return;
    if (record.earliest != facts.earliest) add("earliest time", record.earliest, facts.earliest);
    if (record.latest != facts.latest) add("latest time", record.latest, facts.latest);
}

}  // namespace

void fsck_check_metrics(fsck_state* fsck) {
    metric_check check;
    check.fsck = fsck;
    if (fsck->values.encoding != TSVAL_WITH_PREAMBLES || !fsck->values.readable) return;
    read_kinds(&check);
    if (read_runs(&check)) {
        check_times(&check);
    } else {
        check.runs.clear();
    }
    check.sets = slice_section_bytes(*fsck->image, IN_DIMSETS);
    check.sets_offset = fsck->image->sections[IN_DIMSETS].offset;
    if (!slice_section_whole(*fsck->image, IN_DIMSETS)) return;
    const bool whole = check_sets(&check);
    if (!whole || check.runs.empty() || load_le32(check.sets.data() + 8) != check.runs.size()) return;
    for (uint32_t term = 0; term < fsck->lists.size(); term++) check_term(&check, term);
    for (auto& [term, runs] : check.columns) std::reverse(runs.begin(), runs.end());
    if (slice_section_whole(*fsck->image, IN_CSTORE)) fsck_check_cstore(fsck, check.columns);
}

}  // namespace veldar::tool

// Selections over metric slices with runs and a column store.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <map>
#include <memory>
#include <unordered_map>

#include "libzero/assertions.h"
#include "searchthing/columns/cset.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/matcher.h"
#include "searchthing/search/search_runs.h"
#include "searchthing/search/select_internal.h"

namespace veldar {

namespace {

constexpr uint32_t DECODED = CSET_BLOCK_ELEMENTS;
constexpr uint32_t NEEDS_ELEMENTS = SELECT_SUMSQ | SELECT_DC | SELECT_VALUES | SELECT_QUANTILES;
constexpr std::string_view METRIC_NAME = "metric_name";

struct column_closer {
    void operator()(cset_reader_t* column) const {
        cset_reader_close(column);
        delete column;
    }
};

// A measure: its name, and what is wanted of it.
struct measure_t {
    std::string name;
    std::vector<size_t> projections;                       // that it is a value of
    std::unique_ptr<cset_reader_t, column_closer> column;  // opened when it is first needed
};

// A field's terms, and which of a set's dimensions are among them.
struct dimension_t {
    bool is_metric_name = false;
    select_terms_t terms;  // ascending by id
    const select_term_t* find(uint32_t id) const {
        const auto less = [](const select_term_t& term, uint32_t wanted) { return term.id < wanted; };
        const auto at = std::lower_bound(terms.terms.begin(), terms.terms.end(), id, less);
        return at != terms.terms.end() && at->id == id ? &*at : nullptr;
    }
};

// The run of one dimension set inside the time bounds.
struct set_run_t {
    uint32_t set;
    uint32_t first, end;
};

class metrics_pass {
  public:
    explicit metrics_pass(const selection_t& selection) : selection_(selection) {}

    int run(warm_rc_t* rc) {
        std::vector<set_run_t> runs;
        ST_TRY(find_runs(&runs, rc));
        if (runs.empty()) return 0;
        const st_warm_slice_body* const header = selection_.warm->body;
        const st_query_spec& query = selection_.query->spec;
        const st_time_t first = std::max(static_cast<st_time_t>(header->earliest.get()), query.earliest.time_s);
        const st_time_t last = std::min(static_cast<st_time_t>(header->latest.get()), query.latest.time_s);
        ST_TRY(select_bins_check(*selection_.bins, select_time({first, 0}), select_time({last, 0}), rc));
        for (const std::string& field : selection_.spec->groups) {
            groups_.push_back({.is_metric_name = field == METRIC_NAME, .terms = {}});
            if (!groups_.back().is_metric_name) ST_TRY(read_dimension(field, &groups_.back(), rc));
        }
        for (const select_projection_t& projection : selection_.spec->projections) {
            dimension_t dimension;
            const bool is_pattern = projection.field.find('*') != std::string::npos;
            if (!is_pattern) ST_TRY(read_dimension(projection.field, &dimension, rc));
            projections_.push_back(std::move(dimension));
        }
        ds_reader_t* const sets = st_warm_slice_dimset_reader(selection_.warm, rc);
        if (sets == nullptr) return rc->warm_rc;
        words_.resize(DS_MAX_DIMSET_SIZE_WORDS);
        for (const set_run_t& run : runs) {
            ds_dimset_t* const set = ds_dimset_at(words_.data());
            ST_TRY(warm_slice_go_on(selection_.warm, 1, rc));
            ST_TRY(ds_reader_read(sets, run.set, set, DS_MAX_DIMSET_SIZE_WORDS, rc));
            ST_TRY(add_set(run, set, rc));
        }
        return 0;
    }

  private:
    // The selected runs in the order of their sets, which is how sets are read fastest.
    int find_runs(std::vector<set_run_t>* runs, warm_rc_t* rc) {
        const parsed_query_t& query = *selection_.query;
        const event_walk_ptr walk = event_walk_open(selection_.warm, query, query.spec.latest, UINT64_MAX, true);
        query_result_t result;
        if (event_walk_evaluate_unordered(walk.get(), &result) != 0) return _cpy_rc(rc, &walk->context.rc);
        run_merge_t bounds;
        run_merge_open(&bounds, selection_.warm, query.spec.earliest, query.spec.latest);
        match_ids ids(&result, walk->context.range);
        for (uint32_t id = 0; ids.next(&id);) {
            set_run_t run = {warm_slice_run_dimset(selection_.warm, id), 0, 0};
            ST_TRY(warm_slice_go_on(selection_.warm, 1, rc));
            ST_TRY(run_merge_bounds(&bounds, id, &run.first, &run.end, rc));
            if (run.first < run.end) runs->push_back(run);
        }
        std::reverse(runs->begin(), runs->end());
        ST_ASSERT(std::is_sorted(runs->begin(), runs->end(),
                                 [](const set_run_t& a, const set_run_t& b) { return a.set < b.set; }));
        return 0;
    }

    // Dimensions begin with a blank; keywords of the same form count alike.
    int read_dimension(const std::string& field, dimension_t* out, warm_rc_t* rc) {
        ST_TRY(select_terms_add(selection_, " " + field + "::", &out->terms, rc));
        ST_TRY(select_terms_add(selection_, field + "::", &out->terms, rc));
        const auto less = [](const select_term_t& a, const select_term_t& b) { return a.id < b.id; };
        std::sort(out->terms.terms.begin(), out->terms.terms.end(), less);
        return 0;
    }

    static bool names(const std::string& pattern, const std::string& name) {
        if (pattern.find('*') == std::string::npos) return pattern == name;
        const matcher_ptr matcher(createMatcher(pattern.c_str()));
        if (matcher == nullptr) throw std::bad_alloc();
        return matcher_spans(name.c_str(), matcher.get());
    }

    int find_measure(uint32_t term, measure_t** out, warm_rc_t* rc) {
        const auto [place, is_new] = measures_.try_emplace(term);
        *out = &place->second;
        if (!is_new) return 0;
        char text[ST_TERM_BUFFER_SIZE];
        ST_TRY(st_fclex_get_term_from_id(selection_.warm->lexicon, term, text, sizeof text, nullptr, rc));
        std::string& name = (*out)->name = *text == ' ' ? text + 1 : text;
        if (name.starts_with("metric_name::")) name.erase(0, METRIC_NAME.size() + 2);
        for (size_t p = 0; p < projections_.size(); p++) {
            if (names(selection_.spec->projections[p].field, name)) (*out)->projections.push_back(p);
        }
        return 0;
    }

    // Opens its column set, if anything is wanted of it.
    int open_column(uint32_t term, measure_t* measure, warm_rc_t* rc) {
        if (measure->column != nullptr) return 0;
        const cs_reader_t* const store = st_warm_slice_cstore(selection_.warm, rc);
        if (store == nullptr) return rc->warm_rc;
        std::unique_ptr<cset_reader_t, column_closer> column(new cset_reader_t);
        ST_TRY(cset_reader_open(column.get(), store, term, selection_.query->spec.info, rc));
        measure->column = std::move(column);
        return 0;
    }

    // The texts of a set under a field; "" when it has none and that is to be kept.
    std::vector<std::string_view> texts_of(const dimension_t& dimension, const ds_dimset_t* set, bool keeps_missing) {
        std::vector<std::string_view> texts;
        for (const uint32_t id : ds_dimset_all_dims(set)) {
            const select_term_t* const term = dimension.find(id);
            if (term == nullptr) continue;
            // A dimension and a keyword may say the same.
            const std::string_view text = dimension.terms.text(*term);
            if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(text);
        }
        if (texts.empty() && keeps_missing) texts.push_back("");
        return texts;
    }

    int add_set(const set_run_t& run, const ds_dimset_t* set, warm_rc_t* rc) {
        const bool keeps_missing = selection_.query->spec.opt_b == SELECT_KEEPS_MISSING;
        selection_.report->events += run.end - run.first;
        ST_TRY(find_stretches(run, rc));
        std::vector<measure_t*> measures;
        for (const uint32_t term : ds_dimset_opt_cols(set)) {
            measures.emplace_back();
            ST_TRY(find_measure(term, &measures.back(), rc));
            if (!measures.back()->projections.empty()) ST_TRY(open_column(term, measures.back(), rc));
        }
        std::vector<std::vector<std::string_view>> texts;
        bool by_metric = false;
        for (const dimension_t& group : groups_) {
            by_metric |= group.is_metric_name;
            texts.push_back(group.is_metric_name ? std::vector<std::string_view>()
                                                 : texts_of(group, set, keeps_missing));
            if (!group.is_metric_name && texts.back().empty()) return 0;
        }
        if (!by_metric) return add_groups(texts, set, measures, rc);
        for (measure_t* const measure : measures) {
            if (measure->projections.empty() && !projections_.empty()) continue;
            for (size_t i = 0; i < groups_.size(); i++) {
                if (groups_[i].is_metric_name) texts[i].assign(1, measure->name);
            }
            ST_TRY(add_groups(texts, set, {&measure, 1}, rc));
        }
        return 0;
    }

    // Series that are sampled together have stretches of the same lengths.
    int find_stretches(const set_run_t& run, warm_rc_t* rc) {
        size_t count = 0;
        for (uint32_t at = run.first; at < run.end; at = stretches_[count++].end) {
            if (count == stretches_.size()) stretches_.push_back({0, 0, 0});
            select_stretch_t* const stretch = &stretches_[count];
            ST_TRY(select_stretch(selection_, at, run.end, stretch->end - stretch->begin, stretch, rc));
        }
        stretches_.resize(count);
        ST_ASSERT(stretches_.front().begin == run.first && stretches_.back().end == run.end);
        return 0;
    }

    // Adds the stretches to the rows of every combination of the texts.
    int add_groups(const std::vector<std::vector<std::string_view>>& texts, const ds_dimset_t* set,
                   std::span<measure_t* const> measures, warm_rc_t* rc) {
        std::array<size_t, SELECT_MAX_GROUPS> chosen = {};
        for (;;) {
            std::string key;
            for (size_t i = 0; i < texts.size(); i++) key.append(texts[i][chosen[i]]).push_back('\0');
            uint32_t group = 0;
            ST_TRY(select_group(selection_.table, key, &group, rc));
            ST_TRY(add_stretches(group, set, measures, rc));
            size_t field = 0;
            while (field < texts.size() && ++chosen[field] == texts[field].size()) chosen[field++] = 0;
            if (field == texts.size()) return 0;
        }
    }

    int add_stretches(uint32_t group, const ds_dimset_t* set, std::span<measure_t* const> measures, warm_rc_t* rc) {
        std::vector<uint32_t>& rows = rows_of_group_[group];
        rows.resize(std::max(rows.size(), stretches_.size()), UINT32_MAX);
        const std::vector<select_table_t::row_t>& all = selection_.table->rows;
        for (size_t i = 0; i < stretches_.size(); i++) {
            const select_stretch_t& stretch = stretches_[i];
            const bool is_known = rows[i] != UINT32_MAX && all[rows[i]].bin == stretch.bin;
            if (!is_known) ST_TRY(select_row(selection_.table, stretch.bin, group, &rows[i], rc));
            selection_.table->rows[rows[i]].count += stretch.end - stretch.begin;
        }
        rows_ = rows;
        for (measure_t* const measure : measures) {
            for (const size_t projection : measure->projections) ST_TRY(add_measure(measure, projection, rc));
        }
        for (size_t p = 0; p < projections_.size(); p++) {
            if (!projections_[p].terms.terms.empty()) ST_TRY(add_dimension(p, set, rc));
        }
        return 0;
    }

    int add_measure(measure_t* measure, size_t projection, warm_rc_t* rc) {
        const uint32_t aggregates = selection_.spec->projections[projection].aggregates;
        for (size_t i = 0; i < stretches_.size(); i++) {
            const select_stretch_t& stretch = stretches_[i];
            select_cell_t* const cell = &select_cells(selection_.table, rows_[i])[projection];
            if ((aggregates & NEEDS_ELEMENTS) != 0) {
                ST_TRY(add_elements(measure, stretch, cell, aggregates, rc));
                continue;
            }
            cs_stats_t stats;
            const uint32_t count = stretch.end - stretch.begin;
            ST_TRY(warm_slice_go_on(selection_.warm, 1 + count / CSET_BLOCK_ELEMENTS, rc));
            ST_TRY(cset_reader_stats(measure->column.get(), stretch.begin, count, &stats, rc));
            selection_.report->columns_summed++;
            if (select_wants_numbers(aggregates)) selection_.report->refused += stats.nans;
            select_cell_add_stats(cell, stats);
        }
        return 0;
    }

    int add_elements(measure_t* measure, const select_stretch_t& stretch, select_cell_t* cell, uint32_t aggregates,
                     warm_rc_t* rc) {
        std::array<double, DECODED> numbers;
        std::array<uint8_t, DECODED> present;
        selection_.report->columns_read++;
        for (uint32_t at = stretch.begin; at < stretch.end;) {
            const uint32_t count = std::min(DECODED, stretch.end - at);
            ST_TRY(warm_slice_go_on(selection_.warm, count, rc));
            ST_TRY(cset_reader_range(measure->column.get(), at, count, numbers.data(), present.data(), rc));
            for (uint32_t i = 0; i < count; i++) {
                if (present[i] == 0) continue;
                char text[32];
                const bool is_number = !std::isnan(numbers[i]);
                const bool needs_text = (aggregates & (SELECT_DC | SELECT_VALUES)) != 0;
                const char* const end = needs_text ? std::to_chars(text, std::end(text), numbers[i]).ptr : text;
                ST_TRY(select_add(selection_, cell, {{text, end}, numbers[i], is_number}, 1, aggregates, rc));
            }
            at += count;
        }
        return 0;
    }

    int add_dimension(size_t projection, const ds_dimset_t* set, warm_rc_t* rc) {
        const uint32_t aggregates = selection_.spec->projections[projection].aggregates;
        for (const std::string_view text : texts_of(projections_[projection], set, false)) {
            const select_value_t value = select_value_of_text(text.data());  // a NUL follows it
            for (size_t i = 0; i < stretches_.size(); i++) {
                select_cell_t* const cell = &select_cells(selection_.table, rows_[i])[projection];
                const uint32_t count = stretches_[i].end - stretches_[i].begin;
                ST_TRY(select_add(selection_, cell, value, count, aggregates, rc));
            }
        }
        return 0;
    }

    const selection_t& selection_;
    std::vector<dimension_t> groups_;
    std::vector<dimension_t> projections_;    // the dimensions that are their values
    std::map<uint32_t, measure_t> measures_;  // by term
    std::vector<uint32_t> words_;
    std::vector<select_stretch_t> stretches_;                            // of the set that is being added
    std::span<const uint32_t> rows_;                                     // by stretch
    std::unordered_map<uint32_t, std::vector<uint32_t>> rows_of_group_;  // by stretch, of the set before
};

}  // namespace

int select_from_metrics(const selection_t& selection, warm_rc_t* rc) {
    metrics_pass pass(selection);
    return pass.run(rc);
}

}  // namespace veldar

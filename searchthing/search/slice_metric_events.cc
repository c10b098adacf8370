#include "searchthing/search/slice_metric_events.h"

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "libzero/assertions.h"
#include "searchthing/columns/cset.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/format/metric_terms.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/search/search_runs.h"
#include "searchthing/search/warmslice_search.h"

namespace veldar {

namespace {

constexpr std::string_view METRIC_NAME = METRIC_NAME_TERM.substr(1);
constexpr uint64_t MAX_MEASURES_HELD = uint64_t{4} << 20;
constexpr uint32_t LONGEST_PIECE = CSET_BLOCK_ELEMENTS;
constexpr uint32_t SHORTEST_PIECE = 4;
// So many sets are read when their first event comes. A walk that goes on behind them takes all others at once, which
// costs less a set: newest events are often all that is wanted.
constexpr size_t SETS_ONE_BY_ONE = 256;

// The texts of terms by id, without their leading blank; they stay where they are.
class term_texts {
  public:
    // 0 or a status.
    int find(WARM* warm, uint32_t id, std::string_view* text, warm_rc_t* rc) {
        const auto [place, is_new] = texts_.try_emplace(id);
        if (is_new) {
            char term[ST_TERM_BUFFER_SIZE];
            ST_TRY(st_fclex_get_term_from_id(warm->lexicon, id, term, sizeof term, nullptr, rc));
            place->second = *term == ' ' ? term + 1 : term;
        }
        *text = place->second;
        return 0;
    }
    // Reads those of the ids that are not known, in the order of the lexicon.
    int load(WARM* warm, std::vector<uint32_t> ids, warm_rc_t* rc) {
        std::sort(ids.begin(), ids.end());
        ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
        std::string_view text;
        for (const uint32_t id : ids) ST_TRY(find(warm, id, &text, rc));
        return 0;
    }

  private:
    std::unordered_map<uint32_t, std::string> texts_;
};

// A metric of the slice; its column is opened when a value of it is read.
struct walked_metric {
    std::string_view name;
    uint32_t term = 0;
    bool is_wanted = false;
    bool is_open = false;
    cset_reader_t column;

    walked_metric() = default;
    walked_metric(const walked_metric&) = delete;
    walked_metric& operator=(const walked_metric&) = delete;
    ~walked_metric() { cset_reader_close(&column); }
};

// A dimension set with matching values. Its measures are read a piece of its values at a time, column by column.
struct walked_set {
    uint32_t id;
    uint32_t end;  // of its values inside the bounds
    size_t first_dimension, dimensions;
    size_t first_measure, measures;  // those that are wanted
    uint32_t piece;
    uint32_t held_from, held_to;  // the values in the piece
    std::vector<double> values;   // a row of `piece` values for each measure
};

// The matching events of one slice.
class metric_walk {
  public:
    metric_walk(WARM* warm, const metric_choice& wanted) : warm_(warm), wanted_(wanted) {}

    // 0 or a status; may throw std::bad_alloc, as may `run`.
    int open(const parsed_query_t& query, warm_rc_t* rc) {
        ST_TRY(warm_slice_merge_runs(warm_, query, &merge_, rc));
        store_ = st_warm_slice_cstore(warm_, rc);
        if (store_ == nullptr) return rc->warm_rc;
        dimsets_ = st_warm_slice_dimset_reader(warm_, rc);
        if (dimsets_ == nullptr) return rc->warm_rc;
        set_of_run_.resize(warm_slice_runs(warm_), NOT_READ);
        words_.resize(DS_MAX_DIMSET_SIZE_WORDS);
        return 0;
    }

    // Gives every event to `visit`, newest first, until that returns false. 0 or a status.
    int run(uint32_t cumspan, const metric_event_visitor& visit, warm_rc_t* rc) {
        uint32_t value = 0, run = 0;
        for (; run_merge_peek(&merge_, &value, &run);) {
            const st_timeval_t time = run_merge_time(&merge_);
            if (cumspan == 0 || static_cast<uint32_t>(time.time_s) % cumspan == 0) {
                if (set_of_run_[run] == NOT_READ) ST_TRY(read_newest_set(rc));
                walked_set& set = sets_[set_of_run_[run]];
                if (set.measures > 0 && !tell(&set, value, time, visit, rc)) return rc->warm_rc;
            }
            ST_TRY(run_merge_pass(&merge_, rc));
        }
        return 0;
    }

  private:
    static constexpr uint32_t NOT_READ = UINT32_MAX;

    // False at the end of the walk, with 0 or a failure in `rc`.
    bool tell(walked_set* set, uint32_t value, const st_timeval_t& time, const metric_event_visitor& visit,
              warm_rc_t* rc) {
        _set_rc(rc, 0);
        if (take_measures(set, value, rc) != 0) return false;
        return visit({time.time_s, static_cast<uint32_t>(time.time_ns), set->id,
                      std::span(dimensions_).subspan(set->first_dimension, set->dimensions),
                      std::span(measures_).subspan(set->first_measure, set->measures)});
    }

    // The set of the run that the newest value is in.
    int read_newest_set(warm_rc_t* rc) {
        if (sets_.size() == SETS_ONE_BY_ONE) return read_sets(rc);
        return read_set(merge_.stretches[merge_.winner.stretch], nullptr, rc);
    }

    // Those that are left, in the order of their ids: runs come in the order of their numbers, which is not that of
    // their sets.
    int read_sets(warm_rc_t* rc) {
        std::vector<uint32_t> ids;
        const size_t begin = sets_.size();
        for (auto it = merge_.stretches.rbegin(); it != merge_.stretches.rend(); ++it) {
            if (it->next == it->end || set_of_run_[it->run] != NOT_READ) continue;
            ST_ASSERT(sets_.size() == begin || sets_.back().id < warm_slice_run_dimset(warm_, it->run));
            ST_TRY(read_set(*it, &ids, rc));
        }
        ST_TRY(texts_.load(warm_, ids, rc));
        auto id = ids.begin();
        for (size_t i = begin; i < sets_.size(); i++) {
            for (size_t k = 0; k < sets_[i].dimensions; k++, id++) {
                ST_TRY(texts_.find(warm_, *id, &dimensions_[sets_[i].first_dimension + k], rc));
            }
        }
        return 0;
    }

    // Reads the set of a run. With `ids` the terms of its dimensions are added there, and their texts are left empty.
    int read_set(const run_stretch_t& stretch, std::vector<uint32_t>* ids, warm_rc_t* rc) {
        ds_dimset_t* const set = ds_dimset_at(words_.data());
        const uint32_t id = warm_slice_run_dimset(warm_, stretch.run);
        ST_TRY(warm_slice_go_on(warm_, 1, rc));
        ST_TRY(ds_reader_read(dimsets_, id, set, DS_MAX_DIMSET_SIZE_WORDS, rc));
        const std::span<const uint32_t> columns = ds_dimset_opt_cols(set);
        if (columns.empty()) return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "a dimension set without a measure");
        walked_set walked = {};
        walked.id = id;
        walked.end = stretch.end;
        walked.first_dimension = dimensions_.size();
        walked.first_measure = measures_.size();
        for (const uint32_t term : columns) {
            walked_metric* metric = nullptr;
            ST_TRY(find_metric(term, &metric, rc));
            if (!metric->is_wanted) continue;
            measures_.push_back({metric->name, 0});
            metrics_of_measures_.push_back(metric);
        }
        walked.measures = measures_.size() - walked.first_measure;
        if (walked.measures > 0) ST_TRY(read_dimensions(set, ids, rc));
        walked.dimensions = dimensions_.size() - walked.first_dimension;
        // The memory for measures is shared out evenly.
        const uint64_t share = MAX_MEASURES_HELD / merge_.stretches.size() / std::max<size_t>(walked.measures, 1);
        walked.piece = static_cast<uint32_t>(std::clamp<uint64_t>(share, SHORTEST_PIECE, LONGEST_PIECE));
        walked.piece = std::min(walked.piece, stretch.end - stretch.next);
        set_of_run_[stretch.run] = static_cast<uint32_t>(sets_.size());
        sets_.push_back(std::move(walked));
        return 0;
    }

    int read_dimensions(const ds_dimset_t* set, std::vector<uint32_t>* ids, warm_rc_t* rc) {
        std::vector<uint32_t> terms;
        for (const uint32_t term : ds_dimset_all_dims(set)) {
            if (term != DS_NO_TERM) terms.push_back(term);
        }
        std::sort(terms.begin(), terms.end());  // ids ascend as the texts do
        for (const uint32_t term : terms) {
            std::string_view text;
            if (ids == nullptr) ST_TRY(texts_.find(warm_, term, &text, rc));
            dimensions_.push_back(text);
        }
        if (ids != nullptr) ids->insert(ids->end(), terms.begin(), terms.end());
        return 0;
    }

    int find_metric(uint32_t term, walked_metric** out, warm_rc_t* rc) {
        const auto [place, is_new] = metrics_.try_emplace(term);
        walked_metric* const metric = *out = &place->second;
        if (!is_new) return 0;
        ST_TRY(texts_.find(warm_, term, &metric->name, rc));
        if (metric->name.starts_with(METRIC_NAME)) metric->name.remove_prefix(METRIC_NAME.size());
        metric->term = term;
        metric->is_wanted = wanted_ == nullptr || wanted_(metric->name);
        return 0;
    }

    int open_column(walked_metric* metric, warm_rc_t* rc) {
        if (metric->is_open) return 0;
        ST_TRY(cset_reader_open(&metric->column, store_, metric->term, nullptr, rc));
        metric->is_open = true;
        return 0;
    }

    // Reads the piece of the set's values that begins at `value`.
    int read_piece(walked_set* set, uint32_t value, warm_rc_t* rc) {
        uint8_t present[LONGEST_PIECE];
        const uint32_t count = std::min(set->piece, set->end - value);
        ST_ASSERT(value < set->end && count <= LONGEST_PIECE);
        set->values.resize(set->piece * set->measures);
        for (size_t i = 0; i < set->measures; i++) {
            walked_metric* const metric = metrics_of_measures_[set->first_measure + i];
            ST_TRY(open_column(metric, rc));
            ST_TRY(cset_reader_range(&metric->column, value, count, set->values.data() + i * set->piece, present, rc));
            if (std::find(present, present + count, 0) != present + count) {
                return _set_rc_verbose(rc, WARM_RC_CORRUPT, value, "a value lacks a measure of its dimension set");
            }
        }
        set->held_from = value;
        set->held_to = value + count;
        return 0;
    }

    int take_measures(walked_set* set, uint32_t value, warm_rc_t* rc) {
        if (value < set->held_from || value >= set->held_to) ST_TRY(read_piece(set, value, rc));
        const double* at = set->values.data() + (value - set->held_from);
        for (size_t i = 0; i < set->measures; i++, at += set->piece) measures_[set->first_measure + i].value = *at;
        return 0;
    }

    WARM* warm_;
    const metric_choice& wanted_;
    const cs_reader_t* store_ = nullptr;
    ds_reader_t* dimsets_ = nullptr;
    run_merge_t merge_;
    std::vector<uint32_t> set_of_run_;  // place in sets_, or NOT_READ
    std::vector<walked_set> sets_;
    std::vector<uint32_t> words_;
    term_texts texts_;
    std::unordered_map<uint32_t, walked_metric> metrics_;  // by term
    std::vector<std::string_view> dimensions_;             // of all sets read
    std::vector<st_metric_measure_t> measures_;            // of all sets read
    std::vector<walked_metric*> metrics_of_measures_;
};

int need_columns(const WARM* warm, warm_rc_t* rc) {
    const bool has_columns = warm_slice_has_runs(warm) && st_warm_slice_is_msidx_with_cstore(warm->body);
    if (!has_columns) return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "not a msidx cstore tsidx");
    return st_warm_slice_has_fclex(warm) ? 0 : _set_rc_msg(rc, WARM_RC_MINIFIED, "minified slice");
}

}  // namespace

int warm_slice_metric_events(WARM* warm, const parsed_query_t& query, const metric_choice& wanted,
                             const metric_event_visitor& visit, warm_rc_t* rc) {
    ST_TRY(need_columns(warm, rc));
    metric_walk walk(warm, wanted);
    ST_TRY(walk.open(query, rc));
    return walk.run(query.spec.cumspan, visit, rc);
}

int warm_slice_measure_size(WARM* warm, uint64_t* bytes, warm_rc_t* rc) {
    *bytes = 0;
    if (!st_warm_slice_is_msidx_with_cstore(warm->body) || !st_warm_slice_is_msidx(warm->body)) return 0;
    const cs_reader_t* const store = st_warm_slice_cstore(warm, rc);
    if (store == nullptr) return rc->warm_rc;
    *bytes = store->section_size;
    return 0;
}

}  // namespace veldar

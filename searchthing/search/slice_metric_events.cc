#include "searchthing/search/slice_metric_events.h"

#include <algorithm>
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

// The texts of the terms that the sets of a walk name, by id, without their leading blank.
class term_texts {
  public:
    // Sorts the ids and reads their texts. 0 or a status.
    int load(WARM* warm, std::vector<uint32_t> ids, warm_rc_t* rc) {
        std::sort(ids.begin(), ids.end());
        ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
        ids_ = std::move(ids);
        ends_.clear();
        text_.clear();
        for (const uint32_t id : ids_) {
            char term[ST_TERM_BUFFER_SIZE];
            ST_TRY(st_fclex_get_term_from_id(warm->lexicon, id, term, sizeof term, nullptr, rc));
            text_.append(*term == ' ' ? term + 1 : term);
            ends_.push_back(text_.size());
        }
        return 0;
    }

    // The place of an id that was loaded.
    size_t place(uint32_t id) const {
        return static_cast<size_t>(std::lower_bound(ids_.begin(), ids_.end(), id) - ids_.begin());
    }
    std::string_view text(uint32_t id) const {
        const size_t at = place(id);
        ST_ASSERT(at < ids_.size() && ids_[at] == id);
        const size_t begin = at == 0 ? 0 : ends_[at - 1];
        return std::string_view(text_).substr(begin, ends_[at] - begin);
    }
    const std::vector<uint32_t>& ids() const { return ids_; }

  private:
    std::vector<uint32_t> ids_;
    std::vector<size_t> ends_;
    std::string text_;
};

// The column sets of the measures in a walk.
class open_columns {
  public:
    open_columns() = default;
    open_columns(const open_columns&) = delete;
    open_columns& operator=(const open_columns&) = delete;
    ~open_columns() {
        for (cset_reader_t& column : columns_) cset_reader_close(&column);
    }

    // 0 or a status.
    int open(WARM* warm, const std::vector<uint32_t>& ids, warm_rc_t* rc) {
        const cs_reader_t* const store = st_warm_slice_cstore(warm, rc);
        if (store == nullptr) return rc->warm_rc;
        columns_.resize(ids.size());
        for (size_t i = 0; i < ids.size(); i++) ST_TRY(cset_reader_open(&columns_[i], store, ids[i], nullptr, rc));
        return 0;
    }
    cset_reader_t* at(size_t place) { return &columns_[place]; }

  private:
    std::vector<cset_reader_t> columns_;
};

// A dimension set with matching values. Its measures are read a piece of its values at a time.
struct walked_set {
    uint32_t id;
    uint32_t end;  // of its values inside the bounds
    size_t first_dimension, dimensions;
    size_t first_measure, measures;
    size_t first_value;  // of its piece in the values held: a row of `piece` values for each measure
    uint32_t piece;
    uint32_t held_from, held_to;  // the values in the piece
};

// The matching events of one slice.
class metric_walk {
  public:
    explicit metric_walk(WARM* warm) : warm_(warm) {}

    // 0 or a status; may throw std::bad_alloc, as may `run`.
    int open(const parsed_query_t& query, warm_rc_t* rc) {
        ST_TRY(warm_slice_merge_runs(warm_, query, &merge_, rc));
        std::vector<uint32_t> dimension_ids, measure_ids;
        ST_TRY(read_sets(&dimension_ids, &measure_ids, rc));
        ST_TRY(dimension_texts_.load(warm_, dimension_ids, rc));
        ST_TRY(measure_texts_.load(warm_, measure_ids, rc));
        ST_TRY(columns_.open(warm_, measure_texts_.ids(), rc));
        for (const uint32_t id : dimension_ids) dimensions_.push_back(dimension_texts_.text(id));
        for (const uint32_t id : measure_ids) {
            std::string_view name = measure_texts_.text(id);
            if (name.starts_with(METRIC_NAME)) name.remove_prefix(METRIC_NAME.size());
            measures_.push_back({name, 0});
            column_places_.push_back(measure_texts_.place(id));
        }
        return reserve_pieces(rc);
    }

    // Gives every event to `visit`, newest first, until that returns false. 0 or a status.
    int run(uint32_t cumspan, const metric_event_visitor& visit, warm_rc_t* rc) {
        uint32_t value = 0, run = 0;
        for (; run_merge_peek(&merge_, &value, &run);) {
            const st_timeval_t time = run_merge_time(&merge_);
            if (cumspan == 0 || static_cast<uint32_t>(time.time_s) % cumspan == 0) {
                walked_set& set = sets_[set_of_run_[run]];
                ST_TRY(take_measures(&set, value, rc));
                const st_metric_event_t event = {time.time_s, static_cast<uint32_t>(time.time_ns), set.id,
                                                 std::span(dimensions_).subspan(set.first_dimension, set.dimensions),
                                                 std::span(measures_).subspan(set.first_measure, set.measures)};
                if (!visit(event)) return 0;
            }
            ST_TRY(run_merge_pass(&merge_, rc));
        }
        return 0;
    }

  private:
    // Reads the sets of the selected runs in the order of their ids. The terms of each lie together in the two lists.
    int read_sets(std::vector<uint32_t>* dimension_ids, std::vector<uint32_t>* measure_ids, warm_rc_t* rc) {
        ds_reader_t* const dimsets = st_warm_slice_dimset_reader(warm_, rc);
        if (dimsets == nullptr) return rc->warm_rc;
        set_of_run_.resize(warm_slice_runs(warm_));
        std::vector<uint32_t> words(DS_MAX_DIMSET_SIZE_WORDS);
        ds_dimset_t* const set = ds_dimset_at(words.data());
        // Runs come in the order of their numbers, which is not that of their sets.
        for (auto it = merge_.stretches.rbegin(); it != merge_.stretches.rend(); ++it) {
            const run_stretch_t& stretch = *it;
            ST_ASSERT(stretch.next < stretch.end);
            const uint32_t id = warm_slice_run_dimset(warm_, stretch.run);
            ST_ASSERT(sets_.empty() || sets_.back().id < id);
            ST_TRY(ds_reader_read(dimsets, id, set, DS_MAX_DIMSET_SIZE_WORDS, rc));
            const std::span<const uint32_t> columns = ds_dimset_opt_cols(set);
            if (columns.empty()) return _set_rc_verbose(rc, WARM_RC_CORRUPT, id, "a dimension set without a measure");
            set_of_run_[stretch.run] = static_cast<uint32_t>(sets_.size());
            walked_set walked = {};
            walked.id = id;
            walked.end = stretch.end;
            walked.first_dimension = dimension_ids->size();
            for (const uint32_t term : ds_dimset_all_dims(set)) {
                if (term != DS_NO_TERM) dimension_ids->push_back(term);
            }
            walked.dimensions = dimension_ids->size() - walked.first_dimension;
            // Ids ascend as the texts do.
            std::sort(dimension_ids->end() - static_cast<ptrdiff_t>(walked.dimensions), dimension_ids->end());
            walked.first_measure = measure_ids->size();
            walked.measures = columns.size();
            measure_ids->insert(measure_ids->end(), columns.begin(), columns.end());
            walked.piece = stretch.end - stretch.next;
            sets_.push_back(walked);
        }
        return 0;
    }

    // Shares the memory for measures out: pieces as long as it allows, none longer than its set's values.
    int reserve_pieces(warm_rc_t* rc) {
        uint32_t longest = LONGEST_PIECE;
        const auto needed = [&] {
            uint64_t total = 0;
            for (const walked_set& set : sets_) total += std::min(set.piece, longest) * uint64_t{set.measures};
            return total;
        };
        while (longest > SHORTEST_PIECE && needed() > MAX_MEASURES_HELD) longest /= 2;
        if (!values_.alloc(needed())) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "measures of a slice");
        size_t at = 0;
        for (walked_set& set : sets_) {
            set.piece = std::min(set.piece, longest);
            set.first_value = at;
            at += set.piece * set.measures;
        }
        ST_ASSERT(at == values_.size());
        return 0;
    }

    // Reads the piece of the set's values that begins at `value`.
    int read_piece(walked_set* set, uint32_t value, warm_rc_t* rc) {
        uint8_t present[LONGEST_PIECE];
        const uint32_t count = std::min(set->piece, set->end - value);
        ST_ASSERT(value < set->end && count <= LONGEST_PIECE);
        for (size_t i = 0; i < set->measures; i++) {
            cset_reader_t* const column = columns_.at(column_places_[set->first_measure + i]);
            double* const row = values_.data() + set->first_value + i * set->piece;
            ST_TRY(cset_reader_range(column, value, count, row, present, rc));
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
        const double* at = values_.data() + set->first_value + (value - set->held_from);
        for (size_t i = 0; i < set->measures; i++, at += set->piece) measures_[set->first_measure + i].value = *at;
        return 0;
    }

    WARM* warm_;
    run_merge_t merge_;
    std::vector<uint32_t> set_of_run_;
    std::vector<walked_set> sets_;
    term_texts dimension_texts_, measure_texts_;
    open_columns columns_;
    std::vector<std::string_view> dimensions_;   // of all sets
    std::vector<st_metric_measure_t> measures_;  // of all sets
    std::vector<size_t> column_places_;          // by measure: its column set
    buffer<double> values_;
};

int need_columns(const WARM* warm, warm_rc_t* rc) {
    const bool has_columns = warm_slice_has_runs(warm) && st_warm_slice_is_msidx_with_cstore(warm->body);
    if (!has_columns) return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "not a msidx cstore tsidx");
    return st_warm_slice_has_fclex(warm) ? 0 : _set_rc_msg(rc, WARM_RC_MINIFIED, "minified slice");
}

}  // namespace

int warm_slice_metric_events(WARM* warm, const parsed_query_t& query, const metric_event_visitor& visit,
                             warm_rc_t* rc) {
    ST_TRY(need_columns(warm, rc));
    metric_walk walk(warm);
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

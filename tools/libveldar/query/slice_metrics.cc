#include "tools/libveldar/query/slice_metrics.h"

#include <algorithm>
#include <array>
#include <map>

#include "searchthing/columns/cstore.h"
#include "searchthing/columns/dimset_io.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/slice/warmslice_values.h"
#include "tools/libveldar/formats/metric_record.h"

namespace veldar::tool {

namespace {

constexpr uint32_t STRETCH = 512;  // values read at once

// The terms of the slice, and what the walk through its sets works with.
struct sets_walk {
    WARM* warm = nullptr;
    std::string text;  // of all terms, one behind the other
    std::vector<size_t> text_end;
    slice_metric_set set;
    const std::function<int(const slice_metric_set&)>* visit = nullptr;
};

int take_term(int32_t, const char* term, size_t length, void* context) {
    auto* const walk = static_cast<sets_walk*>(context);
    walk->text.append(term, length);
    walk->text_end.push_back(walk->text.size());
    return 0;
}

int add_term(const sets_walk& walk, uint32_t term, std::string_view prefix, std::vector<std::string_view>* out,
             warm_rc_t* rc) {
    const size_t begin = term == 0 || term >= walk.text_end.size() ? 0 : walk.text_end[term - 1];
    const size_t end = term >= walk.text_end.size() ? 0 : walk.text_end[term];
    const std::string_view text = std::string_view(walk.text).substr(begin, end - begin);
    if (!text.starts_with(prefix)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "term of a dimension set");
    out->push_back(text.substr(prefix.size()));
    return 0;
}

int take_set(uint32_t id, const ds_dimset_t* words, void* context, warm_rc_t* rc) {
    auto* const walk = static_cast<sets_walk*>(context);
    slice_metric_set* const set = &walk->set;
    set->dimensions.clear();
    set->names.clear();
    set->columns.clear();
    ST_TRY(warm_slice_run(walk->warm, warm_slice_runs(walk->warm) - 1 - id, &set->run, rc));
    for (const uint32_t term : ds_dimset_all_dims(words)) {
        if (term != DS_NO_TERM) ST_TRY(add_term(*walk, term, "", &set->dimensions, rc));
        if (term != DS_NO_TERM && set->dimensions.back().starts_with(' ')) set->dimensions.back().remove_prefix(1);
    }
    for (const uint32_t term : ds_dimset_opt_cols(words)) {
        ST_TRY(add_term(*walk, term, METRIC_NAME_TERM, &set->names, rc));
        set->columns.push_back(term);
    }
    return (*walk->visit)(*set);
}

// The samples of up to STRETCH values of a set, column by column, and the columns that are open for them.
struct samples_walk {
    WARM* warm = nullptr;
    cs_reader_t* store = nullptr;
    std::map<uint32_t, cset_reader_t> columns;
    std::vector<std::array<double, STRETCH>> values;
    std::vector<std::array<uint8_t, STRETCH>> present;
    const std::function<bool(const slice_metric_sample&)>* visit = nullptr;
    bool ended = false;
};

int read_stretch(samples_walk* walk, const slice_metric_set& set, uint32_t first, uint32_t count, warm_rc_t* rc) {
    walk->values.resize(std::max(walk->values.size(), set.columns.size()));
    walk->present.resize(walk->values.size());
    for (size_t i = 0; i < set.columns.size(); i++) {
        const auto [column, is_new] = walk->columns.try_emplace(set.columns[i]);
        if (is_new) ST_TRY(cset_reader_open(&column->second, walk->store, set.columns[i], nullptr, rc));
        ST_TRY(cset_reader_range(&column->second, first, count, walk->values[i].data(), walk->present[i].data(), rc));
    }
    return 0;
}

int walk_samples(samples_walk* walk, const slice_metric_set& set, warm_rc_t* rc) {
    const uint32_t end = set.run.first + set.run.count;
    for (uint32_t first = set.run.first; first < end; first += STRETCH) {
        const uint32_t count = std::min(STRETCH, end - first);
        ST_TRY(read_stretch(walk, set, first, count, rc));
        for (uint32_t i = 0; i < count; i++) {
            slice_metric_sample sample = {&set, 0, 0, 0, 0};
            ST_TRY(get_tsval_timestamp(walk->warm, first + i, &sample.time, &sample.nanoseconds, rc));
            for (; sample.name < set.columns.size() && !walk->ended; sample.name++) {
                sample.value = walk->values[sample.name][i];
                walk->ended = walk->present[sample.name][i] != 0 && !(*walk->visit)(sample);
            }
            if (walk->ended) return 1;
        }
    }
    return 0;
}

}  // namespace

int slice_metric_sets(WARM* warm, const std::function<int(const slice_metric_set&)>& visit, warm_rc_t* rc) {
    sets_walk walk;
    walk.warm = warm;
    walk.visit = &visit;
    if (!warm_slice_has_runs(warm) || !st_warm_slice_has_fclex(warm)) {
        return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "not a slice of metrics, or an old one");
    }
    const int64_t walked = st_fclex_apply(warm->lexicon, nullptr, take_term, &walk, nullptr);
    if (walked < 0) return _set_rc_msg(rc, static_cast<int>(walked), "lexicon");
    ds_reader_t* const sets = st_warm_slice_dimset_reader(warm, rc);
    if (sets == nullptr) return rc->warm_rc;
    if (sets->num_dimsets != warm_slice_runs(warm)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "number of dimension sets");
    return ds_reader_apply(sets, ds_verify_version(warm->body), take_set, &walk, rc);
}

int slice_metric_samples(WARM* warm, const std::function<bool(const slice_metric_sample&)>& visit, warm_rc_t* rc) {
    samples_walk walk;
    walk.warm = warm;
    walk.visit = &visit;
    walk.store = st_warm_slice_cstore(warm, rc);
    if (walk.store == nullptr) return rc->warm_rc;
    const int status = slice_metric_sets(
        warm, [&](const slice_metric_set& set) { return walk_samples(&walk, set, rc); }, rc);
    return walk.ended ? 0 : status;
}

}  // namespace veldar::tool

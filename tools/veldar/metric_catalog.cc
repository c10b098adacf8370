#include "tools/veldar/metric_catalog.h"

#include <xxhash.h>

#include <algorithm>
#include <vector>

#include "searchthing/dimset_io.h"
#include "searchthing/fclex.h"
#include "searchthing/warmslice_runs.h"
#include "searchthing/warmslice_values.h"
#include "tools/veldar/command.h"
#include "tools/veldar/formats/metric_record.h"

namespace veldar {

namespace {

// What the walk through the sets of one slice works with.
struct slice_walk {
    metric_catalog* catalog = nullptr;
    WARM* warm = nullptr;
    std::string text;                          // of all terms, one behind the other
    std::vector<size_t> text_end;              // by term
    std::vector<std::string_view> dimensions;  // of the set at hand, without their blanks
    std::string label;
};

int take_term(int32_t, const char* term, size_t length, void* context) {
    auto* const walk = static_cast<slice_walk*>(context);
    walk->text.append(term, length);
    walk->text_end.push_back(walk->text.size());
    return 0;
}

int read_terms(slice_walk* walk, warm_rc_t* rc) {
    if (!st_warm_slice_has_fclex(walk->warm)) return _set_rc_msg(rc, WARM_RC_NO_SECTION, "no lexicon");
    const int64_t walked = st_fclex_apply(walk->warm->lexicon, nullptr, take_term, walk, nullptr);
    return walked < 0 ? _set_rc_msg(rc, static_cast<int>(walked), "lexicon") : 0;
}

int term_text(const slice_walk& walk, uint32_t term, std::string_view prefix, std::string_view* text, warm_rc_t* rc) {
    if (term >= walk.text_end.size()) return _set_rc_msg(rc, WARM_RC_CORRUPT, "term of a dimension set");
    const size_t begin = term == 0 ? 0 : walk.text_end[term - 1];
    *text = std::string_view(walk.text).substr(begin, walk.text_end[term] - begin);
    if (!text->starts_with(prefix)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "term of a dimension set");
    text->remove_prefix(prefix.size());
    return 0;
}

// The hash of the set's labels, whose texts come to walk->dimensions.
int read_dimensions(slice_walk* walk, const ds_dimset_t* set, uint64_t* hash, warm_rc_t* rc) {
    *hash = 0;
    walk->dimensions.clear();
    for (const uint32_t term : ds_dimset_all_dims(set)) {
        if (term == DS_NO_TERM) continue;
        ST_TRY(term_text(*walk, term, " ", &walk->dimensions.emplace_back(), rc));
        *hash = XXH64(walk->dimensions.back().data(), walk->dimensions.back().size(), *hash + 1);
    }
    return 0;
}

void add_labels(slice_walk* walk) {
    for (const std::string_view dimension : walk->dimensions) {
        std::string_view value;
        metric_term_split(dimension, &walk->label, &value);
        metric_label_totals& totals = walk->catalog->labels[walk->label];
        totals.sets++;
        totals.values[std::string(value)]++;
    }
}

int take_set(uint32_t id, const ds_dimset_t* set, void* context, warm_rc_t* rc) {
    auto* const walk = static_cast<slice_walk*>(context);
    warm_run_t run;
    st_time_t earliest = 0, latest = 0;
    uint64_t subseconds = 0, hash = 0;
    ST_TRY(warm_slice_run(walk->warm, warm_slice_runs(walk->warm) - 1 - id, &run, rc));
    ST_TRY(get_tsval_timestamp(walk->warm, run.first, &latest, &subseconds, rc));
    ST_TRY(get_tsval_timestamp(walk->warm, run.first + run.count - 1, &earliest, &subseconds, rc));
    ST_TRY(read_dimensions(walk, set, &hash, rc));
    if (walk->catalog->sets.insert(hash).second) add_labels(walk);
    for (const uint32_t column : ds_dimset_opt_cols(set)) {
        std::string_view name;
        ST_TRY(term_text(*walk, column, METRIC_NAME_TERM, &name, rc));
        metric_name_totals& totals = walk->catalog->names[std::string(name)];
        totals.points += run.count;
        totals.sets.insert(hash);
        totals.earliest = std::min(totals.earliest, earliest);
        totals.latest = std::max(totals.latest, latest);
    }
    return 0;
}

int read_slice(metric_catalog* catalog, WARM* warm, warm_rc_t* rc) {
    slice_walk walk;
    walk.catalog = catalog;
    walk.warm = warm;
    if (!warm_slice_has_runs(warm))
        return _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "not a slice of metrics, or an old one");
    ST_TRY(read_terms(&walk, rc));
    ds_reader_t* const sets = st_warm_slice_dimset_reader(warm, rc);
    if (sets == nullptr) return rc->warm_rc;
    if (sets->num_dimsets != warm_slice_runs(warm)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "number of dimension sets");
    return ds_reader_apply(sets, ds_verify_version(warm->body), take_set, &walk, rc);
}

// False when a slice vanished.
bool read_slices(const slice_set& slices, metric_catalog* catalog, troubles* trouble) {
    *catalog = {};
    for (const slice_file& file : slices.files) {
        warm_ptr warm;
        std::string error;
        warm_rc_t rc;
        const slice_state_t state = slice_open(file, &warm, &error);
        if (state == SLICE_VANISHED) return false;
        if (state == SLICE_UNREADABLE) {
            troubles_add(trouble, error);
        } else if (read_slice(catalog, warm.get(), &rc) != 0) {
            if (rc.warm_rc == WARM_RC_NO_MEMORY) throw tool_failure{EXIT_IO, "out of memory"};
            troubles_add(trouble, slice_error(file, rc));
        }
    }
    return true;
}

}  // namespace

metric_catalog metric_catalog_read(const std::string& directory, troubles* trouble) {
    metric_catalog catalog;
    slices_visit(directory, trouble, [&](const slice_set& slices) { return read_slices(slices, &catalog, trouble); });
    return catalog;
}

}  // namespace veldar

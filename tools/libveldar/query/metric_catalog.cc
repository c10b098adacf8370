#include "tools/libveldar/query/metric_catalog.h"

#include <xxhash.h>

#include <algorithm>

#include "searchthing/slice/warmslice_values.h"
#include "tools/libveldar/formats/metric_record.h"
#include "tools/libveldar/query/slice_metrics.h"

namespace veldar::tool {

namespace {

uint64_t hash_of(const slice_metric_set& set) {
    uint64_t hash = 0;
    for (const std::string_view dimension : set.dimensions) hash = XXH64(dimension.data(), dimension.size(), hash + 1);
    return hash;
}

void add_labels(metric_catalog* catalog, const slice_metric_set& set) {
    std::string label;
    std::string_view value;
    for (const std::string_view dimension : set.dimensions) {
        metric_term_split(dimension, &label, &value);
        metric_label_totals& totals = catalog->labels[label];
        totals.sets++;
        totals.values[std::string(value)]++;
    }
}

int add_set(metric_catalog* catalog, WARM* warm, const slice_metric_set& set, warm_rc_t* rc) {
    st_time_t earliest = 0, latest = 0;
    uint64_t subseconds = 0;
    ST_TRY(get_tsval_timestamp(warm, set.run.first, &latest, &subseconds, rc));
    ST_TRY(get_tsval_timestamp(warm, set.run.first + set.run.count - 1, &earliest, &subseconds, rc));
    const uint64_t hash = hash_of(set);
    if (catalog->sets.insert(hash).second) add_labels(catalog, set);
    for (const std::string_view name : set.names) {
        metric_name_totals& totals = catalog->names[std::string(name)];
        totals.points += set.run.count;
        totals.sets.insert(hash);
        totals.earliest = std::min(totals.earliest, earliest);
        totals.latest = std::max(totals.latest, latest);
    }
    return 0;
}

int read_slice(metric_catalog* catalog, WARM* warm, warm_rc_t* rc) {
    return slice_metric_sets(
        warm, [&](const slice_metric_set& set) { return add_set(catalog, warm, set, rc); }, rc);
}

}  // namespace

metric_catalog metric_catalog_read(const std::string& directory, troubles* trouble) {
    metric_catalog catalog;
    const slice_set set = slices_list(directory);
    slices_tell_errors(set, trouble);
    tsidx_snapshot slices(slices_sources(set), slices_hear(trouble));
    warm_rc_t rc;
    const auto add_slice = [&](size_t i, warm_rc_t* why) { return read_slice(&catalog, slices.warm(i), why); };
    const auto add_all = [&]() -> int64_t {
        catalog = {};
        return slices.each(TSIDX_FIRST_TIME, TSIDX_LAST_TIME, add_slice, &rc);
    };
    if (slices.hold(add_all, &rc) != 0) slice_tell(directory, rc, trouble);
    return catalog;
}

}  // namespace veldar::tool

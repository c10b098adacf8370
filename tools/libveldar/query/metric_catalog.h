// What a metric directory holds, told from dimension sets, preambles and lexicons without reading a measure.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_set>

#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

// A set is a combination of labels, whatever is measured under it. Sets are told apart by 64-bit hashes.
using metric_set_hashes = std::unordered_set<uint64_t>;

struct metric_name_totals {
    uint64_t points = 0;
    metric_set_hashes sets;
    st_time_t earliest = INT32_MAX, latest = INT32_MIN;
};
struct metric_label_totals {
    std::map<std::string, uint64_t> values;  // the sets of each
    uint64_t sets = 0;
};

struct metric_catalog {
    std::map<std::string, metric_name_totals> names;
    std::map<std::string, metric_label_totals> labels;
    metric_set_hashes sets;
};

// Reads the metric slices of a directory; a slice that cannot be read is told to `trouble` and left out. When slices
// vanish on the way, as merged ones do, it begins again. Throws failure_t.
metric_catalog metric_catalog_read(const std::string& directory, troubles* trouble);

}  // namespace veldar::tool

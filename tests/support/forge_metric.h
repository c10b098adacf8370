// The forge of metric slices: "_MSIDX4" files with runs, dimension sets and a column store, byte by byte.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/forge.h"

namespace veldar {

struct forge_metric_event {
    int32_t time = 0;
    uint32_t milliseconds = 0;               // 0 to 999; kept in slices with milliseconds
    std::vector<std::string> dimensions;     // terms with their leading blank
    std::map<std::string, double> measures;  // by metric term, " metric_name::cpu"; at least one
    uint32_t s = 0, st = 0, h = 0;
};

struct forge_metric_options {
    bool milliseconds = false;
    forge_options terms;  // flags of the posting lists, terms per block, encodings, seed
    std::string name() const;
};

// What a reader must find. The base's terms, postings (run numbers), encodings, lists, earliest and latest are filled;
// its values are empty.
struct forge_metric_picture : forge_picture {
    std::vector<std::vector<uint32_t>> sets;            // words 2 to the end, by set id
    std::vector<uint32_t> columns;                      // columns of each set
    std::vector<std::vector<forge_metric_event>> runs;  // by run: its events, newest first
    uint32_t num_values = 0;                            // runs included
    uint64_t cstore = 0;                                // file offset of the column store
};

// The file's bytes. Throws std::invalid_argument for what the format cannot express.
std::string forge_metric_slice(const std::vector<forge_metric_event>& events, const forge_metric_options& options,
                               forge_metric_picture* picture = nullptr);
// Forges a slice into `directory` under its proper name and returns its path.
std::string forge_metric_file(const std::string& directory, const std::vector<forge_metric_event>& events,
                              const forge_metric_options& options, uint64_t id = 1,
                              forge_metric_picture* picture = nullptr);

// Seeded random samples of random sets: shared times, sparse measures, special doubles, sets of one event.
std::vector<forge_metric_event> forge_random_metrics(uint64_t seed, uint32_t count);

}  // namespace veldar

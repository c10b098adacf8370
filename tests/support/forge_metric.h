// The forge of metric slices: "_MSIDX4" files with runs, dimension sets and a column store, byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/forge.h"
#include "tests/support/metric_events.h"
#include "tests/support/reference.h"

namespace veldar {

struct forge_metric_options {
    bool milliseconds = false;
    uint32_t store = 2;   // version of the column store
    forge_options terms;  // flags of the posting lists, terms per block, encodings, seed
    std::string name() const;
};

// What a reader must find. The base's terms, postings (run numbers), encodings, lists, earliest and latest are filled;
// its values are empty.
struct forge_metric_picture : forge_picture {
    std::vector<std::vector<uint32_t>> sets;      // words 2 to the end, by set id
    std::vector<uint32_t> columns;                // columns of each set
    std::vector<std::vector<metric_event>> runs;  // by run: its events, newest first
    uint32_t num_values = 0;                      // runs included
    uint64_t cstore = 0;                          // file offset of the column store
};

// The file's bytes. Throws std::invalid_argument for what the format cannot express.
std::string forge_metric_slice(const std::vector<metric_event>& events, const forge_metric_options& options,
                               forge_metric_picture* picture = nullptr);
// Forges a slice into `directory` under its proper name and returns its path.
std::string forge_metric_file(const std::string& directory, const std::vector<metric_event>& events,
                              const forge_metric_options& options, uint64_t id = 1,
                              forge_metric_picture* picture = nullptr);

inline std::vector<metric_event> forge_random_metrics(uint64_t seed, uint32_t count) {
    return random_metric_events(seed, count);
}
// The same events as the reference takes them: with the terms of their sets, milliseconds as addresses (0 when they are
// not kept), and their place in `events` as s.
reference_index metric_reference(const std::vector<metric_event>& events, bool milliseconds);

}  // namespace veldar

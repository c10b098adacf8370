// What warmslice_create.cc and its metric part share.
#pragma once

#include <cstdint>
#include <span>

#include "libzero/resource.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/hot/hotslice.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// The posting lists of a slice: term by term, each strictly ascending.
struct create_lists_t {
    std::span<const uint32_t> counts;
    std::span<const uint32_t> postings;
};

// What a metric slice has beyond an event slice. The column store is written behind the slice's buffer.
struct create_metrics_t {
    buffer<uint32_t> postings;  // preamble numbers
    cs_builder_t cstore;
    create_metrics_t() = default;
    create_metrics_t(const create_metrics_t&) = delete;
    create_metrics_t& operator=(const create_metrics_t&) = delete;
    ~create_metrics_t() { cs_builder_close(&cstore); }
};

// In the order of their calls: the column store, its reference and the other header fields of a metric slice, and the
// posting lists; the values section and its companions, in a slice whose header is complete; the dimension sets behind
// the posting lists, which end at `used`. Those that can fail return 0 or a status.
[[nodiscard]] int create_metrics_open(create_metrics_t* metrics, const HOT* hot, st_warm_slice_body* header,
                                      warm_rc_t* rc);
[[nodiscard]] int ds_store_values_from_prepared_hot(WARM* warm, const HOT* hot, warm_rc_t* rc);
void create_metrics_dimsets(WARM* warm, const HOT* hot, uint64_t* used);
// Bytes of the dimension sets.
uint64_t create_metrics_dimsets_size(const HOT* hot);

}  // namespace veldar

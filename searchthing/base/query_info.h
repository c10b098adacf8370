// Accounting record of one query, shared with every reader that works for it. Null is allowed wherever it is passed.
#pragma once

#include <cstdint>

#include "searchthing/base/language.h"

namespace veldar {

struct st_query_info_s {
    uint64_t read_histogram[7] =
        {};  // bucket b: reads of 8^b <= t < 8^(b+1) microseconds, the first from 0, the last open
    uint64_t reads = 0;
    uint64_t bytes = 0;
    uint32_t no_lexicon = 0;  // set when a slice without a lexicon was searched
    uint64_t refused = 0;     // values that a selection wanted as numbers and that are none
    int (*callback)(void* context) = nullptr;
    void* context = nullptr;
};
using st_query_info_t = st_query_info_s;

}  // namespace veldar

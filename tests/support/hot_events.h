// Puts the forge's events into a hot slice, as an ingesting program would.
#pragma once

#include <memory>
#include <vector>

#include "searchthing/hotslice.h"
#include "tests/support/forge.h"

namespace veldar {

struct hot_closer {
    void operator()(HOT* hot) const { st_hot_slice_close(hot); }
};
using hot_ptr = std::unique_ptr<HOT, hot_closer>;

st_txn txn_of(const forge_event& event);
// Oldest first, the order that streaming mode needs.
void sort_by_arrival(std::vector<forge_event>* events);
// A hot slice with room for tens of thousands of events, holding these.
hot_ptr hot_with(const std::vector<forge_event>& events, bool streaming);

}  // namespace veldar

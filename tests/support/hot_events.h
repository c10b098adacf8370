// Puts the forge's events into a hot slice or a directory, as an ingesting program would, and reads them back.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "searchthing/directory/tsidx.h"
#include "searchthing/hot/hotslice.h"
#include "tests/support/forge.h"

namespace veldar {

st_txn txn_of(const forge_event& event);
// Oldest first, the order that streaming mode needs.
void sort_by_arrival(std::vector<forge_event>* events);
// A hot slice with room for tens of thousands of events, holding these.
hot_ptr hot_with(const std::vector<forge_event>& events, bool streaming);

// One event as one transaction; the result of its close, or of the first call that failed.
int put_event(TSIDX* tsidx, const forge_event& event);

// The events of one slice through the engine's readers, newest first, with their terms in ascending order. Adds a bit
// for each kind of list (plo_type_t) to `kinds`. Throws std::runtime_error.
std::vector<forge_event> read_slice(const std::string& path, uint32_t* kinds = nullptr);
// Every event of every ".tsidx" file of the directory, sorted by arrival.
std::vector<forge_event> read_created_slices(const std::string& directory);
// The same order and form for events in any order: terms sorted and distinct, what creation does not store left out.
std::vector<forge_event> as_stored(std::vector<forge_event> events);
bool operator==(const forge_event& a, const forge_event& b);
std::vector<std::string> files_in(const std::string& directory, const std::string& suffix);

}  // namespace veldar

// What a store keeps beside its slices, checked against them: the source map must know the address of every event, and
// the dictionaries its host, source and source type.
#pragma once

#include <string>
#include <vector>

#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/source_map.h"

namespace veldar::tool {

struct store_names {
    std::vector<std::string> hosts, sources, sourcetypes;
};
// False with a message when a dictionary cannot be read.
bool store_names_read(const std::string& store, store_names* names, std::string* error);

// Checks the events of one slice in which nothing else is wrong; deleted ones are left out. Returns what was found, a
// line each.
std::vector<std::string> fsck_store_slice(WARM* warm, const source_map& map, const store_names& names);

}  // namespace veldar::tool

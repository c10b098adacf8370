// What nobody needs any more in a store or an index directory: leftovers of writers that are gone, seals without their
// slices, and in a store the notes of logs of which nothing is left.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace veldar::tool {

struct collected_item {
    std::string path;
    uint64_t bytes = 0;
    const char* why = "";
    bool is_kept = false;  // a person has to look at it
};

struct collected {
    std::vector<collected_item> items;
    bool is_loading = false;  // a load holds the store: what only its owner may touch was left out
};

// Finds it in the store or index directory at `path`, and with `removes` takes it away. Throws failure_t; what was
// removed before is gone.
collected collect_garbage(const std::string& path, bool removes);

}  // namespace veldar::tool

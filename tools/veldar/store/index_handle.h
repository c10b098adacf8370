// An index directory's handle that closes itself.
#pragma once

#include <memory>
#include <string>

#include "searchthing/directory/tsidx.h"

namespace veldar::tool {

struct tsidx_close {
    void operator()(TSIDX* tsidx) const { st_tsidx_close(tsidx); }
};
using tsidx_ptr = std::unique_ptr<TSIDX, tsidx_close>;

// Level 0 opens for reading. Throws tool_failure.
tsidx_ptr index_handle_open(const std::string& path, uint32_t level);
// What went wrong last, for people, without the directory's name.
std::string index_failure_text(const TSIDX* tsidx);

}  // namespace veldar::tool

// An index directory's handle that closes itself.
#pragma once

#include <string>

#include "searchthing/directory/tsidx.h"

namespace veldar::tool {

// Level 0 opens for reading. Throws failure_t.
tsidx_ptr index_handle_open(const std::string& path, uint32_t level);
// What went wrong last, for people, without the directory's name.
std::string index_failure_text(const TSIDX* tsidx);

}  // namespace veldar::tool

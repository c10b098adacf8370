// Where a cursor reads, and who hears of what it cannot read.
#pragma once

#include <functional>
#include <string>

#include "searchthing/base/warm_rc.h"
#include "searchthing/directory/tsidx.h"

namespace veldar {

// A directory, whose handle must outlive the cursor, or one slice file, which need not belong to a directory.
struct cursor_source_t {
    TSIDX* tsidx = nullptr;  // null: a file
    std::string path;        // of the file
};

// Is told the path of a slice or directory that cannot be read, and why; from there on it is left out. May be told the
// same more than once. Want of memory always fails the cursor.
using cursor_failure_fn = std::function<void(const std::string& path, const warm_rc_t& rc)>;

}  // namespace veldar

// The file that a merge makes: writing it whole, and reading it back.
#pragma once

#include "searchthing/merge/merge_internal.h"

namespace veldar {

// Creates the file at `path`, writes every section, the header last, reads back what a reader would look at first, and
// with `durable` flushes it to the disk. On failure the file that it made is gone.
[[nodiscard]] int merge_target_make(warm_merge_t* merge, const char* path, bool durable, warm_rc_t* rc);

}  // namespace veldar

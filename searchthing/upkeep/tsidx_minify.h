// Mini slices: copies of a directory's slices that end before the terms, for answering what was when without the index.
#pragma once

#include "searchthing/directory/tsidx.h"

namespace veldar {

// Writes "<latest>-<earliest>-<id>.mini.tsidx" into the output directory for every live slice. Each is written under a
// name of its own, flushed, and linked into place; one that exists already is left as it is. Terms, posting lists and
// metadata of a mini slice answer WARM_RC_MINIFIED.
//
// Returns how many were made. A failure (WARM_RC_OPEN, WARM_RC_WRITE, WARM_RC_CLOSE, WARM_RC_RETRIES, that of a slice,
// or of listing) leaves those made before.
[[nodiscard]] int st_tsidx_minify(TSIDX* tsidx, const char* output_directory);

}  // namespace veldar

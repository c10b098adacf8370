// Writes a hot slice as a new warm slice file.
#pragma once

#include "libzero/ospath-builder.h"
#include "searchthing/hotslice.h"
#include "searchthing/tsidx_names.h"
#include "searchthing/warmslice.h"

namespace veldar {

// Creates "<prefix>/<latest>-<earliest>-<id><suffix>" exclusively and writes the whole slice; `filename` receives its path.
// The returned handle has no descriptor and owns the slice's bytes in memory: its values, lexicon and header can be read,
// posting readers on it answer -44. Null on failure; a file already created is left for the caller to remove.
WARM* st_warm_slice_create(HOT* hot, ospath_buf* filename, const ospath_char_t* prefix, const ospath_char_t* suffix,
                           const TSWRITEOPTS* opts, warm_rc_t* rc);

}  // namespace veldar

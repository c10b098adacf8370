// Writes a hot slice as a new warm slice file.
//
// What creation makes: the header that the write level selects (1 "Veldar6", 2 "_TSIDX7", 3 "_TSIDX8", 4 "_TSIDX9"),
// plain values, companion arrays as wide as the largest value needs, 8 terms a lexicon block, raw 8-byte posting
// offsets, gap-coded lists without runs, zero bytes up to a multiple of 8. Tags, packed values and the other list
// encodings are left to merges. A metric hot slice makes, at every level, "_MSIDX4" with preambles, packed values,
// lists of preambles, dimension sets, and a column store.
#pragma once

#include "libzero/ospath-builder.h"
#include "searchthing/hot/hotslice.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

// Prepares the hot slice, creates "<prefix>/<latest>-<earliest>-<id><suffix>" exclusively with mode 0600 and writes the
// whole slice. The prefix is a directory that is not empty; one "/" at its end is dropped. The hot slice stays
// prepared: after a failure creation may be called again.
//
// `filename` receives the path as soon as the file is ours and is empty before: a failed creation leaves what it names
// for the caller to remove. The file is closed and not yet flushed to the disk.
//
// The returned handle has no descriptor and owns the slice's bytes in memory: its values, lexicon and header can be
// read, posting readers on it answer WARM_RC_MINIFIED. Null on failure: the status of preparing, WARM_RC_DOES_NOT_FIT
// for a section that does not fit the format, WARM_RC_CAPACITY "overrun writing posting", WARM_RC_PATH_TOO_LONG, or
// WARM_RC_OPEN, WARM_RC_WRITE or WARM_RC_CLOSE of the file.
WARM* st_warm_slice_create(HOT* hot, ospath_buf* filename, const ospath_char_t* prefix, const ospath_char_t* suffix,
                           const TSWRITEOPTS* opts, warm_rc_t* rc);
// The same, and what is returned has been flushed to the disk: through the descriptor that wrote it, because one that
// is opened later need not learn of a failed write. WARM_RC_WRITE when the flush fails.
WARM* warm_slice_create_durable(HOT* hot, ospath_buf* filename, const ospath_char_t* prefix,
                                const ospath_char_t* suffix, const TSWRITEOPTS* opts, warm_rc_t* rc);

}  // namespace veldar

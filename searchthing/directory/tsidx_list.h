// The live slices of an index directory, told from the names in it.
//
//   name                                              is
//   <latest>-<earliest>-<id>.tsidx                    a live slice
//   <latest>-<earliest>-<id>.<n>.<writer>.part-tsidx  a live slice, written in part mode
//   <name of a live slice>.deleted                    a sentinel, which hides that slice
//   anything else                                     not part of the index: mini slices, slices being written, ...
//
// A merge replaces slices by one slice that holds the same events. Its manifest (merge_manifest.h), when it is whole
// and the target that it names exists, hides the sources that it names: so a merge takes effect in the moment in which
// the target gets its name, and sources that are still there, or that a crash left behind, are not read a second time.
#pragma once

#include <string>
#include <vector>

#include "searchthing/base/warm_rc.h"
#include "searchthing/format/tsidx_names.h"

namespace veldar {

struct ospath_buf;

using tsidx_listing_t = std::vector<tsidx_slice_name_t>;

// What stands behind the name of a live slice to hide it.
inline constexpr char TSIDX_SENTINEL_SUFFIX[] = ".deleted";

// Whether the name is that of a live slice, and then its metadata.
bool tsidx_is_slice_name(const char* name, st_filename_metadata_t* meta);

// Every name in the directory, in no order. 0, WARM_RC_OPEN when the directory cannot be opened, WARM_RC_READ when
// reading it fails. May throw std::bad_alloc.
[[nodiscard]] int tsidx_read_names(const char* directory, std::vector<std::string>* names, warm_rc_t* rc);

// The live slices, ordered by latest time descending (then earliest time and id descending). A directory may change
// while it is read, so it is read twice, until the manifest stayed the same and no slice disappeared in between; slices
// that are added meanwhile may be listed or not. WARM_RC_RETRIES when that is not so in 16 tries. WARM_RC_OPEN,
// WARM_RC_READ as above, also for a manifest that cannot be read. May throw std::bad_alloc.
[[nodiscard]] int tsidx_list(const char* directory, tsidx_listing_t* listing, warm_rc_t* rc);

// The status file of the optimisers of a directory, which holds the result of the last one: 0, or -1 and "" when the
// name does not fit.
[[nodiscard]] int so_status_filename(ospath_buf* out, const char* directory);

}  // namespace veldar

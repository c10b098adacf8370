// Reads posting lists of hostile bytes. The first byte chooses the entries' width and tags, the second the number of
// entries, the next two the number of values; entries and lists follow.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "fuzz/slice_walk.h"
#include "libzero/endian.h"
#include "searchthing/slice/warmslice_lists.h"

using namespace veldar;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    st_warm_slice_body header;
    warm_header_init(&header, "_TSIDX9");
    warm_header_set_flag(&header, data[0] & (WARM_FLAG_PLO_TAG1 | WARM_FLAG_PLO_TAG2 | WARM_FLAG_PLO32), true);
    const size_t entry_size = _get_plo_size(&header);
    const size_t entries = std::min<size_t>(data[1], (size - 4) / entry_size);
    if (entries == 0) return 0;
    header.num_terms.set(static_cast<uint32_t>(entries));
    header.num_values.set(1u + data[2] + 256u * data[3]);

    const std::vector<uint8_t> offsets(data + 4, data + 4 + entries * entry_size);
    const uint8_t* lists = data + 4 + offsets.size();
    const size_t lists_size = static_cast<size_t>(data + size - lists);
    WARM warm;
    warm.fd.reset(::memfd_create("lists", MFD_CLOEXEC));
    if (::write(warm.fd.get(), lists, lists_size) != static_cast<ssize_t>(lists_size)) std::abort();
    warm.body = &header;
    warm.plo = offsets.data();
    warm.plo_last = lists_size;

    warm_rc_t rc;
    plist_reader reader;
    if (_init_reader(&reader, &warm, 1024, nullptr, &rc) != 0) std::abort();
    for (uint32_t term = 0; term < entries; term++) walk_list(&reader, term, header.num_values.get());
    close_plist_reader(&reader);
    return 0;
}

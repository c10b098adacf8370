// Parses file names of an index directory. A name that parses must parse again to the same when it is written anew.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "searchthing/directory/tsidx_list.h"
#include "searchthing/format/tsidx_names.h"

using namespace veldar;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), size);
    st_filename_metadata_t meta, again;
    if (st_tsidx_file_parse(name.c_str(), &meta) != 0) {
        char canonical[80];
        std::snprintf(canonical, sizeof canonical, "%d-%d-%llu.tsidx", meta.latest, meta.earliest,
                      static_cast<unsigned long long>(meta.id));
        if (st_tsidx_file_parse(canonical, &again) == 0 || again.latest != meta.latest ||
            again.earliest != meta.earliest || again.id != meta.id) {
            std::abort();
        }
    }
    const bool mini = st_mini_tsidx_file_parse(name.c_str(), &meta) != 0;
    const bool part = tsidx_part_file_parse(name.c_str(), &meta) != 0;
    const bool live = tsidx_is_slice_name(name.c_str(), &meta);
    if (live && mini) std::abort();
    if (live && meta.kind != (part ? 3U : 1U)) std::abort();
    return 0;
}

#include <cstdio>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/ospath-builder.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx.h"
#include "searchthing/directory/tsidx_list.h"
#include "searchthing/st_optimize.h"
#include "searchthing/upkeep/tsidx_merge_lex.h"

namespace veldar {

namespace {

void write_status_file(const char* directory, int result, const warm_rc_t& rc) {
    ospath_buf path;
    static_cast<void>(so_status_filename(&path, directory));  // else "", which cannot be created
    const unique_fd fd = osfile_create_anew(path.val);
    if (!fd.valid()) {
        _log(0, "ERROR failed to open file %s\n", path.val);
        return;
    }
    ::dprintf(fd.get(), "veldar-optimize-lex complete with rc=%i wrc=[%i,%i]\n", result, rc.warm_rc, rc.saved_errno);
}

}  // namespace

int st_optimize_lex(const char* path, uint32_t min_src_count, uint32_t terms_per_block, uint64_t page_size,
                    uint32_t min_events, bool filter, warm_rc_t* rc) {
    ST_ASSERT(path != nullptr && rc != nullptr);
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init(&opts, 1, 1500, 0, 0);
    *rc = {};
    int result = -1;
    TSIDX* const tsidx = st_tsidx_open(path, 1, 0, &opts, TSIDX_ORDINARY_WRITER);
    if (tsidx == nullptr) {
        _set_rc(rc, WARM_RC_TIME_MISMATCH);
    } else {
        result = filter ? st_tsidx_filter_merged_lex(tsidx, terms_per_block, page_size, min_events, rc)
                        : st_tsidx_merge_lex_n(tsidx, min_src_count, terms_per_block, page_size, rc);
        static_cast<void>(st_tsidx_close(tsidx));  // without events there is no sync to fail
    }
    write_status_file(path, result, *rc);
    return result == WARM_RC_FEW_SLICES || result == WARM_RC_FEW_SOURCES ? 0 : result;
}

}  // namespace veldar

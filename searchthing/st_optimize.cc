#include "searchthing/st_optimize.h"

#include <fcntl.h>
#include <unistd.h>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/ospath-builder.h"
#include "libzero/resource.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/tsidx_list.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

namespace {

constexpr uint32_t DEFAULT_LEXICON_TPB = 64;

TSIDX* open_directory(const char* path, const TSWRITEOPTS* opts) {
    if (path == nullptr || ::access(path, R_OK | W_OK | X_OK) != 0) return nullptr;
    return st_tsidx_open(path, 1, 0, opts, TSIDX_ORDINARY_WRITER);
}

void create_status_file(const char* path) {
    ospath_buf file;
    if (path == nullptr || so_status_filename(&file, path) != 0) return;
    const unique_fd fd(
        os_retry([&] { return ::open(file.val, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600); }));
}

}  // namespace

int st_optimize(const char* path, const TSWRITEOPTS* opts, int mode, bool is_final, uint32_t max_iterations,
                uint32_t min_src_count, uint32_t lexicon_tpb, uint64_t target_size, warm_rc_t* rc, uint64_t file_offset,
                uint32_t flags, st_merge_mapper_t mapper, void* mapper_context) {
    ST_ASSERT(opts != nullptr);
    const char* const shown = path == nullptr ? "" : path;
    _log(0,
         "INFO  veldar-optimize start: dir=%s mode=%i isfinal=%s max_iteration=%u min_src_count=%u lex_tpb=%u "
         "write_level=%u target_size=%lu\n",
         shown, mode, is_final ? "true" : "false", max_iterations, min_src_count, lexicon_tpb, opts->write_level,
         static_cast<unsigned long>(opts->byte_size));
    int result = 0;
    TSIDX* const tsidx = open_directory(path, opts);
    if (tsidx == nullptr) {
        _log(0, "ERROR unable to open tsidx: %s\n", shown);
        result = WARM_RC_FAILED;
        if (rc != nullptr) _set_rc_msg(rc, result, "the directory cannot be opened");
    } else {
        st_tsidx_set_merge_mapper(tsidx, mapper, mapper_context);
        static_cast<void>(st_tsidx_clear_need_optimize(tsidx));
        for (uint32_t i = 0; i < max_iterations && result == 0; i++) {
            result = st_tsidx_optimize_n(tsidx, mode, min_src_count, lexicon_tpb, target_size, rc, file_offset, flags,
                                         is_final);
        }
        static_cast<void>(st_tsidx_close(tsidx));  // nothing was put
    }
    if (is_final) create_status_file(path);
    _log(0, "INFO  exiting veldar-optimize process with rc=%i (unsigned %u)\n", result,
         static_cast<unsigned>(result) & 0xFF);
    return result == WARM_RC_FEW_SLICES || result == WARM_RC_FEW_SOURCES ? 0 : result;
}

int st_optimize_directory(const char* path, const st_optimize_options_t& options, warm_rc_t* rc) {
    TSWRITEOPTS defaults;
    st_tsidx_write_opts_set_defaults(&defaults);
    return st_optimize(path, options.write == nullptr ? &defaults : options.write, options.mode, options.is_final,
                       options.max_iterations, options.min_sources, options.terms_per_block, options.target_size, rc, 0,
                       0, options.mapper, options.mapper_context);
}

int st_optimize_ex(THING* thing, int mode) {
    ST_ASSERT(thing != nullptr && st_directory(thing) != nullptr);
    return st_tsidx_optimize_n(st_directory(thing), mode, TSIDX_OPTIMIZE_MIN_SOURCES, DEFAULT_LEXICON_TPB, 0, nullptr,
                               0, 0, false);
}

}  // namespace veldar

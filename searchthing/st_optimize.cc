#include "searchthing/st_optimize.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

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
    errno = EINVAL;
    if (path == nullptr) return nullptr;
    const unique_fd directory(os_retry([&] { return ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!directory.valid() || ::access(path, R_OK | W_OK | X_OK) != 0) return nullptr;
    return st_tsidx_open(path, 1, 0, opts, TSIDX_ORDINARY_WRITER);
}

void create_status_file(const char* path) {
    ospath_buf file;
    static_cast<void>(so_status_filename(&file, path));  // else "", which cannot be created
    const unique_fd fd(
        os_retry([&] { return ::open(file.val, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600); }));
}

int run_pass(const char* path, const st_optimize_options_t& o, uint64_t file_offset, uint32_t flags, warm_rc_t* rc) {
    const char* const shown = path == nullptr ? "" : path;
    _log(0,
         "INFO  veldar-optimize start: dir=%s mode=%i isfinal=%s max_iteration=%u min_src_count=%u lex_tpb=%u "
         "write_level=%u target_size=%lu\n",
         shown, o.mode, o.is_final ? "true" : "false", o.max_iterations, o.min_sources, o.terms_per_block,
         o.write->write_level, static_cast<unsigned long>(o.write->byte_size));
    int result = 0;
    TSIDX* const tsidx = open_directory(path, o.write);
    if (tsidx == nullptr) {
        char why[128];
        std::snprintf(why, sizeof why, "the directory cannot be opened: %s", std::strerror(errno));
        _log(0, "ERROR unable to open tsidx: %s\n", shown);
        result = WARM_RC_FAILED;
        if (rc != nullptr) _set_rc_msg(rc, result, why);
    } else {
        st_tsidx_set_merge_mapper(tsidx, o.mapper, o.mapper_context);
        st_tsidx_set_merge_stop(tsidx, o.stop, o.stop_context);
        static_cast<void>(st_tsidx_clear_need_optimize(tsidx));
        for (uint32_t i = 0; i < o.max_iterations && result == 0; i++) {
            result = st_tsidx_optimize_n(tsidx, o.mode, o.min_sources, o.terms_per_block, o.target_size, rc,
                                         file_offset, flags, o.is_final);
        }
        static_cast<void>(st_tsidx_close(tsidx));  // nothing was put
    }
    if (o.is_final && path != nullptr) create_status_file(path);
    _log(0, "INFO  exiting veldar-optimize process with rc=%i (unsigned %u)\n", result,
         static_cast<unsigned>(result) & 0xFF);
    return result == WARM_RC_FEW_SLICES || result == WARM_RC_FEW_SOURCES ? 0 : result;
}

}  // namespace

int st_optimize(const char* path, const TSWRITEOPTS* opts, int mode, bool is_final, uint32_t max_iterations,
                uint32_t min_src_count, uint32_t lexicon_tpb, uint64_t target_size, warm_rc_t* rc, uint64_t file_offset,
                uint32_t flags, st_merge_mapper_t mapper, void* mapper_context) {
    ST_ASSERT(opts != nullptr);
    const st_optimize_options_t options = {.write = opts,
                                           .mode = mode,
                                           .is_final = is_final,
                                           .max_iterations = max_iterations,
                                           .min_sources = min_src_count,
                                           .terms_per_block = lexicon_tpb,
                                           .target_size = target_size,
                                           .mapper = mapper,
                                           .mapper_context = mapper_context};
    return run_pass(path, options, file_offset, flags, rc);
}

int st_optimize_directory(const char* path, const st_optimize_options_t& options, warm_rc_t* rc) {
    st_optimize_options_t filled = options;
    TSWRITEOPTS defaults;
    st_tsidx_write_opts_set_defaults(&defaults);
    if (filled.write == nullptr) filled.write = &defaults;
    return run_pass(path, filled, 0, 0, rc);
}

int st_optimize_ex(THING* thing, int mode) {
    ST_ASSERT(thing != nullptr && st_directory(thing) != nullptr);
    return st_tsidx_optimize_n(st_directory(thing), mode, TSIDX_OPTIMIZE_MIN_SOURCES, DEFAULT_LEXICON_TPB, 0, nullptr,
                               0, 0, false);
}

}  // namespace veldar

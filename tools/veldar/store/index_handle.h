// An index directory's handle that closes itself.
#pragma once

#include <memory>
#include <string>

#include "searchthing/directory/tsidx.h"
#include "tools/veldar/store/tool_failure.h"

namespace veldar::tool {

struct tsidx_close {
    void operator()(TSIDX* tsidx) const { st_tsidx_close(tsidx); }
};
using tsidx_ptr = std::unique_ptr<TSIDX, tsidx_close>;

// Level 0 opens for reading. Throws tool_failure.
inline tsidx_ptr index_handle_open(const std::string& path, uint32_t level) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, level);
    tsidx_ptr tsidx(st_tsidx_open(path.c_str(), 0, 0, &opts, TSIDX_ORDINARY_WRITER));
    if (tsidx == nullptr) throw tool_failure{EXIT_IO, path + ": cannot be opened"};
    return tsidx;
}

}  // namespace veldar::tool

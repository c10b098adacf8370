#include "tools/libveldar/store/library_versions.h"

#include <bzlib.h>
#include <fmt/format.h>
#include <lzma.h>
#include <xxhash.h>
#include <zlib.h>
#include <zstd.h>

#include <string_view>

namespace veldar::tool {

std::string library_versions() {
    const std::string_view bzip2 = BZ2_bzlibVersion();  // "1.0.8, 13-Jul-2019"
    const unsigned xxhash = XXH_versionNumber();
    return fmt::format("zlib {}, bzip2 {}, liblzma {}, zstd {}, xxHash {}.{}.{}, fmt {}.{}.{}", zlibVersion(),
                       bzip2.substr(0, bzip2.find(',')), lzma_version_string(), ZSTD_versionString(), xxhash / 10000,
                       xxhash / 100 % 100, xxhash % 100, FMT_VERSION / 10000, FMT_VERSION / 100 % 100,
                       FMT_VERSION % 100);
}

}  // namespace veldar::tool

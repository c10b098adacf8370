// Texts as members of compressed files.
#pragma once

#include <string>

#include "tools/libveldar/store/packed_decoder.h"

namespace veldar {

std::string gzip_member(const std::string& text, int level);
inline std::string gzip_member(const std::string& text) {
    return gzip_member(text, 6);
}
std::string bzip2_member(const std::string& text);  // blocks of 100,000 bytes
std::string xz_member(const std::string& text);     // the same
std::string zstd_member(const std::string& text);   // frames of 100,000 bytes

struct packing {
    tool::packed_format_t format;
    const char* suffix;
    std::string (*pack)(const std::string& text);
};
inline constexpr packing PACKINGS[] = {{tool::PACKED_GZIP, ".gz", gzip_member},
                                       {tool::PACKED_BZIP2, ".bz2", bzip2_member},
                                       {tool::PACKED_XZ, ".xz", xz_member},
                                       {tool::PACKED_ZSTD, ".zst", zstd_member}};

}  // namespace veldar

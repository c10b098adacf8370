#include "tests/support/packing.h"

#include <bzlib.h>
#include <gtest/gtest.h>
#include <lzma.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <memory>

namespace veldar {

std::string gzip_member(const std::string& text, int level) {
    z_stream z = {};
    std::string out(compressBound(static_cast<uLong>(text.size())) + 64, '\0');
    EXPECT_EQ(deflateInit2(&z, level, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

std::string bzip2_member(const std::string& text) {
    std::string out(text.size() + text.size() / 100 + 1000, '\0');
    unsigned size = static_cast<unsigned>(out.size());
    EXPECT_EQ(BZ2_bzBuffToBuffCompress(out.data(), &size, const_cast<char*>(text.data()),
                                       static_cast<unsigned>(text.size()), 1, 0, 0),
              BZ_OK);
    out.resize(size);
    return out;
}

std::string xz_member(const std::string& text) {
    lzma_stream z = LZMA_STREAM_INIT;
    std::string out(text.size() + 1000, '\0');
    EXPECT_EQ(lzma_easy_encoder(&z, 1, LZMA_CHECK_CRC64), LZMA_OK);
    z.next_out = reinterpret_cast<uint8_t*>(out.data());
    z.avail_out = out.size();
    for (size_t at = 0, size; at < text.size(); at += size) {
        size = std::min<size_t>(100000, text.size() - at);
        z.next_in = reinterpret_cast<const uint8_t*>(text.data()) + at;
        z.avail_in = size;
        EXPECT_EQ(lzma_code(&z, LZMA_FULL_FLUSH), LZMA_STREAM_END);
    }
    EXPECT_EQ(lzma_code(&z, LZMA_FINISH), LZMA_STREAM_END);
    out.resize(z.total_out);
    lzma_end(&z);
    return out;
}

std::string zstd_member(const std::string& text) {
    std::string out;
    for (size_t at = 0; at == 0 || at < text.size(); at += 100000) {
        const std::string piece = text.substr(at, 100000);
        std::string packed(ZSTD_compressBound(piece.size()), '\0');
        const std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> context(ZSTD_createCCtx(), ZSTD_freeCCtx);
        ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
        out +=
            packed.substr(0, ZSTD_compress2(context.get(), packed.data(), packed.size(), piece.data(), piece.size()));
    }
    return out;
}

}  // namespace veldar

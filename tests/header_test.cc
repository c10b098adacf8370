#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "searchthing/format/warmslice_header.h"
#include "searchthing/values/tsval.h"
#include "tests/support/forge.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

st_warm_slice_body header_of(const char* magic) {
    st_warm_slice_body h;
    warm_header_init(&h, magic);
    return h;
}

}  // namespace

TEST(Header, HeadersOfEverySize) {
    for (const auto& [magic, size] :
         {std::pair<const char*, size_t>{"Veldar3", 60}, {"_MSIDX3", 80}, {"_MSIDX4", 120}}) {
        SCOPED_TRACE(magic);
        st_warm_slice_body h = header_of(magic);
        h.m_nbits.set(64);
        EXPECT_EQ(st_warm_slice_is_msidx_v1(&h), size == 60);
        h.cstore_ref.set(~uint64_t{0});
        EXPECT_FALSE(st_warm_slice_is_msidx_with_cstore(&h));
        h.cstore_ref.set(5);
        EXPECT_EQ(st_warm_slice_is_msidx_with_cstore(&h), size == 120);
        warm_header_set_flag(&h, WARM_FLAG_PLO32 | WARM_FLAG_PLO_TAG2, true);
        EXPECT_EQ(h.wflags.get() == 0, size == 60) << "no room for flags";

        st_warm_slice_body copy;
        std::memset(static_cast<void*>(&copy), '~', sizeof copy);
        warm_header_copy(&copy, &h);
        const size_t untouched = std::string(reinterpret_cast<char*>(&copy), sizeof copy).find('~');
        EXPECT_EQ(untouched, size == sizeof copy ? std::string::npos : size);
        h.magic[7] = 'x';
        EXPECT_FALSE(verify_magic(&h));
    }
}

TEST(Header, OffsetsAreThoseOfForgedFiles) {
    temp_dir dir;
    for (const uint32_t events : {1u, 200u}) {
        for (const forge_options& options : forge_all_kinds()) {
            SCOPED_TRACE(options.name() + " " + std::to_string(events));
            forge_picture picture;
            const unique_fd fd =
                open_file(dir.file("f"), forge_slice(forge_random_events(events, events), options, &picture));
            uint64_t got[9];
            ASSERT_EQ(st_warm_slice_offsets(fd.get(), &got[0], &got[1], &got[2], &got[3], &got[4], &got[5], &got[6],
                                            &got[7], &got[8]),
                      0);
            const forge_offsets& at = picture.at;
            const uint64_t wanted[9] = {at.values,          at.m,        at.s,      at.st, at.h, at.d,
                                        at.posting_offsets, at.metadata, at.lexicon};
            EXPECT_TRUE(std::equal(got, got + 9, wanted));
            uint64_t list_bytes = 0;
            for (const std::string& list : picture.lists) list_bytes += list.size();
            st_warm_slice_body h;
            warm_rc_t rc;
            ASSERT_EQ(warm_header_read(fd.get(), &h, &rc), 0);
            EXPECT_EQ(warm_header_posting_lists_size(&h, fd.get(), &rc), list_bytes);
            if (!st_warm_slice_is_msidx_with_dimsets(&h)) continue;
            EXPECT_EQ(_offset_dimsets(&h, fd.get(), at.postings, &rc), at.dimsets);
            EXPECT_EQ(_offset_dimsets(&h, fd.get(), ~uint64_t{0} - list_bytes - 7, &rc), ~uint64_t{0});
            EXPECT_EQ(rc.warm_rc, WARM_RC_CORRUPT);
        }
    }
}

TEST(Header, WidthsAndSizesOfDegenerateRanges) {
    st_warm_slice_body h = header_of("_TSIDX9");
    h.num_terms.set(1000);
    EXPECT_EQ(_offset_metadata(&h), _offset_pl_offs(&h) + 8);
    h.num_values.set(256);
    h.earliest.set(static_cast<uint32_t>(-5));
    h.latest.set(2);
    EXPECT_EQ(warm_header_meta_nbits(&h), 9u + 2 * 3u);
    h.latest.set(h.earliest.get());
    EXPECT_EQ(warm_header_meta_time_nbits(&h), 0u);

    EXPECT_EQ(warm_header_seek_addr_nbits(&h), 0u);
    h.seek_addr_max.set(1024);
    EXPECT_EQ(warm_header_seek_addr_nbits(&h), 11u);
    h.seek_addr_min.set(1025);
    EXPECT_EQ(warm_header_seek_addr_nbits(&h), 32u);
    warm_header_set_flag(&h, WARM_FLAG_PREAMBLES | WARM_FLAG_MS_REQUESTED, true);
    EXPECT_EQ(warm_header_seek_addr_nbits(&h), 0u);
    warm_header_set_flag(&h, WARM_FLAG_MS_PRESENT, true);
    EXPECT_EQ(warm_header_seek_addr_nbits(&h), 10u);

    // Only packed values wrap at 2^32 bits: of 32 x (2^27 + 1) bits 32 are left.
    h = header_of("_TSIDX9");
    h.num_values.set(0x08000001);
    h.latest.set(0xFFFFFFFF);
    warm_header_set_flag(&h, WARM_FLAG_VALUES_PACKED, true);
    EXPECT_EQ(warm_header_tsval_encoded_array_size(&h), 8u);
    h.wflags.set(WARM_FLAG_PREAMBLES);
    h.num_dimsets.set(1);
    EXPECT_EQ(warm_header_tsval_encoded_array_size(&h), (0x04000000ull + 1) * 8);
    st_warm_slice_body shorter = header_of("_TSIDX7");  // which ends before that number
    shorter.num_values.set(100);
    shorter.latest.set(0xFFFF);
    shorter.wflags.set(WARM_FLAG_PREAMBLES);
    shorter.num_dimsets.set(3);
    EXPECT_EQ(warm_header_tsval_encoded_array_size(&shorter), 100u * 16 / 8);
    uint64_t at = 0;
    EXPECT_NE(st_warm_slice_offsets(-1, &at, &at, &at, &at, &at, &at, &at, &at, &at), 0);
    h.num_dimsets.set(0x08000002);
    EXPECT_FALSE(tsval_counts_agree(&h));
    tsval_reader_t reader;
    warm_rc_t rc;
    EXPECT_EQ(tsval_reader_open_partial(&reader, -1, &h, 8, nullptr, nullptr, &rc), WARM_RC_CORRUPT);
    warm_header_set_flag(&h, WARM_FLAG_VALUES_PACKED, true);
    EXPECT_TRUE(tsval_counts_agree(&h)) << "packed values have no preambles";
    EXPECT_EQ(_compressed_size(9, 1, &rc), 2u);
    EXPECT_EQ(_compressed_size(0xFFFFFFFF, 9, &rc), ~uint64_t{0});
    EXPECT_EQ(rc.warm_rc, WARM_RC_DOES_NOT_FIT);
}

TEST(Header, AnyBytesGiveAscendingOffsets) {
    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; i++) {
        st_warm_slice_body h;
        auto* bytes = reinterpret_cast<uint8_t*>(&h);
        for (size_t k = 0; k < sizeof h; k++) bytes[k] = static_cast<uint8_t>(random() % 3 == 0 ? 0xFF : random());
        if (i % 2 == 0) std::memcpy(h.magic, i % 4 == 0 ? "_MSIDX4" : "Veldar3", 8);
        const warm_section_offsets_t at = warm_header_section_offsets(&h);
        const uint64_t ascending[] = {0, at.values, at.m, at.s, at.st, at.host, at.d, at.pl_offs, at.metadata};
        for (size_t k = 1; k < std::size(ascending); k++) ASSERT_LT(ascending[k - 1], ascending[k]);
        ASSERT_LE(at.metadata, at.fclex);
        ASSERT_LT(at.fclex, uint64_t{1} << 40);
        ASSERT_EQ(warm_header_tsval_encoded_array_size(&h) % 8, 0u);
    }
}

}  // namespace veldar

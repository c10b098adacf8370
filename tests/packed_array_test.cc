#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "searchthing/base/bitset.h"
#include "searchthing/base/warmslice_util.h"
#include "tests/support/temp_dir.h"

namespace veldar {

TEST(TimedRead, ShortTransfersAndHistogram) {
    const uint64_t times[] = {0, 7, 8, 63, 64, 4095, 4096, 262143, 262144, 1u << 30};
    const uint32_t buckets[] = {0, 0, 1, 1, 2, 3, 4, 5, 6, 6};
    for (size_t i = 0; i < std::size(times); i++) EXPECT_EQ(read_histogram_bucket(times[i]), buckets[i]) << times[i];
    temp_dir dir;
    const unique_fd fd = open_file(dir.file("f"), "0123456789");
    char out[8];
    testing::internal::CaptureStderr();
    EXPECT_EQ(_pread_verify(fd.get(), out, 8, 2, "whole"), 0);
    EXPECT_EQ(_pread_verify(fd.get(), out, 8, 3, "short"), WARM_RC_SHORT_READ);
    EXPECT_EQ(_pread_verify(fd.get(), out, 8, 10, "none"), WARM_RC_END_OF_FILE);
    EXPECT_EQ(_pread_verify(-1, out, 8, 0, "failed"), WARM_RC_READ);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("read failed[short] fd="), 0u);
}

TEST(PackedArray, WriterThenReaderGiveBackEveryElement) {
    temp_dir dir;
    std::mt19937_64 random(11);
    for (int round = 0; round < 60; round++) {
        const uint64_t size = 1 + random() % 16, offset = random() % 50;
        const uint32_t count = static_cast<uint32_t>(random() % 200), capacity = static_cast<uint32_t>(random() % 20);
        std::string model(count * size, '\0');
        for (char& c : model) c = static_cast<char>(random());
        const unique_fd fd = open_file(dir.file("f"), std::string(offset, '-'));
        array_writer_t aw;
        ASSERT_EQ(_aw_open(&aw, fd.get(), offset, size, capacity), 0);
        for (uint32_t i = 0; i < count; i++) ASSERT_EQ(_aw_write(&aw, model.data() + i * size, size), 0);
        ASSERT_EQ(_aw_close(&aw), 0);
        ASSERT_EQ(read_file(dir.file("f")), std::string(offset, '-') + model);

        array_reader_t ar;
        const uint64_t span = random() % 30;
        const bool in_memory = random() % 4 == 0;
        ASSERT_EQ(_ar_open(&ar, fd.get(), offset, size, count, span, nullptr, in_memory ? model.data() : nullptr), 0);
        uint32_t cursor = 0;
        for (int i = 0; i < 300; i++) {
            warm_rc_t rc;
            const uint64_t hint = random() % 2 == 0 ? 0 : random() % (count + 5);
            if (random() % 3 == 0) cursor = static_cast<uint32_t>(random() % (count + 2));
            if (span > 0) ar.span = 1 + random() % (2 * span);  // readers lower and raise it
            const bool by_index = cursor != ar.cursor || random() % 2 == 0;
            const uint8_t* element =
                by_index ? _ar_get_i(&ar, cursor, false, hint, &rc) : _ar_get(&ar, false, hint, &rc);
            if (cursor >= count) {
                ASSERT_EQ(element, nullptr);
                ASSERT_EQ(rc.warm_rc, by_index ? WARM_RC_CAPACITY : WARM_RC_FAILED);
                continue;
            }
            ASSERT_NE(element, nullptr) << rc.warm_rc;
            ASSERT_EQ(std::memcmp(element, model.data() + cursor * size, size), 0);
            cursor++;
        }
    }
}

TEST(PackedArray, FindAtleastIsLowerBound) {
    temp_dir dir;
    std::mt19937_64 random(5);
    const auto compare = [](const void* element, const void* key) {
        return *static_cast<const uint8_t*>(element) - *static_cast<const uint8_t*>(key);
    };
    for (int round = 0; round < 200; round++) {
        std::string model(1 + random() % 100, '\0');
        for (char& c : model) c = static_cast<char>(random() % 100);
        std::sort(model.begin(), model.end());
        const unique_fd fd = open_file(dir.file("f"), model);
        const uint32_t count = static_cast<uint32_t>(model.size());
        array_reader_t ar;
        ASSERT_EQ(_ar_open(&ar, fd.get(), 0, 1, count, 1 + random() % 9, nullptr, nullptr), 0);
        const uint32_t first = static_cast<uint32_t>(random() % count);
        const uint32_t number = static_cast<uint32_t>(random() % (count - first + 1));
        const char key = static_cast<char>(random() % 110);
        const size_t found = static_cast<size_t>(
            std::lower_bound(model.begin() + first, model.begin() + first + number, key) - model.begin());
        uint32_t index = 0;
        warm_rc_t rc;
        const uint8_t* element = _ar_find_atleast(&ar, first, number, &key, compare, &index, &rc);
        ASSERT_EQ(element == nullptr, found == first + number);
        ASSERT_EQ(rc.warm_rc, element == nullptr ? WARM_RC_NOT_FOUND : 0);
        ASSERT_EQ(index, number == 0 ? 0 : element == nullptr ? first + number - 1 : found);
        EXPECT_EQ(_ar_find_atleast(&ar, first, count - first + 1, &key, compare, &index, &rc), nullptr);
        EXPECT_EQ(rc.warm_rc, WARM_RC_UNSUPPORTED);
        ASSERT_EQ(_ar_open(&ar, fd.get(), 1000, 1, count, 1, nullptr, nullptr), 0);  // behind the end of the file
        EXPECT_EQ(_ar_get_i(&ar, first, true, 0, &rc), nullptr);
        EXPECT_STREQ(rc.message, "use_cache_only but not in cache");
        for (const uint32_t missing : {count - first, 1u}) {
            EXPECT_EQ(_ar_find_atleast(&ar, first, missing, &key, compare, &index, &rc), nullptr);
            EXPECT_EQ(rc.warm_rc, WARM_RC_END_OF_FILE);
        }
    }
}

TEST(Bitset, WordsAndArraysOfThem) {
    for (const bool narrow : {false, true}) {
        bmap_array_t array;
        ASSERT_EQ(bmap_array_alloc(&array, narrow, 3), 1);
        const uint32_t top = narrow ? 31 : 63;
        for (const uint32_t bit : {0u, 7u, top}) bmap_array_set(&array, 1, bit);
        for (uint32_t bit = 0; bit <= top; bit++) {
            EXPECT_EQ(bmap_array_is_set(&array, 1, bit), bit == 0 || bit == 7 || bit == top ? 1 : 0);
        }
        bmap64_t whole = 0;
        bmap_array_entry_as_bmap64(&array, 1, &whole);
        EXPECT_EQ(whole, 0x81 | uint64_t{1} << top);
        EXPECT_EQ(bmap_array_is_set(&array, 0, 7) + bmap_array_is_set(&array, 2, 7), 0);
        bmap_array_free(&array);
    }
}

TEST(Bitpack, PaddingAndRefusals) {
    std::vector<uint64_t> words(2);
    bitpack_writer_t bp;
    warm_rc_t rc;
    bp_writer_open(&bp, -1, words.data(), words.size(), 0);
    ASSERT_EQ(bp_writer_append(&bp, 1, 1, &rc), 0);
    EXPECT_EQ(bp_writer_pad64(&bp, &rc), WARM_RC_INVALID_ARGUMENT);
    EXPECT_STREQ(rc.message, "val_nbits invalid");
    ASSERT_EQ(bp_writer_append(&bp, 0x7FFFFFFF, 32, &rc), 0);
    ASSERT_EQ(bp_writer_append(&bp, 0, 7, &rc), 0);
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(bp_writer_pad64(&bp, &rc), 0);
        EXPECT_EQ(bp.bit_cursor, 64u);
    }
    ASSERT_EQ(bp_writer_append(&bp, 0xFFFFFFFF, 32, &rc), 0);
    EXPECT_EQ(bp_writer_append(&bp, 0, 16, &rc), 0);
    EXPECT_EQ(bp_writer_append(&bp, 1, 17, &rc), WARM_RC_CAPACITY);
    EXPECT_STREQ(rc.message, "meta writer buffer insufficient(2)");
    EXPECT_EQ(bp_writer_append(&bp, 0, 16, &rc), 0);
    EXPECT_EQ(bp_writer_append(&bp, 1, 1, &rc), WARM_RC_CAPACITY);
    EXPECT_STREQ(rc.message, "meta writer buffer insufficient");
    EXPECT_EQ(words[0] & words[1], 0xFFFFFFFFull);
    bp_writer_open(&bp, 1 << 20, words.data(), 0, 0);  // no such file, and no room
    bp.bit_cursor = 64;
    bp.capacity = 1;
    EXPECT_EQ(bp_writer_append(&bp, 1, 1, &rc), WARM_RC_WRITE);
}

}  // namespace veldar

#include "searchthing/postings/bitmap.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "libzero/vbe.h"
#include "tests/support/faults.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

constexpr uint32_t END = 0xFFFFFFFF;

std::string bitmap_list(const std::vector<uint32_t>& ids) {
    uint8_t coded[VBE_MAX_BYTES];
    const uint32_t length = st_encode_to_vbe(coded, ids.front());
    std::string out(reinterpret_cast<char*>(coded), length);
    out.resize(length + 1 + (ids.back() - ids.front()) / 8, '\0');
    for (const uint32_t id : ids) {
        char& byte = out[length + (id - ids.front()) / 8];
        byte = static_cast<char>(byte | 1 << (id - ids.front()) % 8);
    }
    return out;
}

}  // namespace

// The list of every event from F on: the chunk sizing leaves out 32 events of each later chunk when F takes 4 bytes or
// more.
TEST(Bitmap, ChunkSizingIsKept) {
    EXPECT_EQ(_calc_bitmap_size(0, 0xFFFFFFFF), uint64_t{1} << 29);
    temp_dir dir;
    for (const uint32_t first : {1u, 0x1FFFFFu, 0x200000u, 0x10000000u}) {
        std::vector<uint32_t> ids;
        for (uint32_t i = 0; i < 150000; i++) ids.push_back(first + i);
        const std::string list = bitmap_list(ids);
        const unique_fd fd = open_file(dir.file("f"), list);
        bitmap_reader_t reader;
        warm_rc_t rc;
        ASSERT_EQ(bitmap_reader_init(&reader, fd.get(), 0, list.size(), nullptr, &rc), 0);
        const uint64_t lost = first < 0x200000 ? 0 : 32;  // three chunks; the last one is not full
        size_t events = 0;
        for (uint32_t id = 0; bitmap_reader_next(&reader, &id, &rc) == 0 && id != END;) events++;
        EXPECT_EQ(rc.warm_rc, 0) << rc.message;
        EXPECT_EQ(events, ids.size() - lost);
    }
}

TEST(Bitmap, SeekReadsNoChunkBeforeTheTarget) {
    temp_dir dir;
    const std::string list = bitmap_list({1000, 1000 + (1u << 27)});
    const unique_fd fd = open_file(dir.file("f"), list);
    bitmap_reader_t reader;
    warm_rc_t rc;
    ASSERT_EQ(bitmap_reader_init(&reader, fd.get(), 0, list.size(), nullptr, &rc), 0);
    uint32_t id = 0;
    const uint64_t before = fault_calls(fault_call::pread);
    ASSERT_EQ(bitmap_reader_seek(&reader, 1000 + (1u << 27), &id, &rc), 0);
    EXPECT_LT(fault_calls(fault_call::pread) - before, 10u) << "of a list of " << list.size();
    EXPECT_EQ(id, 1000 + (1u << 27));
    ASSERT_EQ(bitmap_reader_seek(&reader, 0xFFFFFFF0, &id, &rc), 0);
    EXPECT_EQ(id, END);
    for (const auto move : {bitmap_reader_seek, +[](bitmap_reader_t*r, uint32_t, uint32_t*to, warm_rc_t*status) {
                                return bitmap_reader_next(r, to, status);
                            }}) {
        ASSERT_EQ(bitmap_reader_init(&reader, fd.get(), 0, list.size(), nullptr, &rc), 0);
        ASSERT_EQ(bitmap_reader_next(&reader, &id, &rc), 0);
        const fault disk(fault_call::pread, 1, EIO);
        EXPECT_EQ(move(&reader, 1000 + (1u << 27), &id, &rc), WARM_RC_READ);
    }
    const unique_fd few = open_file(dir.file("g"), bitmap_list({1000, 1040, 1100, 1200}));
    ASSERT_EQ(bitmap_reader_init(&reader, few.get(), 0, 28, nullptr, &rc), 0);
    for (const auto& [target, event] : {std::pair(1090u, 1100u), {1000u, 1200u}}) {  // never back
        ASSERT_EQ(bitmap_reader_seek(&reader, target, &id, &rc), 0);
        EXPECT_EQ(id, event);
    }
}

TEST(Bitmap, WriterRefusals) {
    temp_dir dir;
    const unique_fd writable = open_file(dir.file("f"), "");
    const unique_fd read_only(::open(dir.file("f").c_str(), O_RDONLY | O_CLOEXEC));
    uint8_t buf[4];
    bitmap_writer_t writer;
    warm_rc_t rc;
    bitmap_writer_init(&writer, buf, 2, sizeof buf, read_only.get(), 0);
    EXPECT_EQ(bitmap_writer_append(&writer, 200, &rc), WARM_RC_CAPACITY);
    bitmap_writer_init(&writer, buf, 0, sizeof buf, read_only.get(), 0);
    ASSERT_EQ(bitmap_writer_append(&writer, 100, &rc), 0);
    EXPECT_EQ(bitmap_writer_append(&writer, 99, &rc), WARM_RC_INVALID_ARGUMENT);
    EXPECT_EQ(bitmap_writer_append(&writer, 124, &rc), WARM_RC_WRITE);
    uint64_t size = 0;
    EXPECT_EQ(bitmap_writer_close(&writer, &size, true), WARM_RC_WRITE);
    writer.fd = writable.get();
    for (const uint32_t id : {124u, 140u, 130u}) ASSERT_EQ(bitmap_writer_append(&writer, id, &rc), 0) << id;
    EXPECT_EQ(bitmap_writer_append(&writer, 123, &rc), WARM_RC_INVALID_ARGUMENT);
    ASSERT_EQ(bitmap_writer_close(&writer, &size, true), 0);
    EXPECT_EQ(read_file(dir.file("f")), bitmap_list({100, 124, 130, 140}));
    EXPECT_EQ(bitmap_writer_append(&writer, 125, &rc), WARM_RC_OPEN);
    EXPECT_EQ(bitmap_writer_flush(&writer, &rc), WARM_RC_OPEN);
}

TEST(Bitmap, ReaderRefusesWhatCannotBe) {
    temp_dir dir;
    const std::string one("\xE8\x07\x01");
    const unique_fd fd = open_file(dir.file("f"), one + std::string(9000, '\x80') + "\xFE\xFF\xFF\xFF\x0F\x03");
    const auto* memory = reinterpret_cast<const uint8_t*>(one.data());
    struct row {
        int fd;
        uint64_t offset, size;
        const uint8_t* memory;
        int status;
    };
    const row rows[] = {{fd.get(), 9008, 2, nullptr, WARM_RC_READ},
                        {-1, 0, 3, nullptr, WARM_RC_INVALID_ARGUMENT},
                        {-1, 0, 8193, nullptr, WARM_RC_CORRUPT},
                        {-1, 0, 8193, memory, WARM_RC_CORRUPT},
                        {fd.get(), 0, 0, nullptr, WARM_RC_CORRUPT},
                        {fd.get(), 0, 1, nullptr, WARM_RC_CORRUPT},
                        {fd.get(), 0, uint64_t{1} << 32, nullptr, WARM_RC_CORRUPT},
                        {fd.get(), 3, 8200, nullptr, WARM_RC_CORRUPT},
                        {-1, 0, 3, memory, WARM_RC_OK},
                        {fd.get(), 9003, 6, nullptr, WARM_RC_OK}};
    bitmap_reader_t reader;
    warm_rc_t rc;
    for (const row& r : rows) EXPECT_EQ(bitmap_reader_init(&reader, r.fd, r.offset, r.size, r.memory, &rc), r.status);
    uint32_t id = 0;  // the last list's second event would be the end mark
    EXPECT_EQ(bitmap_reader_next(&reader, &id, &rc), 0);
    EXPECT_EQ(id, END - 1);
    EXPECT_EQ(bitmap_reader_next(&reader, &id, &rc), WARM_RC_CORRUPT);
    const unique_fd late = open_file(dir.file("g"), "\xF0\xFF\xFF\xFF\x0F\x01" + std::string(9000, '\0'));
    EXPECT_EQ(bitmap_reader_init(&reader, late.get(), 0, 9006, nullptr, &rc), 0);
    EXPECT_EQ(bitmap_reader_next(&reader, &id, &rc), 0);
    EXPECT_EQ(bitmap_reader_next(&reader, &id, &rc), WARM_RC_CORRUPT) << "a second chunk past all numbers";
    bitmap_reader_close(&reader);
    EXPECT_EQ(bitmap_reader_next(&reader, &id, &rc), WARM_RC_NOT_FOUND);
    EXPECT_EQ(bitmap_reader_seek(&reader, 0, &id, &rc), WARM_RC_NOT_FOUND);
}

}  // namespace veldar

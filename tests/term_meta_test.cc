#include "searchthing/values/term_meta.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "searchthing/lexicon/fclex.h"
#include "searchthing/slice/warmslice_meta.h"
#include "tests/support/faults.h"
#include "tests/support/forge.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

// A forged file, its header, and the record that every term must have.
struct forged_slice {
    temp_dir dir;
    forge_picture picture;
    std::string bytes;
    unique_fd fd;
    st_warm_slice_body header;
    std::vector<st_term_metadata> records;

    forged_slice(const std::vector<forge_event>& events, const forge_options& options) {
        bytes = forge_slice(events, options, &picture);
        fd = open_file(dir.file("f"), bytes);
        std::memcpy(static_cast<void*>(&header), bytes.data(), std::min(bytes.size(), sizeof header));
        const bool times = warm_header_meta_type(&header) != META_COUNT_ONLY;
        for (const std::vector<uint32_t>& list : picture.postings) {
            st_term_metadata record = {static_cast<uint32_t>(list.size()), 0, 0};
            if (times) {
                record.earliest = static_cast<uint32_t>(picture.values[list.back()].time);
                record.latest = static_cast<uint32_t>(picture.values[list.front()].time);
            }
            records.push_back(record);
        }
    }
    std::string section() const { return bytes.substr(_offset_metadata(&header), warm_header_size_metadata(&header)); }
    uint32_t terms() const { return static_cast<uint32_t>(records.size()); }
};

bool operator==(const st_term_metadata& a, const st_term_metadata& b) {
    return a.count == b.count && a.earliest == b.earliest && a.latest == b.latest;
}

st_warm_slice_body packed_header(uint32_t values, int32_t earliest, int32_t latest, uint32_t terms) {
    st_warm_slice_body h;
    warm_header_init(&h, "_TSIDX9");
    h.num_values.set(values);
    h.num_terms.set(terms);
    h.earliest.set(static_cast<uint32_t>(earliest));
    h.latest.set(static_cast<uint32_t>(latest));
    return h;
}

}  // namespace

TEST(TermMeta, WriterRefusesWhatItsFieldsCannotHold) {
    temp_dir dir;
    const unique_fd out = open_file(dir.file("out"));
    const st_warm_slice_body h = packed_header(5, -10, 5, 2);  // 3 bits of count, 4 of time
    struct row {
        uint32_t count;
        int32_t earliest, latest;
        int status;
    };
    const row rows[] = {{5, -11, 0, WARM_RC_INVALID_ARGUMENT}, {5, 0, -11, WARM_RC_INVALID_ARGUMENT},
                        {8, 0, 0, WARM_RC_DOES_NOT_FIT},       {1, 6, 0, WARM_RC_DOES_NOT_FIT},
                        {1, 0, 6, WARM_RC_DOES_NOT_FIT},       {7, -10, 5, WARM_RC_OK}};
    term_meta_writer_t writer;
    warm_rc_t rc;
    ASSERT_EQ(term_meta_writer_open(&writer, out.get(), &h, &rc), 0);
    for (const row& r : rows) {
        const st_term_metadata record = {r.count, static_cast<uint32_t>(r.earliest), static_cast<uint32_t>(r.latest)};
        EXPECT_EQ(term_meta_writer_append(&writer, &record, &rc), r.status);
        EXPECT_EQ(writer.bp.bit_cursor, r.status == 0 ? 11u : 0u);
    }
    ASSERT_EQ(term_meta_writer_close(&writer, &rc), 0);
    // Records of twelve bytes on a full disk and in too small a buffer, and what does not open.
    st_warm_slice_body full = packed_header(5, -10, 5, 9999), counts = full;
    warm_header_init(&full, "Veldar4");
    warm_header_init(&counts, "VelLex1");
    const unique_fd disk(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    const st_term_metadata one = {1, 0, 0};
    ASSERT_EQ(term_meta_writer_open(&writer, disk.get(), &full, &rc), 0);
    int status = 0;
    for (uint32_t written = 0; status == 0 && written < 9999; written++) {
        status = term_meta_writer_append(&writer, &one, &rc);
    }
    EXPECT_EQ(status, WARM_RC_WRITE);
    EXPECT_EQ(rc.warm_rc + term_meta_writer_close(&writer, &rc), 2 * WARM_RC_WRITE);
    EXPECT_STREQ(rc.message, "meta writer close failed");
    uint8_t room[12];
    term_meta_writer_open_buffer_mode(&writer, &full, room, sizeof room);
    EXPECT_EQ(term_meta_writer_append(&writer, &one, &rc), 0);
    EXPECT_EQ(term_meta_writer_append(&writer, &one, &rc), WARM_RC_CAPACITY);
    term_meta_reader_t reader;
    EXPECT_EQ(term_meta_reader_open(&reader, disk.get(), nullptr, &counts, true, nullptr, &rc), WARM_RC_CORRUPT);
    const st_warm_slice_body huge = packed_header(0xFFFFFFFF, INT32_MIN, INT32_MAX, 0xFFFFFFFF);  // of 96 bits a term
    EXPECT_EQ(term_meta_reader_open(&reader, disk.get(), nullptr, &huge, true, nullptr, &rc), WARM_RC_DOES_NOT_FIT);
    EXPECT_EQ(term_meta_writer_open(&writer, -1, &full, &rc), WARM_RC_INVALID_ARGUMENT);
    {
        const fault_step no_memory(fault_action::allocation, 1);
        EXPECT_EQ(term_meta_writer_open(&writer, disk.get(), &full, &rc), WARM_RC_NO_MEMORY);
    }
    // Count 7 in bits 0 to 2, earliest 0 in 3 to 6, latest 15 in 7 to 10.
    EXPECT_EQ(read_file(dir.file("out")).substr(_offset_metadata(&h)), std::string("\x87\x07\0\0\0\0\0\0", 8));
}

TEST(TermMeta, AccessorReadsOneEntryAtRandomAndPiecesInOrder) {
    for (const forge_options& options : forge_event_kinds()) {
        SCOPED_TRACE(options.name());
        const forged_slice slice(forge_random_events(37, 600), options);
        WARM warm;
        st_warm_slice_body header = slice.header;
        warm.fd.reset(::open(slice.dir.file("f").c_str(), O_RDONLY | O_CLOEXEC));
        warm.body = &header;
        warm_rc_t rc;
        uint32_t count = 0;
        EXPECT_EQ(get_meta_count(&warm, 0, nullptr, &count, &rc), WARM_RC_MINIFIED);
        FCLEX lexicon;
        warm.lexicon = &lexicon;

        st_query_info_t lookup;
        const uint32_t middle = slice.terms() / 2;
        ASSERT_EQ(get_meta_count(&warm, middle, &lookup, &count, &rc), 0);
        EXPECT_EQ(count, slice.records[middle].count);
        EXPECT_LE(lookup.bytes, 24u);
        EXPECT_EQ(lookup.reads, 1u);
        EXPECT_EQ(get_meta_count(&warm, slice.terms(), nullptr, &count, &rc), WARM_RC_CAPACITY);

        for (const uint32_t step : {1u, 5u}) {
            st_query_info_t walk;
            for (uint32_t term = 0; term < slice.terms(); term += step) {
                st_term_metadata record = {};
                ASSERT_EQ(warm_slice_term_metadata(&warm, term, &walk, &record, &rc), 0);
                ASSERT_TRUE(record == slice.records[term]) << term;
            }
            EXPECT_LE(walk.reads, 4 + slice.section().size() / 4000);
        }
        std::mt19937_64 random(17);
        for (uint32_t i = 0, term = 0; i < 300; i++) {
            term = static_cast<uint32_t>(term + (random() % 4 == 0 ? random() : random() % 5)) % slice.terms();
            ASSERT_EQ(get_meta_count(&warm, term, nullptr, &count, &rc), 0);
            ASSERT_EQ(count, slice.records[term].count) << term;
        }
    }
}

}  // namespace veldar

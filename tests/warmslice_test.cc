#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <set>

#include "fuzz/slice_walk.h"
#include "libzero/endian.h"
#include "libzero/ospath-builder.h"
#include "searchthing/slice/warmslice_lists.h"
#include "searchthing/slice/warmslice_values.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"
#include "tests/support/forge.h"
#include "tests/support/forge_metric.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

using open_fn = WARM* (*)(const char* path, warm_rc_t* rc);
constexpr open_fn OPENS[] = {st_warm_slice_open_rdonly, st_warm_slice_open_rdwr};

// A file in memory under a name that says nothing: read-write handles flush their file when they close, which would
// make thousands of opens wait for a disk.
struct memory_file {
    unique_fd fd{::memfd_create("slice", MFD_CLOEXEC)};
    std::string path = "/proc/self/fd/" + std::to_string(fd.get());

    WARM* open(open_fn how, const std::string& bytes, warm_rc_t* rc) const {
        {
            const fault_truce own;
            EXPECT_EQ(::ftruncate(fd.get(), 0), 0);
            EXPECT_EQ(::pwrite(fd.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        }
        return how(path.c_str(), rc);
    }
};

void set_be32(std::string* bytes, uint64_t offset, uint32_t value) {
    store_be32(bytes->data() + offset, value);
}

}  // namespace

TEST(WarmSlice, RefusalsNameTheirReason) {
    forge_options options;
    options.magic = "Veldar5";
    forge_picture picture;
    const std::string good = forge_slice(forge_random_events(5, 60), options, &picture);
    const forge_offsets at = picture.at;
    const uint64_t last_entry = at.posting_offsets + 8 * (picture.terms.size() - 1);
    const uint64_t blocks = (picture.terms.size() - 1) / options.tperb;  // but the last
    const uint64_t whole = good.size(), entries = at.posting_offsets;
    const char* past_the_file = "forward_body offset is beyond file size";
    const struct {
        const char* what;
        uint64_t size;  // of what is left of the file
        uint64_t at;    // where a word is set
        uint32_t word;
        int rdonly, rdwr;
        const char* rdwr_message;
    } cases[] = {
        {"empty file", 0, 0, 0, -49, -5, ""},
        {"a few bytes", 50, whole, 0, -48, -48, "reading warm header"},
        {"another file", whole, 0, 0, -13, -13, "header magic wrong"},
        {"cut in the values", at.m - 20, whole, 0, -10, -12, past_the_file},
        {"cut in the offsets", entries + 8, whole, 0, -49, -12, past_the_file},
        {"cut in the last offset", last_entry + 5, whole, 0, -48, -12, past_the_file},
        {"cut in the metadata", at.metadata + 5, whole, 0, -14, -12, past_the_file},
        {"cut before the lexicon", at.lexicon, whole, 0, -14, -12, "num terms mismatch"},
        {"no terms in a block", whole, at.lexicon + 4, 0, -14, -2, "forward idx"},
        {"cut before the reverse lexicon", at.reverse_lexicon, whole, 0, -14, -12, "reverse num terms"},
        {"blocks past the file", whole, at.lexicon + 12 + 4 * blocks, 0x7FFFFFF0, -14, -12, "forward idx"},
        {"cut in the reverse blocks", at.reverse_lexicon + 18, whole, 0, -14, -2, "reverse idx"},
        {"another reverse number", whole, at.reverse_lexicon, 3, -1, -12, "reverse num terms"},
        {"lists past the file", whole, last_entry + 4, 0x7FFFFFFF, 0, -12, "plo_last_term is beyond file size"},
        {"values past the file", whole, 8, 0xFFFFFFFF, -10, -12, past_the_file},
        {"companions past the file", whole, 36, 0xFFFFFFFF, -10, -12, past_the_file},
        {"nothing", whole, whole, 0, 0, 0, ""},
    };
    const memory_file file;
    const auto expect = [&](const std::string& bytes, int rdonly, int rdwr, const char* rdwr_message) {
        for (const open_fn open : OPENS) {
            const bool writes = open == st_warm_slice_open_rdwr;
            warm_rc_t rc;
            WARM* warm = file.open(open, bytes, &rc);
            EXPECT_EQ(rc.warm_rc, writes ? rdwr : rdonly) << rc.message;
            EXPECT_EQ(warm != nullptr, rc.warm_rc == 0);
            EXPECT_STREQ(writes ? rc.message : rdwr_message, rdwr_message);
            if (warm == nullptr) continue;
            walk_slice(warm);
            EXPECT_EQ(st_warm_slice_close(warm), 0);
        }
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string bytes = good.substr(0, c.size);
        if (c.at < c.size) set_be32(&bytes, c.at, c.word);
        expect(bytes, c.rdonly, c.rdwr, c.rdwr_message);
    }
    expect(std::string(good).replace(last_entry, 8, 8, '\xFF'), -12, -12, "plo last term");

    const std::string plain = forge_slice(forge_random_events(5, 60), forge_as_created(4), &picture);
    std::string fewer = plain;
    set_be32(&fewer, picture.at.lexicon, 3);
    expect(fewer, -14, -12, "num terms mismatch");
    std::string preambles = plain;
    preambles[79] = WARM_FLAG_PREAMBLES;
    set_be32(&preambles, 96, 61);
    expect(preambles, -12, -12, "more preambles than values");
}

TEST(WarmSlice, PathsAndNames) {
    temp_dir dir;
    const std::vector<forge_event> events = forge_random_events(1, 20);
    write_file(dir.file("5-x-1.tsidx"), "");
    const memory_file file;
    for (const open_fn open : OPENS) {
        warm_rc_t rc;
        for (const char* none : {static_cast<const char*>(nullptr), ""}) {
            EXPECT_EQ(open(none, &rc), nullptr);
            EXPECT_TRUE(rc.warm_rc == WARM_RC_INVALID_ARGUMENT && rc.message[0] != '\0');
        }
        for (const char* missing : {"no/such/file", "no/such/9-5-1.tsidx"}) {
            EXPECT_EQ(open(missing, &rc), nullptr);
            EXPECT_TRUE(rc.warm_rc == WARM_RC_OPEN && rc.saved_errno == ENOENT) << missing;
        }
        EXPECT_EQ(open(dir.file("5-x-1.tsidx").c_str(), &rc), nullptr);
        EXPECT_EQ(rc.warm_rc, WARM_RC_FILE_NAME);
        EXPECT_STREQ(rc.message, "parsing filename");
        WARM* warm = file.open(open, forge_slice(events, forge_as_created(4)), &rc);
        ASSERT_NE(warm, nullptr);
        EXPECT_EQ(st_warm_slice_earliest(warm), std::numeric_limits<st_time_t>::min());
        EXPECT_EQ(st_warm_slice_latest(warm), std::numeric_limits<st_time_t>::max());
        EXPECT_EQ(st_warm_slice_close(warm), 0);
        for (const bool fine : {false, true}) {
            warm = file.open(open, forge_metric_slice(forge_random_metrics(1, 9), {.milliseconds = fine, .terms = {}}),
                             &rc);
            EXPECT_TRUE(warm->slice_kind == 2 && warm->has_subseconds && warm->ms_requested == fine);
            EXPECT_EQ(st_warm_slice_close(warm), 0);
        }
    }
    xorshift128plus_state rng;
    xorshift128plus_init_with_seed(&rng, 1);
    ospath_buf name;
    std::set<uint64_t> ids;
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(st_warm_slice_filename_from_time(&name, "some/dir/", ".tsidx", -5, 100, &rng), 0);
        st_filename_metadata_t meta;
        ASSERT_EQ(st_tsidx_file_parse(name.val, &meta), 1) << name.val;
        ASSERT_TRUE(meta.earliest == -5 && meta.latest == 100) << name.val;
        EXPECT_EQ(meta.id >> 16 & 0xFFFF, static_cast<uint64_t>(::getpid()) % 65535);
        ids.insert(meta.id);
    }
    EXPECT_EQ(ids.size(), 1000u);
    ASSERT_EQ(st_warm_slice_filename(&name, "/", ".pre-tsidx", -7, -6, 18446744073709551615u), 0);
    EXPECT_STREQ(name.val, "/-6--7-18446744073709551615.pre-tsidx");
    const std::string longest(4095 - std::string("/2-1-3.tsidx").size(), 'd');
    EXPECT_EQ(st_warm_slice_filename(&name, longest.c_str(), ".tsidx", 1, 2, 3), 0);
    EXPECT_EQ(st_warm_slice_filename(&name, (longest + "d").c_str(), ".tsidx", 1, 2, 3), WARM_RC_PATH_TOO_LONG);
    EXPECT_EQ(st_warm_slice_filename(&name, "", ".tsidx", 1, 2, 3), WARM_RC_INVALID_ARGUMENT);
}

TEST(WarmSlice, DescriptorsOfFailedOpensStayWithTheCaller) {
    warm_rc_t rc;
    unique_fd fd(::memfd_create("slice", MFD_CLOEXEC));
    const st_filename_metadata_t meta = {.earliest = 3, .latest = 9, .id = 1, .kind = 1};
    EXPECT_EQ(st_warm_slice_open_rdonly_from_fd(fd.get(), &meta, &rc), nullptr);
    const std::string bytes = forge_slice(forge_random_events(1, 20), forge_as_created(2));
    ASSERT_EQ(::write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    WARM* warm = st_warm_slice_open_rdonly_from_fd(fd.get(), &meta, &rc);
    ASSERT_NE(warm, nullptr) << rc.message;
    EXPECT_EQ(st_warm_slice_earliest(warm), 3);
    _set_rc(&rc, WARM_RC_FAILED);
    EXPECT_TRUE(st_warm_slice_size(warm, &rc) == bytes.size() && rc.warm_rc == 0) << "no old status";
    EXPECT_EQ(st_warm_slice_close(warm), 0);
    EXPECT_EQ(::fcntl(fd.get(), F_GETFD), -1) << "closed with the handle";
    static_cast<void>(fd.release());
}

TEST(WarmSlice, MiniSlicesHaveValuesAndNothingElse) {
    for (const char* magic : {"Veldar5", "_TSIDX7", "_TSIDX9"}) {
        SCOPED_TRACE(magic);
        const std::vector<forge_event> events = forge_random_events(2, 90);
        forge_options options;
        options.magic = magic;
        temp_dir dir;
        forge_picture picture;
        const std::string path = forge_file(dir.path(), events, options, 1, &picture);
        const std::string mini = dir.file(forge_file_name(events, 1, true));
        unique_fd out(::open(mini.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_EQ(st_warm_slice_create_mini(path.c_str(), out.get()), 0);
        options.mini = true;
        EXPECT_EQ(read_file(mini), forge_slice(events, options));
        for (const open_fn open : OPENS) {
            warm_rc_t rc;
            WARM* warm = open(mini.c_str(), &rc);
            ASSERT_NE(warm, nullptr) << rc.message;
            EXPECT_FALSE(st_warm_slice_has_fclex(warm));
            EXPECT_EQ(st_warm_slice_latest(warm), picture.latest);
            st_tsval value;
            ASSERT_EQ(tsval_reader_decode(&warm->tsval_reader, 89, &value, false, 0, &rc), 0);
            EXPECT_EQ(value.address, picture.values[89].address);
            plist_reader reader;
            EXPECT_EQ(_init_reader(&reader, warm, 1, nullptr, &rc), WARM_RC_MINIFIED);
            EXPECT_EQ(st_warm_slice_dimsets_offset(warm, &rc), -1);
            EXPECT_EQ(st_warm_slice_close(warm), 0);
        }
        EXPECT_EQ(st_warm_slice_create_mini(path.c_str(), -1), WARM_RC_INVALID_ARGUMENT);
        EXPECT_EQ(st_warm_slice_create_mini("", out.get()), WARM_RC_INVALID_ARGUMENT);
        EXPECT_EQ(st_warm_slice_create_mini("no/such/file", out.get()), WARM_RC_OPEN);
        write_file(dir.file("cut"), read_file(path).substr(0, 200));
        EXPECT_EQ(st_warm_slice_create_mini(dir.file("cut").c_str(), out.get()), WARM_RC_FAILED);
        write_file(dir.file("none"), "");
        EXPECT_EQ(st_warm_slice_create_mini(dir.file("none").c_str(), out.get()), WARM_RC_EMPTY_FILE);
        const unique_fd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(st_warm_slice_create_mini(path.c_str(), full.get()), WARM_RC_WRITE);
    }
}

TEST(WarmSlice, DeletesChangeOneByteAndAreSeenByReaders) {
    std::vector<forge_event> events = forge_random_events(2, 90);
    for (forge_event& event : events) event.deleted = false;
    for (const forge_options& options : forge_event_kinds()) {
        SCOPED_TRACE(options.name());
        temp_dir dir;
        forge_picture picture;
        const std::string path = forge_file(dir.path(), events, options, 1, &picture);
        std::string expected = read_file(path);
        warm_rc_t rc;
        WARM* reader = st_warm_slice_open_rdonly(path.c_str(), &rc);
        WARM* writer = st_warm_slice_open_rdwr(path.c_str(), &rc);
        ASSERT_TRUE(reader != nullptr && writer != nullptr) << rc.message;
        EXPECT_FALSE(st_warm_slice_has_deletes(reader));
        EXPECT_EQ(reader->pl_wide, options.magic != "Veldar3" && (options.wflags & FORGE_PLO32) == 0);
        EXPECT_TRUE(reader->slice_kind == 2 && !reader->has_subseconds && !reader->ms_requested);
        EXPECT_EQ(warm_slice_set_deleted(writer, 90, &rc), WARM_RC_CORRUPT);
        EXPECT_EQ(warm_slice_set_deleted(writer, 43, &rc), 0);
        EXPECT_EQ(warm_slice_set_deleted(writer, 43, &rc), 0);
        EXPECT_TRUE(st_warm_slice_has_deletes(reader));
        for (const uint32_t id : {42u, 43u, 44u}) {
            st_tsval value;
            ASSERT_EQ(tsval_reader_decode(&reader->tsval_reader, id, &value, false, 0, &rc), 0);
            EXPECT_EQ(value.s, id == 43 ? ST_DELETED_SOURCE : picture.values[id].s);
        }
        bool still_open = false;
        {
            const fault no_flush(fault_call::msync, 1, EIO);
            EXPECT_EQ(st_warm_slice_close(writer, &still_open), -1);
            EXPECT_TRUE(still_open);
        }
        EXPECT_EQ(st_warm_slice_close(writer), 0);
        {
            const fault no_close(fault_call::close, 1, EIO);
            EXPECT_EQ(st_warm_slice_close(reader, &still_open), -1);
            EXPECT_FALSE(still_open);
        }
        expected[picture.at.d + 5] = static_cast<char>(expected[picture.at.d + 5] | 1 << 3);
        EXPECT_EQ(read_file(path), expected);
    }
}

constexpr const char* MAGICS[] = {"Veldar5", "_TSIDX9", "_MSIDX4", "mini"};

std::string small_slice(const char* magic) {
    forge_options options;
    options.magic = magic;
    if (magic == std::string("mini")) {
        const std::string bytes = small_slice("_MSIDX4");
        return bytes.substr(0, _offset_pl_offs(reinterpret_cast<const st_warm_slice_body*>(bytes.data())));
    }
    if (!options.legacy()) options.wflags = FORGE_TAG2 | FORGE_PLO32 | FORGE_PACKED;
    return options.metric() ? forge_metric_slice(forge_random_metrics(3, 12), {.milliseconds = true, .terms = {}})
                            : forge_slice(forge_random_events(3, 12), options);
}

// The status of opening, and a digest of all that a walk through an open slice meets.
uint64_t walk_file(const memory_file& file, open_fn open, const std::string& bytes, warm_rc_t* rc) {
    walk_digest = 0;
    WARM* const warm = file.open(open, bytes, rc);
    if (warm == nullptr) {
        walk_saw(rc->message);
        return walk_digest;
    }
    try {
        walk_slice(warm);
    } catch (const std::bad_alloc&) {  // of the walk's own, or of what may throw it
    }
    const fault_truce own;
    EXPECT_EQ(st_warm_slice_close(warm), 0);
    return walk_digest;
}

// Whatever happens to a small file, it opens with a listed status or opens and can be used without harm; and all that
// becomes of it is what it was.
TEST(WarmSlice, DamageNeverReachesPastTheFile) {
    const std::set<int> listed = {0, -1, -2, -5, -8, -10, -12, -13, -14, -48, -49};
    const memory_file file;
    const unique_fd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    for (const char* magic : MAGICS) {
        damage_outcomes outcomes;
        testing::internal::CaptureStderr();  // failed reads are reported there
        damage_sweep(small_slice(magic), {.truncation_step = 7, .flip_step = 1 + SANITIZED_PART},
                     [&](const std::string& damaged, const std::string& what) {
                         for (const open_fn open : OPENS) {
                             warm_rc_t rc;
                             const uint64_t digest = walk_file(file, open, damaged, &rc);
                             ASSERT_TRUE(listed.contains(rc.warm_rc)) << what << ": " << rc.warm_rc << rc.message;
                             outcomes.add(what, rc.warm_rc, std::to_string(digest));
                         }
                         outcomes.add(what, st_warm_slice_create_mini(file.path.c_str(), nowhere.get()), "mini");
                     });
        testing::internal::GetCapturedStderr();
        expect_kept(std::string("slice-") + magic, outcomes.text());
    }
}

// The same walk where a call or an allocation of it fails.
TEST(WarmSlice, EveryFailureOfAWalk) {
    const memory_file file;
    walk_is_strict = false;
    for (const char* magic : MAGICS) {
        const std::string bytes = small_slice(magic);
        damage_outcomes outcomes;
        testing::internal::CaptureStderr();
        for (const fault_action action : {fault_action::fail, fault_action::shorten, fault_action::allocation}) {
            if (action == fault_action::allocation && SANITIZED_PART != 1) continue;  // the walk itself would leak
            std::set<uint64_t> met;  // not in order: a compiler may leave out allocations
            for (uint64_t nth = 1, last = 1; nth <= last + 1; nth += SANITIZED_PART) {
                warm_rc_t rc;
                const fault_step step(action, nth, EIO);
                const uint64_t digest = walk_file(file, OPENS[0], bytes, &rc);
                const fault_truce own;
                met.insert(digest);
                last = action == fault_action::allocation ? step.allocations() : step.calls();
            }
            for (const uint64_t digest : met)
                outcomes.add("action " + std::to_string(16 * static_cast<int>(action)), 0, std::to_string(digest));
        }
        testing::internal::GetCapturedStderr();
        expect_kept(std::string("slice-failures-") + magic, outcomes.text());
        for (uint64_t nth = 1, last = 1; nth <= last; nth++) {  // nor is a header believed that changes meanwhile
            warm_rc_t rc;
            const fault_step step(nth, [&] { EXPECT_EQ(::pwrite(file.fd.get(), "\0\0\1", 3, 17), 3); });
            const warm_ptr warm(file.open(OPENS[0], bytes, &rc));
            last = step.calls();
            EXPECT_TRUE(warm == nullptr || !st_warm_slice_has_fclex(warm.get()) ||
                        st_warm_slice_terms(warm.get()) == load_be32(&bytes[16]))
                << nth;
        }
    }
    walk_is_strict = true;
}

}  // namespace veldar

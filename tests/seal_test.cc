#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "libzero/endian.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tests/support/damage.h"
#include "tests/support/directory.h"
#include "tests/support/hot_events.h"
#include "tests/support/metric_events.h"
#include "tests/support/run_tool.h"
#include "tests/support/seals.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

class Seal : public directory_test {
  protected:
    // Slices of some events each, which have a term of their own and one in common.
    std::vector<std::string> put_slices(int count, int32_t events = 20) {
        const directory_ptr tsidx = open_directory(dir_.path());
        for (int32_t slice = 0; slice < count; slice++) {
            for (int32_t i = 0; i < events; i++) {
                const std::string own = "word" + std::to_string(i);
                EXPECT_EQ(put_event(tsidx.get(), {.time = 100 * slice + i,
                                                  .address = static_cast<uint32_t>(1000 * slice + i),
                                                  .terms = {own, "common"}}),
                          0);
            }
            EXPECT_EQ(st_tsidx_sync(tsidx.get()), 0);
        }
        return slices();
    }
    std::vector<std::string> slices() const { return files_in(dir_.path(), ".tsidx"); }
    int64_t remove(uint32_t address) const {
        return st_tsidx_delete_by_addr(open_directory(dir_.path()).get(), &address, 1);
    }
    int optimize(warm_rc_t* rc) const {
        return st_tsidx_optimize_n(open_directory(dir_.path()).get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, rc, 0, 0, true);
    }
    tool_result run(std::vector<std::string> arguments) const {
        arguments.push_back(dir_.path());
        return run_tool("veldar/veldar", arguments);
    }

    const no_pauses pauses_;
    const temp_dir dir_;
};

void flip(const std::string& path, size_t byte, unsigned bit) {
    const unique_fd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    char old = 0;
    ASSERT_EQ(::pread(fd.get(), &old, 1, static_cast<off_t>(byte)), 1);
    old = static_cast<char>(old ^ (1 << bit));
    ASSERT_EQ(::pwrite(fd.get(), &old, 1, static_cast<off_t>(byte)), 1);
}

// Tells the faults; a seal that cannot be read is one with the message.
std::string check(const std::string& slice, uint64_t byte, bool* covered) {
    warm_rc_t rc;
    std::vector<seal_fault_t> faults;
    *covered = false;
    if (seal_check(slice, &faults, &rc) != 0) return rc.message;
    for (const seal_fault_t& fault : faults) *covered |= fault.offset <= byte && byte < fault.offset + fault.size;
    return faults.empty() ? "" : seal_section_name(faults[0].section);
}

TEST_F(Seal, EveryFlippedBitIsFoundInEveryKindOfSlice) {
    const temp_dir metrics, minis;
    put_slices(2, 5);
    {
        TSWRITEOPTS options;
        st_tsidx_write_opts_set_defaults(&options);
        const directory_ptr tsidx(st_tsidx_open(metrics.path().c_str(), 0, 1, &options, TSIDX_ORDINARY_WRITER));
        for (const metric_event& event : random_metric_events(7, 4)) {
            ASSERT_EQ(put_metric_event(tsidx.get(), event, 1), 0);
        }
    }
    ASSERT_EQ(st_tsidx_minify(open_directory(dir_.path()).get(), minis.path().c_str()), 2);
    ASSERT_EQ(remove(1003), 1);  // of one slice, and the other one stays as it was made
    std::vector<std::string> paths = slices();
    for (const auto& more : {files_in(metrics.path(), ".tsidx"), files_in(minis.path(), ".tsidx")}) {
        paths.insert(paths.end(), more.begin(), more.end());
    }
    const temp_dir merged;
    for (const std::string& path : slices()) fs::copy(path, merged.file(fs::path(path).filename()));
    warm_rc_t rc;
    ASSERT_EQ(st_tsidx_optimize_n(open_directory(merged.path()).get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true), 0)
        << rc.message << files_in(merged.path(), "").size();
    paths.push_back(files_in(merged.path(), ".tsidx").at(0));
    ASSERT_EQ(paths.size(), 6u);
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        bool covered = false;
        ASSERT_EQ(check(path, 0, &covered), "");
        const size_t size = fs::file_size(path);
        for (size_t bit = 0; bit < 8 * size && !HasFailure(); bit++) {
            flip(path, bit / 8, bit % 8);
            EXPECT_NE(check(path, bit / 8, &covered), "") << "bit " << bit;
            EXPECT_TRUE(covered) << "bit " << bit;
            flip(path, bit / 8, bit % 8);
        }
        for (const size_t other : {size - 1, size + 1, size_t{0}}) {
            const std::string bytes = read_file(path);
            fs::resize_file(path, other);
            EXPECT_NE(check(path, 0, &covered), "") << other;
            write_file(path, bytes);
        }
    }
}

TEST_F(Seal, DamageOfTheSealIsToldAndNothingElse) {
    const std::string slice = put_slices(1).at(0), seal = seal_path(slice), bytes = read_file(seal);
    bool covered = false;
    for (size_t byte = 0; byte < bytes.size(); byte++) {
        for (const unsigned bit : {0u, 3u, 7u}) {
            flip(seal, byte, bit);
            const std::string found = check(slice, 0, &covered);
            // The second slot is empty before the first delete.
            EXPECT_EQ(found.find("seal is damaged") != found.npos, byte < bytes.size() - 24) << byte << found;
            flip(seal, byte, bit);
        }
        write_file(seal, bytes.substr(0, byte));
        EXPECT_NE(check(slice, 0, &covered).find("seal is damaged"), std::string::npos) << byte;
        write_file(seal, bytes);
    }
    fs::resize_file(seal, uint64_t{1} << 42);
    EXPECT_NE(check(slice, 0, &covered).find("seal is damaged"), std::string::npos) << "nobody reads so much";
    write_file(seal, bytes);
    EXPECT_EQ(remove(3), 1) << "a delete goes on beside a seal";
    write_file(seal, "VELDAR SEAL 1\nslice 1\nsize 1\n");
    EXPECT_EQ(remove(4), 1) << "or beside one that is damaged";
    fs::remove(seal);
    warm_rc_t rc;
    slice_seal_t none;
    EXPECT_EQ(seal_read(slice, &none, &rc), WARM_RC_OPEN);
    EXPECT_EQ(rc.saved_errno, ENOENT);
    EXPECT_EQ(seal_verify(slice, &rc), 0);
}

// A delete that is cut off anywhere is no damage; marks that changed by themselves are.
TEST_F(Seal, MarksAreSealedApart) {
    const std::string slice = put_slices(1).at(0), before = read_file(slice);
    ASSERT_EQ(remove(1) + remove(2) + remove(12), 3);
    const std::string after = read_file(slice), seal = read_file(seal_path(slice));
    std::vector<size_t> marks;
    for (size_t i = 0; i < before.size(); i++) {
        if (before[i] != after[i]) marks.push_back(i);
    }
    ASSERT_EQ(marks.size(), 2u);
    EXPECT_EQ(seal_troubles(dir_.path()), "");
    const std::vector<uint8_t> now(after.begin() + static_cast<long>(marks[0]),
                                   after.begin() + static_cast<long>(marks[0]) + 3);
    const std::vector<uint8_t> then = {255, 255, 1};
    warm_rc_t rc;
    ASSERT_EQ(seal_begin_marks(slice, now, then, false, &rc), 0);
    for (const int half : {0, 1, 2}) {
        std::string torn = after;
        for (int i = 0; i < half; i++) torn[marks[static_cast<size_t>(i)]] = '\xff';
        write_file(slice, torn);
        EXPECT_EQ(seal_troubles(dir_.path()), "") << half;
    }
    EXPECT_EQ(remove(10), 1) << "the next delete ends it";
    EXPECT_EQ(seal_troubles(dir_.path()), "");
    flip(slice, marks[0], 6);
    EXPECT_EQ(seal_troubles(dir_.path()), slice + ": d at " + std::to_string(marks[0]) + "\n");
    EXPECT_EQ(remove(16), WARM_RC_CORRUPT) << "marks that nobody made do not become lasting";
    write_file(slice, after);
    write_file(seal_path(slice), seal);
    EXPECT_EQ(seal_begin_marks(slice, then, then, false, &rc), WARM_RC_CORRUPT);
    EXPECT_EQ(seal_troubles(dir_.path()), "");
}

// Sizes that a seal tells take no memory that the slice does not have.
TEST_F(Seal, SealsOfOtherFilesAreNoMoreThanWrong) {
    const std::string slice = put_slices(1)[0];
    warm_rc_t rc;
    std::vector<seal_fault_t> faults;
    slice_seal_t other;
    ASSERT_EQ(seal_read(slice, &other, &rc), 0);
    other.sections[1].section = other.sections[0].section;
    ASSERT_EQ(seal_write(slice, &other, false, &rc), 0);
    EXPECT_EQ(seal_check(slice, &faults, &rc), WARM_RC_CORRUPT) << "one section twice";
    other = {};
    ASSERT_EQ(seal_write(slice, &other, false, &rc), 0);
    EXPECT_EQ(seal_check(slice, &faults, &rc), WARM_RC_CORRUPT);
    other.size = uint64_t{1} << 62;
    other.sections = {{SEALED_D, 0, other.size}};
    ASSERT_EQ(seal_write(slice, &other, false, &rc), 0);
    EXPECT_EQ(seal_check(slice, &faults, &rc), 0);
    EXPECT_EQ(faults.size(), 1u);
    const std::string bytes = read_file(slice);
    other.size = bytes.size();  // no marks at all
    other.sections = {{SEALED_HEADER, 0, other.size}};
    other.blocks = {XXH64(bytes.data(), bytes.size(), 0)};
    other.marks = XXH64(nullptr, 0, 0);
    ASSERT_EQ(seal_write(slice, &other, false, &rc), 0);
    EXPECT_EQ(seal_check(slice, &faults, &rc), 0);
    EXPECT_TRUE(faults.empty());
    // Every other text that is sealed in the same way.
    const std::string fixed = dir_.file("19-0-7.tsidx");  // a name that is always the same
    write_file(fixed, bytes);
    ASSERT_TRUE(seal_make(fixed, &other, &rc) == 0 && seal_write(fixed, &other, false, &rc) == 0);
    const std::string sealed = read_file(seal_path(fixed));
    const size_t text = sealed.size() - 56 - 8 * other.blocks.size();
    damage_outcomes outcomes;
    for (size_t bit = 0; bit < 9 * text; bit++) {  // behind the flips each byte is left out
        std::string seal = sealed;
        if (bit < 8 * text) seal[bit / 8] = static_cast<char>(seal[bit / 8] ^ 1 << bit % 8);
        if (bit >= 8 * text) seal.erase(bit - 8 * text, 1);
        const size_t base = seal.size() - 56;
        const uint64_t hash = XXH64(seal.data(), base, 0);
        store_be64(seal.data() + base, hash);
        store_be64(seal.data() + base + 24, XXH64(seal.data() + base + 8, 16, hash));
        write_file(seal_path(fixed), seal);
        const int status = seal_check(fixed, &faults, &rc);
        outcomes.add("byte " + std::to_string(bit / 8), status, std::to_string(faults.size()));
    }
    expect_kept("seal-texts", outcomes.text());
    std::set<int> told;
    for (uint64_t call = 1; call < 40; call++) {
        write_file(slice, bytes);
        const fault_step cut(call, [&] { fs::resize_file(slice, bytes.size() - 8); });
        told.insert(seal_make(slice, &other, &rc));
    }
    EXPECT_TRUE(told.contains(WARM_RC_SHORT_READ)) << "a file that is cut while it is read";
    // Whatever fails is told at once.
    write_file(slice, bytes);
    ASSERT_TRUE(seal_make(slice, &other, &rc) == 0 && seal_write(slice, &other, false, &rc) == 0);
    for (const fault_action action : {fault_action::fail, fault_action::allocation}) {
        for (uint64_t nth = 1, last = 1; nth <= last; nth++) {
            const fault_step step(action, nth, EIO);
            for (const bool checks : {true, false}) {
                const failure_watch watch;
                int status = WARM_RC_NO_MEMORY;
                try {
                    status = checks ? seal_check(slice, &faults, &rc) : seal_make(slice, &other, &rc);
                } catch (const std::bad_alloc&) {
                }
                EXPECT_TRUE(watch.ended_with(status) && faults.empty()) << nth << " " << status;
            }
            last = action == fault_action::fail ? step.calls() : step.allocations();
        }
    }
}

TEST_F(Seal, ADeleteBesideACheckIsNoFault) {
    const std::string slice = put_slices(1).at(0), whole = read_file(slice), seal = read_file(seal_path(slice));
    bool is_struck = true;
    for (uint64_t call = 1; is_struck && !HasFailure(); call++) {
        bool covered = false;
        write_file(slice, whole);
        write_file(seal_path(slice), seal);
        is_struck = false;
        const auto beside = [&] {
            is_struck = true;
            EXPECT_EQ(remove(5), 1);
        };
        const fault_step step(call, beside);
        EXPECT_EQ(check(slice, 0, &covered), "") << "at call " << call;
    }
}

TEST_F(Seal, MergesLeaveDamagedSourcesAlone) {
    const std::vector<std::string> paths = put_slices(3);
    const std::string whole = read_file(paths[1]);
    const size_t word = whole.find("common");  // another term that is as good
    flip(paths[1], word + 2, 0);
    warm_rc_t rc;
    const directory_ptr tsidx = open_directory(dir_.path());
    const auto merge = [&] { return st_tsidx_optimize_n(tsidx.get(), TSIDX_OPTIMIZE_ALL, 2, 0, 0, &rc, 0, 0, true); };
    ASSERT_EQ(merge(), 0) << rc.message;
    EXPECT_EQ(slices().size(), 2u);
    EXPECT_TRUE(fs::exists(paths[1]));
    EXPECT_EQ(merge(), WARM_RC_CORRUPT);
    EXPECT_NE(std::string(rc.message).find(fs::path(paths[1]).filename()), std::string::npos) << rc.message;
    write_file(paths[1], whole);
    EXPECT_EQ(optimize(&rc), 0) << rc.message;
    EXPECT_EQ(sealed_slices(dir_.path()), 1u);
    EXPECT_EQ(seal_troubles(dir_.path()), "");
    EXPECT_EQ(files_in(dir_.path(), ".seal").size(), 1u) << "seals of the sources are gone";
}

TEST_F(Seal, ToolsSealAndCheck) {
    {
        TSWRITEOPTS options;
        st_tsidx_write_opts_set_defaults(&options);
        options.seal = 0;
        const directory_ptr tsidx(st_tsidx_open(dir_.path().c_str(), 0, 0, &options, TSIDX_ORDINARY_WRITER));
        for (uint32_t i = 1; i < 3; i++) {
            ASSERT_EQ(put_event(tsidx.get(), {.time = 1, .address = i, .terms = {"lonely"}}), 0);
            ASSERT_EQ(st_tsidx_sync(tsidx.get()), 0);
        }
        EXPECT_EQ(merge_all(tsidx.get()), 0);
    }
    ASSERT_EQ(sealed_slices(dir_.path()), 0u);
    EXPECT_EQ(run({"fsck"}).out, "1 slices checked, no faults; 1 without a seal\n");
    EXPECT_EQ(run({"seal"}).out, "1 slices sealed, 0 had a seal that holds\n");
    put_slices(1);
    EXPECT_EQ(run({"seal"}).out, "0 slices sealed, 2 had a seal that holds\n");
    EXPECT_EQ(run({"fsck", "--quick"}).out, "2 slices checked, no faults\n");
    const std::string slice = slices().at(0), whole = read_file(slice);
    const bool is_lonely = whole.find("lonely") != whole.npos;
    const size_t word = whole.find(is_lonely ? "lonely" : "common");
    flip(slice, word, 0);
    tool_result found = run({"fsck", "--quick"});
    EXPECT_EQ(found.status, 4);
    EXPECT_EQ(found.out.rfind(slice + ": lexicon at byte ", 0), 0u) << found.out;
    EXPECT_NE(found.out.find(" bytes are not what was sealed: term"), std::string::npos) << found.out;
    EXPECT_NE(found.out.find("2 slices checked, 1 damaged, 1 faults\n"), std::string::npos) << found.out;
    found = run({"fsck", "--json"});
    EXPECT_NE(
        found.out.find("\"seal\":\"differs\",\"faults\":1,\"findings\":[{\"check\":\"seal\",\"section\":\"lexicon\""),
        std::string::npos)
        << found.out;
    EXPECT_NE(found.out.find("\"seal\":\"holds\",\"faults\":0,\"findings\":[]}"), std::string::npos) << found.out;
    found = run({"seal"});
    EXPECT_EQ(found.status, 4) << "a seal is not made to fit damage";
    EXPECT_EQ(run({"fsck", "--quick"}).status, 4);
    write_file(seal_path(slice), "nothing");
    EXPECT_EQ(run({"fsck", "--quick", "--quiet"}).status, 4);
    write_file(slice, "x" + whole.substr(1));
    EXPECT_EQ(run({"seal", "--anew"}).status, 4) << "nor for what is no slice";
    write_file(slice, whole);
    EXPECT_EQ(run({"seal", "--anew"}).out, "2 slices sealed, 0 had a seal that holds\n");
    EXPECT_EQ(run({"fsck"}).out, "2 slices checked, no faults\n");
}

}  // namespace
}  // namespace veldar

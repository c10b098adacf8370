#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "libzero/endian.h"
#include "libzero/filemutex.h"
#include "libzero/osfile.h"
#include "libzero/ospath-builder.h"
#include "libzero/vbe.h"
#include "libzero/xorshift128plus.h"
#include "tests/support/damage.h"
#include "tests/support/faults.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

TEST(PathBuilder, HoldsAPathOf4095BytesAndNotOneMore) {
    for (const size_t length : {4095u, 4096u, 4097u}) {
        ospath_builder b;
        ospath_builder_start(&b);
        const std::string text(length, 'p');
        ospath_builder_appendz(&b, text.c_str());
        EXPECT_EQ(ospath_builder_valid(&b), length <= 4096);
        EXPECT_EQ(ospath_builder_finish(&b), length <= 4095 ? 0 : -1) << length;
        EXPECT_EQ(ospath_buf_set(&b.buf, text.c_str()), length <= 4095 ? 0 : -1);
    }
}

TEST(StringBuilder, AppendsWholeOrNotAtAllAndStaysInvalid) {
    std::array<char, 9> out;
    out.fill('#');
    string_builder b;
    string_builder_start(&b, out.data(), 8);
    string_builder_append_decimal_i64(&b, -12345);
    string_builder_appendz(&b, "abc");
    EXPECT_FALSE(string_builder_valid(&b));
    string_builder_append1(&b, 'z');
    EXPECT_EQ(string_builder_finish(&b), -1);
    EXPECT_EQ(std::string(out.data(), 9), "-12345###");
}

TEST(StringBuilder, EncodesCodePoints) {
    char out[64];
    string_builder b;
    string_builder_start(&b, out, sizeof out);
    for (const uint32_t c : {0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xFFFFu, 0x10000u, 0x10FFFFu, 0x110000u}) {
        string_builder_append_utf8_codepoint(&b, c);
    }
    ASSERT_EQ(string_builder_finish(&b), 0);
    EXPECT_STREQ(out, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
}

template <typename T>
void expect_decimal(T value, uint32_t (*convert)(char*, T), uint32_t (*count)(T)) {
    char out[24];
    const std::string expected = std::to_string(value);
    EXPECT_EQ(std::string(out, convert(out, value)), expected);
    EXPECT_EQ(count(value), expected.size());
}

TEST(Decimal, AgreesWithTheLibraryAroundEveryPowerOfTwoAndTen) {
    const uint64_t top = uint64_t{1} << 63;
    for (const auto& [value, power] : {std::pair<uint64_t, uint64_t>(0, 0), {1, 1}, {5, 8}, {top, top}, {top + 1, 0}}) {
        EXPECT_EQ(round_up_to_power_of_two(value), power);
    }
    std::vector<uint64_t> values = {0, ~uint64_t{0}};
    for (uint64_t p = 1; p <= 1000000000000000000u; p *= 10) values.insert(values.end(), {p - 1, p, p + 1});
    values.push_back(10000000000000000000u);
    for (int i = 0; i < 64; i++) values.insert(values.end(), {(uint64_t{1} << i) - 1, uint64_t{1} << i});
    for (const uint64_t v : values) {
        expect_decimal<uint64_t>(v, convertU64ToAscii, decimalCharactersU64);
        expect_decimal<uint32_t>(static_cast<uint32_t>(v), convertU32ToAscii, decimalCharactersU32);
        const int64_t negative = static_cast<int64_t>(uint64_t{0} - v);
        expect_decimal<int64_t>(negative, convertI64ToAscii, decimalCharactersI64);
        expect_decimal<int32_t>(static_cast<int32_t>(negative), convertI32ToAscii, decimalCharactersI32);
    }
}

TEST(Vbe, EdgesRoundTripAndFiveBytesMustEnd) {
    uint8_t bytes[VBE_MAX_BYTES];
    uint32_t decoded = 0;
    for (const uint32_t value :
         {0u, 0x7Fu, 0x80u, 0x3FFFu, 0x4000u, 0x1FFFFFu, 0x200000u, 0xFFFFFFFu, 0x10000000u, ~0u}) {
        const uint32_t length = st_encode_to_vbe(bytes, value);
        EXPECT_EQ(length, vbe_length(value));
        EXPECT_EQ(st_decode_from_vbe(&decoded, bytes), length);
        EXPECT_EQ(decoded, value);
        EXPECT_EQ(vbe_decode_bounded(&decoded, bytes, bytes + length - 1), 0u) << "cut before the last byte";
    }
    bytes[4] |= 0x80;
    EXPECT_EQ(st_decode_from_vbe(&decoded, bytes), ~0u);
}

TEST(ByteString, FieldsAreBitsOfAStringAndWidth32ReadsAsZero) {
    std::mt19937 random(2);
    for (uint32_t width = 0; width <= 32; width++) {
        // The vectors end with the last field, so that a byte too many is seen by the sanitizers.
        std::vector<uint8_t> bytes((17 * width + 7) / 8, 0xA5);
        std::vector<bool> model(bytes.size() * 8);
        for (size_t k = 0; k < model.size(); k++) model[k] = (0xA5 >> (k % 8)) & 1;
        for (int step = 0; step < 60; step++) {
            const uint32_t index = static_cast<uint32_t>(random() % 17);
            const uint32_t value = static_cast<uint32_t>(random());
            encode_to_byte_str(bytes.data(), value, index, width);
            for (uint32_t k = 0; k < width; k++) model[index * width + k] = (value >> k) & 1;
            const uint64_t mask = width == 32 ? 0 : (uint64_t{1} << width) - 1;
            EXPECT_EQ(decode_from_byte_str(bytes.data(), index, width), value & mask);
        }
        for (size_t k = 0; k < model.size(); k++) EXPECT_EQ((bytes[k / 8] >> (k % 8)) & 1, int{model[k]});
    }
}

TEST(OsFile, SizesTimesAndClock) {
    const temp_dir dir;
    const std::string path = dir.file("f");
    write_file(path, "12345");
    const timespec times[2] = {{1000, 0}, {1234, 999999999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    int64_t modified = -1, changed = -1, missing = -1;
    uint64_t size = 0;
    EXPECT_EQ(ospath_get_time(path.c_str(), 1, &modified), 0);
    EXPECT_EQ(modified, 1234000);
    EXPECT_EQ(ospath_get_time(path.c_str(), 0, &changed), 0);
    EXPECT_GT(changed, modified);
    EXPECT_TRUE(ospath_get_time(dir.file("g").c_str(), 1, &missing) == -1 && missing == 0);
    EXPECT_EQ(ospath_get_size(path.c_str(), &size), 0);
    EXPECT_EQ(size, 5u);
    EXPECT_TRUE(ospath_try_stat(path.c_str()) == 0 && ospath_try_stat(dir.file("g").c_str()) == -1);
    const portable_timeval earlier = {1, 900000}, later = {3, 100000};
    EXPECT_EQ(portable_timeval_usec_diff(&earlier, &later), 1200000);
    EXPECT_EQ(portable_timeval_usec_diff(&later, &earlier), -1200000);
}

TEST(OsFile, ALinkMadeBeforeCountsAsMade) {
    const temp_dir dir;
    const std::string path = dir.file("f"), other = dir.file("g"), second = dir.file("h");
    write_file(path, "1");
    write_file(other, "2");
    EXPECT_EQ(ospath_link(path.c_str(), second.c_str()), 0);
    EXPECT_EQ(ospath_link(path.c_str(), second.c_str()), 0);
    EXPECT_EQ(ospath_link(other.c_str(), second.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
}

// The reference values come from the published definitions of splitmix64 and xorshift128+, computed apart from this
// code.
TEST(Xorshift, SeededSequenceIsFixed) {
    xorshift128plus_state state;
    xorshift128plus_init_with_seed(&state, 42);
    EXPECT_EQ(state.s0, UINT64_C(0xa759ea27d4727622));
    EXPECT_EQ(state.s1, UINT64_C(0x4942410a1f55400a));
    EXPECT_EQ(xorshift128plus_next(&state), UINT64_C(0x47340967828e5620));
    EXPECT_EQ(xorshift128plus_next(&state), UINT64_C(0x2fae0e4c54046284));
    xorshift128plus_state same = state;
    EXPECT_EQ(xorshift128plus_get_ratio(&same),
              static_cast<double>(xorshift128plus_next(&state) & 0xFFFFFFFFFFFFF) / 0x10000000000000);
    xorshift128plus_mix_in_initial_seed(&same);
    EXPECT_NE(same.s0, state.s0);
    xorshift128plus_init_with_mixers(&same, 1, 2);
    xorshift128plus_init_with_mixers(&state, 1, 2);
    EXPECT_NE(same.s0, state.s0);
    xorshift128plus_init_with_seed(&state, 0);
    EXPECT_EQ(xorshift128plus_next(&state) | state.s0 | state.s1, 0u);
}

TEST(Xorshift, FillsMemoryInWholeSteps) {
    xorshift128plus_state filled, stepped;
    xorshift128plus_init_with_seed(&filled, 7);
    stepped = filled;
    uint8_t bytes[10] = {}, expected[16] = {};
    xorshift128plus_fill_memory(&filled, bytes, 9);
    for (const int at : {0, 8}) store_le64(expected + at, xorshift128plus_next(&stepped));
    expected[9] = 0;  // not filled
    EXPECT_TRUE(std::equal(bytes, bytes + 10, expected));
    EXPECT_EQ(filled.s1, stepped.s1);
}

class FileMutex : public testing::Test {
  protected:
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
            found.push_back(entry.path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }

    const lock_optimism optimism_;
    temp_dir dir_;
    std::string path_ = dir_.file("p");
};

TEST_F(FileMutex, OptimismTakesFourWordsOnly) {
    for (const char* word : {"1", "t", "true", "yes"}) {
        ::setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", word, 1);
        EXPECT_TRUE(filemutex_path_supported("/proc"));
    }
    for (const char* word : {"True", "1 ", "", "on"}) {
        ::setenv("OPTIMISTIC_ABOUT_FILE_LOCKING", word, 1);
        EXPECT_FALSE(filemutex_path_supported("/proc")) << word;
    }
    ::unsetenv("OPTIMISTIC_ABOUT_FILE_LOCKING");
    EXPECT_FALSE(filemutex_path_supported("/proc"));
    EXPECT_EQ(filemutex_lock("/dev/shm/veldar-test"), FILEMUTEX_ERROR) << "files, but none that exclude";
}

TEST_F(FileMutex, BothProtocolsExcludeAndLeaveOnlyTheLockWithItsText) {
    filemutex_init_contents("tester");
    char host[65] = {};
    ASSERT_EQ(::gethostname(host, 65), 0);
    for (const auto lock : {filemutex_lock, filemutex_lock_by_link}) {
        EXPECT_EQ(filemutex_is_locked(path_.c_str()), 0);
        EXPECT_EQ(lock(path_.c_str()), FILEMUTEX_OK);
        EXPECT_EQ(filemutex_is_locked(path_.c_str()), 1);
        EXPECT_EQ(read_file(path_ + ".lock"), std::to_string(::getpid()) + "\n" + host + "\ntester");
        EXPECT_EQ(filemutex_lock(path_.c_str()), FILEMUTEX_HELD);
        EXPECT_EQ(filemutex_lock_by_link(path_.c_str()), FILEMUTEX_HELD);
        EXPECT_EQ(filemutex_lock_with_timeout(path_.c_str(), 0), FILEMUTEX_HELD);
        EXPECT_EQ(names(), std::vector<std::string>{"p.lock"});
        EXPECT_EQ(filemutex_unlock(path_.c_str()), FILEMUTEX_OK);
        EXPECT_EQ(filemutex_unlock(path_.c_str()), FILEMUTEX_OK) << "a lock that is gone";
        EXPECT_EQ(lock((dir_.path() + "/none/p").c_str()), FILEMUTEX_ERROR);
        EXPECT_EQ(lock(std::string(4092, 'x').c_str()), FILEMUTEX_ERROR);
    }
    std::string deep = dir_.path();  // the lock's name fits, that of a temporary file does not
    while (deep.size() < 4086) deep += "/.";
    EXPECT_EQ(filemutex_lock_by_link((deep + "/p").c_str()), FILEMUTEX_ERROR);
    const fake_host nameless(std::string(300, 'h'));
    EXPECT_EQ(filemutex_lock_by_link(path_.c_str()), FILEMUTEX_ERROR);
    EXPECT_TRUE(names().empty());
}

// The lock is had when the file is ours, whatever the link reported, and only then.
TEST_F(FileMutex, TheLinkedFileDecides) {
    filemutex_init_contents("tester");
    const no_pauses pauses;
    const std::string lock = path_ + ".lock";
    for (uint64_t n = 2; n <= 4; n++) {
        uint64_t call = 0;
        const auto other = [&] {
            if (++call == n) write_file(lock, "another's");
            if (call == 12) std::filesystem::remove(lock);
        };
        const fault_step step(1, other, 100);
        EXPECT_EQ(filemutex_lock_by_link(path_.c_str()), FILEMUTEX_OK);
        EXPECT_NE(read_file(lock), "another's");
        EXPECT_EQ(names(), std::vector<std::string>{"p.lock"});
        std::filesystem::remove(lock);
    }
    uint64_t linked = 0;
    const auto link_before = [&] {
        for (const std::string& name : names()) {
            if (name.find(".temp-") != name.npos && linked++ == 0)
                std::filesystem::create_hard_link(dir_.file(name), lock);
        }
    };
    {
        const fault_step step(1, link_before, 100);
        EXPECT_EQ(filemutex_lock_by_link(path_.c_str()), FILEMUTEX_OK) << "the answer to the link got lost";
    }
    for (const auto& [error, result] : {std::pair(EPERM, FILEMUTEX_ERROR),
                                        {EIO, FILEMUTEX_ERROR},
                                        {EROFS, FILEMUTEX_ERROR},
                                        {ENOMEM, FILEMUTEX_HELD}}) {
        const fault broken(fault_call::unlink, 1, error);
        EXPECT_EQ(filemutex_unlock(path_.c_str()), result);
    }
    EXPECT_EQ(filemutex_unlock(path_.c_str()), FILEMUTEX_OK);
    {
        const fault_step step(3, [&] { write_file(lock, "another's"); });
        EXPECT_EQ(filemutex_lock_by_link(path_.c_str()), FILEMUTEX_HELD) << "for good";
        EXPECT_GE(pauses.microseconds(), 5000000u);
        std::filesystem::remove(lock);
    }
    for (const fault_call call : {fault_call::stat, fault_call::link}) {
        const fault broken(call, 1, ENOSPC);
        EXPECT_EQ(filemutex_lock_by_link(path_.c_str()), FILEMUTEX_ERROR);
        EXPECT_TRUE(names().empty());
    }
}

TEST_F(FileMutex, OnlyAStaleLockIsBroken) {
    const time_t future = std::time(nullptr) + 100;
    // What happens to the lock while it is being broken.
    for (const bool renewed : {false, true}) {
        ASSERT_EQ(filemutex_lock(path_.c_str()), FILEMUTEX_OK);
        const time_t locked = std::time(nullptr);
        while (std::time(nullptr) == locked) ::usleep(1000);
        {
            const fault stays(fault_call::unlink, 1, EPERM);
            EXPECT_EQ(filemutex_lock_forced(path_.c_str(), 0), FILEMUTEX_STUCK);
        }
        const auto change = [&] {
            if (renewed) {
                std::filesystem::permissions(path_ + ".lock", std::filesystem::perms::owner_read);
            } else {
                std::filesystem::remove(path_ + ".lock");
            }
        };
        const fault_step step(2, change);
        EXPECT_EQ(filemutex_unlock_forced(path_.c_str(), std::time(nullptr)), renewed ? FILEMUTEX_OK : FILEMUTEX_ERROR);
        EXPECT_EQ(names(), (renewed ? std::vector<std::string>{"p.lock"} : std::vector<std::string>{}));
    }
    for (const auto& [error, result] : {std::pair(ENOMEM, FILEMUTEX_ERROR), {EPERM, FILEMUTEX_STUCK}}) {
        const fault broken(fault_call::unlink, 1, error);
        EXPECT_EQ(filemutex_unlock_forced(path_.c_str(), future), result);
    }
    EXPECT_EQ(filemutex_unlock(path_.c_str()), FILEMUTEX_OK);
    EXPECT_EQ(filemutex_unlock_forced(path_.c_str(), future), FILEMUTEX_ERROR) << "no lock";
    ASSERT_EQ(filemutex_lock_forced(path_.c_str(), 0), FILEMUTEX_OK);
    EXPECT_EQ(filemutex_unlock_forced(path_.c_str(), std::time(nullptr) - 100), FILEMUTEX_ERROR) << "too young";
    EXPECT_EQ(filemutex_is_locked(path_.c_str()), 1);
    EXPECT_EQ(filemutex_unlock_forced(path_.c_str(), future), FILEMUTEX_OK);
    EXPECT_TRUE(names().empty());
    const std::string longest(4093, 'x');  // no lock's name fits
    EXPECT_EQ(filemutex_unlock_forced(longest.c_str() + 5, future), FILEMUTEX_STUCK);
    EXPECT_EQ(filemutex_is_locked(longest.c_str()), 0);
    EXPECT_EQ(filemutex_unlock(longest.c_str()), FILEMUTEX_ERROR);
    ASSERT_EQ(filemutex_lock(path_.c_str()), FILEMUTEX_OK);
    EXPECT_EQ(filemutex_lock_forced(path_.c_str(), 1), FILEMUTEX_OK) << "a holder that crashed";
    EXPECT_EQ(names(), std::vector<std::string>{"p.lock"});
}

// What a failing call makes of each, and what it leaves.
TEST_F(FileMutex, EveryFailingCall) {
    std::string all;
    const no_pauses pauses;
    const std::function<int(const char*)> acts[] = {
        filemutex_lock,
        filemutex_lock_by_link,
        filemutex_unlock,
        filemutex_is_locked,
        [](const char* path) { return filemutex_unlock_forced(path, std::time(nullptr) + 100); },
        filemutex_lock_by_link,  // of a lock that another holds
        [this](const char*) { return filemutex_test_capability(dir_.path().c_str()); }};
    for (size_t act = 0; act < std::size(acts); act++) {
        for (uint64_t nth = 1, calls = 0; nth <= calls + 1; nth++) {
            for (const std::string& name : names()) ::unlink(dir_.file(name).c_str());
            if (act >= 2 && act <= 5) write_file(path_ + ".lock", "");
            const fault_step step(fault_action::fail, nth, EIO);
            all += std::to_string(act) + " " + std::to_string(acts[act](path_.c_str()));
            const fault_truce own;
            calls = step.calls();
            for (const std::string& name : names()) all += name == "p.lock" ? " locked" : " another";
            all += "\n";
        }
    }
    expect_kept("filemutex", all);
}

TEST_F(FileMutex, CapabilityTest) {
    const mode_t umask_before = ::umask(022);
    write_file(path_, "");
    EXPECT_EQ(filemutex_test_capability(""), 2);
    EXPECT_EQ(filemutex_test_capability(std::string(4090, 'x').c_str()), 2);
    EXPECT_EQ(filemutex_test_capability(dir_.file("none").c_str()), 3);
    EXPECT_EQ(filemutex_test_capability(path_.c_str()), 5);
    EXPECT_EQ(filemutex_test_capability("/proc"), 7);
    EXPECT_EQ(filemutex_test_capability(dir_.path().c_str()), 0);
    EXPECT_EQ(names(), std::vector<std::string>{"p"});
    EXPECT_EQ(::umask(umask_before), mode_t{066 | 022});
}

}  // namespace

}  // namespace veldar

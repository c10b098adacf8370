// Processes that crash, and what they write down.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "libzero/assertions.h"
#include "libzero/create-crash-dump.h"
#include "searchthing/search/warmslice_search.h"
#include "tests/support/forge.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

void write_number(string_builder* out, const void* subject) noexcept {
    string_builder_append_decimal_i64(out, *static_cast<const int*>(subject));
    string_builder_appendz(out, " is noted\n");
}

void write_and_crash(string_builder*, const void*) noexcept {
    ::raise(SIGSEGV);
}

[[gnu::noinline]] int overflow(int depth) {
    volatile char frame[4096] = {static_cast<char>(depth)};
    return depth < 0 ? 0 : overflow(depth + 1) + frame[0];
}

// A slice whose file loses its bytes while it is mapped.
void search_a_cut_slice(const std::string& directory) {
    const std::string path = forge_file(directory, forge_random_events(4, 40), forge_as_created(4), 77);
    warm_rc_t rc;
    WARM* const warm = st_warm_slice_open_rdonly(path.c_str(), &rc);
    st_query_spec query;
    query.latest = {INT32_MAX, 0};
    query.lispy = "[AND all [OR tenth h*]]";
    std::vector<st_tsval> answers(9);
    if (::truncate(path.c_str(), 0) == 0) {
        static_cast<void>(st_warm_slice_search(warm, &query, answers.data(), 9, true));
    }
}

TEST(Crash, LogsTellWhatHappened) {
    const temp_dir slices;
    const int seven = 7;
    const struct {
        const char* what;
        int signal;
        std::function<void()> crash;
        std::vector<std::string> told;
    } cases[] = {
        {"assertion",
         SIGABRT,
         [] { ST_ASSERT(1 + 1 == 3); },
         {"SIGABRT", "assertion 1 + 1 == 3 in ", "crash_test.cc:"}},
        {"a note and one that crashes, too",
         SIGFPE,
         [&] {
             const crash_note outer(write_number, &seven);
             const crash_note inner(write_and_crash, nullptr);
             ::raise(SIGFPE);
         },
         {"SIGFPE", "note of the thread:\n\n(this part crashed, signal 11)", "\n7 is noted\n", "memory map:\n"}},
        {"notes that are over",
         SIGBUS,
         [&] {
             { const crash_note note(write_number, &seven); }
             crash_note_of_process(write_number, &seven);
             ::raise(SIGBUS);
         },
         {"\n\nnote of the process:\n7 is noted\n\nframes by name:\n", "frames by name:\n"}},
        {"stack overflow", SIGSEGV, [] { overflow(0); }, {"SIGSEGV code ", "frames, the innermost first:\n0x"}},
        {"search",
         SIGBUS,
         [&] { search_a_cut_slice(slices.path()); },
         {"START ST_WARM_SLICE_SEARCH ANNOTATIONS:\nslice ",
          "-77 fd=", " cumspan=0\nQUERY lispy=[AND all [OR tenth h*]]\nanswers=0x", " cap=9 is_exact=1\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const temp_dir dir;
        const pid_t child = ::fork();
        if (child == 0) {
            const int quiet = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
            ::dup2(quiet, STDERR_FILENO);
            ::setenv("VELDAR_HOME", dir.path().c_str(), 1);
            if (create_crash_dump_install_from_environment("test") == 0) c.crash();
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == c.signal) << status;
        std::string log;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            EXPECT_EQ(entry.path().filename().string().find("test-crash-"), 0u);
            log += read_file(entry.path().string());
        }
        EXPECT_EQ(log.find("crash log of test\nprocess " + std::to_string(child) + " thread "), 0u) << log;
        EXPECT_EQ(log.find("(this part crashed") != log.npos, c.signal == SIGFPE) << log;
        for (const std::string& text : c.told) {
            EXPECT_NE(log.find(text), std::string::npos) << text << "\n" << log;
            EXPECT_EQ(log.find(text), log.rfind(text)) << text << " comes again\n" << log;
        }
    }
}

// A log that can be written nowhere does not keep the process from its end.
TEST(Crash, NoPlaceForTheLog) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGFPE, SIG_IGN);
        create_crash_dump_remove();  // which was not installed
        ::raise(SIGFPE);
        int notes = 0;
        while (crash_note_of_process(write_number, &notes) && notes < 99) notes++;
        const bool is_too_long = create_crash_dump_install("test", std::string(5000, 'x').c_str()) == -1;
        if (!is_too_long || create_crash_dump_install("test", "/none") != 0) ::_exit(0);
        ::close(STDERR_FILENO);
        ::raise(notes == 8 ? SIGILL : SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGILL) << status;
}

}  // namespace
}  // namespace veldar

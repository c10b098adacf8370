// Every form of question while a file call or an allocation of it fails: a status that is not 0 and words that name the
// cause, or the whole answer; and nothing leaks. VELDAR_TORTURE asks for every one, else one a place that calls
// or allocates.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "searchthing/base/st_init.h"
#include "searchthing/directory/merge_manifest.h"
#include "searchthing/directory/tsidx_merge_settle.h"
#include "tests/support/faults.h"
#include "tests/support/hot_events.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tests/support/sampled.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/store/observer.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/terminal_observer.h"

#if defined(__SANITIZE_ADDRESS__)
#define VELDAR_LEAKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELDAR_LEAKS 1
#endif
#endif
#ifdef VELDAR_LEAKS
#include <sanitizer/lsan_interface.h>
#endif

namespace veldar {

using namespace tool;
namespace {

using words = std::vector<std::string>;
constexpr uint64_t NEVER = ~uint64_t{0} - 1;  // the number of no call

using adder = void (*)(const command&);

struct form {
    adder add;
    words arguments;
};

// What a child leaves.
struct report {
    uint64_t calls, allocations, by_parser;
    uint64_t places[1 << 12], stacks[1 << 12], place_count;  // the first call of each place that calls
    bool leaks;
};

// As the tool's main does it, with `faults` on.
template <typename Faults>
int run_command(const form& one, const std::string& store, const Faults& faults) {
    terminal_observer terminal;
    const observer prints = terminal_observer_open(&terminal);
    const observer_scope observed(&prints);
    std::vector<const char*> line = {"-s", store.c_str()};
    for (const std::string& word : one.arguments) line.push_back(word.c_str());
    const adder adders[] = {one.add};
    const command_group groups[] = {{"Asking", adders}};
    return faults(
        [&] { return command_line_main(groups, line.data(), line.size(), [] { return std::string("veldar"); }); });
}

class QueryFaults : public testing::Test {
  protected:
    void SetUp() override {
        std::string text, samples;
        for (int i = 0; i < 200; i++) {
            char line[160];
            std::snprintf(line, sizeof line,
                          "2024-01-01T00:%02d:%02dZ host=h%d status=%d took=%d.5 GET item a%d tag=t%d tag=u%d\n",
                          i / 60, i % 60, i % 3, i % 9 == 0 ? 404 : 200, i * 7 % 50, i % 20, i % 7, i % 4);
            text += line;
            std::snprintf(line, sizeof line, "m{host=\"h%d\"} %d %d\nn_total %d %d\n", i % 3, i, 1704067200 + i, i,
                          1704067200 + i);
            samples += line;
        }
        write_file(dir.file("a.log"), text.substr(0, text.size() / 2));
        const words load = {"-s", store, "load", "--no-optimize", dir.file("a.log")};
        ASSERT_EQ(run_tool("veldar/veldar", load).status, 0);
        write_file(dir.file("a.log"), text);
        ASSERT_EQ(run_tool("veldar/veldar", load).status, 0);
        write_file(dir.file("b.log.gz"), gzip_member(text.substr(0, 1000) + "and item a7 behind\n"));
        ASSERT_EQ(run_tool("veldar/veldar", {"-s", store, "load", "--no-optimize", dir.file("b.log.gz")}).status, 0);
        for (const auto& [name, words_of_it] : {std::pair<const char*, words>{"events", {"search", "item"}},
                                                {"table", {"stats", "--by", "host", "--agg", "p99(took),dc(took)"}}}) {
            words partial = {"-s", store, "--partial"};
            partial.insert(partial.begin(), words_of_it.begin(), words_of_it.end());
            write_file(dir.file(name), run_tool("veldar/veldar", partial).out);
        }
        write_file(dir.file("m.om"), samples);
        ASSERT_EQ(run_tool("veldar/veldar", {"-s", store, "metrics", "load", dir.file("m.om")}).status, 0);
    }

    // How many allocations come before the first file call: those of the command line's parser, which is a library and
    // ends the process at some, and of the query's.
    void count_parser(const form& one) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
            run_command(one, store, [&](const auto& work) {
                const fault_step* counted = nullptr;
                const fault_step step(1, [&] { told->by_parser = counted->allocations(); });
                counted = &step;
                return work();
            });
            ::_exit(0);
        }
        EXPECT_EQ(::waitpid(child, nullptr, 0), child);
    }

    // In a child, so that what a command keeps for the rest of its process is not kept here.
    int run(const form& one, fault_action action, uint64_t nth, uint64_t times, std::string* out) {
        const std::string path = dir.file("out");
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(60);
            const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            const int errors = ::open(dir.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(fd, STDOUT_FILENO);
            ::dup2(errors, STDERR_FILENO);
            ::dup2(::open(dir.file("piped").c_str(), O_RDONLY | O_CREAT, 0600), STDIN_FILENO);
            const int status = run_command(one, store, [&](const auto& work) {
                const fault_step step(action, nth, EIO, times);
                const int ended = work();
                const fault_truce own;
                told->calls = step.calls();
                told->allocations = step.allocations();
                const std::vector<uint64_t> places = step.firsts();
                told->place_count = std::min(places.size(), std::size(told->places));
                std::copy_n(places.begin(), told->place_count, told->places);
                std::copy_n(step.stacks().begin(), told->place_count, told->stacks);
                return ended;
            });
            std::fflush(nullptr);
#ifdef VELDAR_LEAKS
            told->leaks = __lsan_do_recoverable_leak_check() != 0;
#endif
            ::_exit(status);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        *out = read_file(path);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

    const temp_dir dir;
    const std::string store = dir.file("store");
    const lock_optimism optimism;
    report* const told = static_cast<report*>(
        ::mmap(nullptr, sizeof(report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
};

// The forms, and what a question means in each.
std::vector<form> all_forms(const temp_dir& dir, const std::string& store) {
    const std::string since = "2024-01-01T00:01:00Z", until = "2024-01-01T00:02:00Z";
    const std::string before = "2024-01-01.." + since, after = since + ".." + until;
    const std::string aggregates =
        "count,count(took),sum(took),sumsq(took),min(took),max(took),avg(took),dc(took),values(took),median(took),p99."
        "9(took)";
    return {
        {add_search_command, {"search", "item", "a7"}},
        {add_search_command, {"search", "\"GET item\"", "NOT", "a7"}},
        {add_search_command, {"search", "a1*", "OR", "tem~", "--format", "jsonl", "--since", since, "--until", until}},
        {add_search_command, {"search", "status>=300", "-C", "2", "-n", "5", "-r"}},
        {add_search_command, {"search", "--native", "[AND item [NOT a7]]", "--format", "table"}},
        {add_count_command, {"count", "status=404", "host!=h1"}},
        {add_count_command, {"count", "\"GET item a7\"", "--since", since}},
        {add_terms_command, {"terms", "a*"}},
        {add_terms_command, {"terms", "--sort", "term"}},
        {add_fields_command, {"fields", "--bytes"}},
        {add_seen_command, {"seen", "a7"}},
        {add_stats_command, {"stats", "item", "--by", "host,status", "--agg", aggregates, "--missing"}},
        {add_stats_command, {"stats", "--every", "1m", "--agg", aggregates, "--format", "jsonl", "--top", "2"}},
        {add_stats_command, {"stats", "status=200", "--every", "auto", "--by", "host", "--plot"}},
        {add_stats_command, {"stats", "item", "--by", "tag,host", "--agg", "values(tag)", "--every", "1m"}},
        {add_stats_command, {"stats", "\"GET item\"", "--by", "tag,host", "--agg", aggregates}},
        {add_top_command, {"top", "status", "item"}},
        {add_new_command, {"new", "--since", since}},
        {add_diff_command, {"diff", "--before", before, "--after", after}},
        {add_metrics_command, {"metrics", "query", "m", "--where", "host=h1"}},
        {add_metrics_command,
         {"metrics", "query", "*", "--agg", "avg,max,min,sum,count,p95,median,dc,values", "--by", "host", "--every",
          "1m", "--fill", "last", "--missing"}},
        {add_metrics_command, {"metrics", "query", "n_total", "--rate", "--every", "1m"}},
        {add_metrics_command, {"metrics", "ls"}},
        {add_metrics_command, {"metrics", "cardinality", "host"}},
        {add_metrics_command, {"metrics", "dump"}},
        {add_search_command, {"search", "a7", "-C", "1", "--fields", "host,took", "--partial"}},
        {add_stats_command, {"stats", "--every", "1m", "--agg", aggregates, "--partial"}},
        {add_merge_answers_command, {"merge-answers", "--format", "jsonl", dir.file("events")}},
        {add_merge_answers_command, {"merge-answers", dir.file("table")}},
        {add_fsck_command, {"fsck"}},
        {add_fsck_command, {"fsck", "--against-source", "--json"}},
        {add_ls_command, {"ls"}},
        {add_health_command, {"health"}},
        {add_info_command, {"info", files_in(store + "/bucket-000001", ".tsidx")[0]}},
        {add_dump_command, {"dump"}},
    };
}

TEST_F(QueryFaults, EveryAllocationFails) {
    const bool brief = ::getenv("VELDAR_TORTURE") == nullptr;
    std::set<uint64_t> tried;  // places
    for (const form& one : all_forms(dir, store)) {
        std::string name, whole, out;
        for (const std::string& word : one.arguments) name += word + " ";
        SCOPED_TRACE(name);
        ASSERT_EQ(run(one, fault_action::allocation, ~uint64_t{0}, 1, &whole), 0) << read_file(dir.file("err"));
        ASSERT_FALSE(whole.empty());
        const uint64_t allocations = told->allocations;
        std::vector<uint64_t> numbers;
        for (size_t i = 0; i < told->place_count && brief; i++) {
            if (tried.insert(told->stacks[i]).second) numbers.push_back(told->places[i]);
        }
        if (!brief) std::iota((numbers = std::vector<uint64_t>(allocations)).begin(), numbers.end(), uint64_t{1});
        EXPECT_GT(numbers.size(), 5u);
        count_parser(one);
        for (size_t i = 0; i < numbers.size(); i += SANITIZED_PART) {
            const uint64_t n = numbers[i];
            for (const uint64_t times : {uint64_t{1}, uint64_t{1} << 40}) {
                if (brief && times > 1 && i % 4 != 0) continue;
                const int status = run(one, fault_action::allocation, n, times, &out);
                if (status == 1000 + SIGABRT && n <= told->by_parser) continue;
                EXPECT_LT(status, 1000) << n << " of " << allocations << " times " << times
                                        << read_file(dir.file("err"));
                EXPECT_TRUE(status != 0 || out == whole) << n << " times " << times << ": " << out;
                EXPECT_FALSE(told->leaks) << n << " times " << times << read_file(dir.file("err"));
            }
        }
    }
}

TEST_F(QueryFaults, EveryFileCallFails) {
    const bool brief = ::getenv("VELDAR_TORTURE") == nullptr;
    for (const form& one : all_forms(dir, store)) {
        std::string whole, out;
        ASSERT_EQ(run(one, fault_action::fail, ~uint64_t{0}, 1, &whole), 0) << read_file(dir.file("err"));
        const std::string said = read_file(dir.file("err"));
        std::vector<uint64_t> calls(told->places, told->places + told->place_count);
        if (!brief) std::iota((calls = std::vector<uint64_t>(told->calls)).begin(), calls.end(), uint64_t{1});
        EXPECT_FALSE(calls.empty());
        for (size_t i = 0; i < calls.size(); i += SANITIZED_PART) {
            const uint64_t n = calls[i];
            for (const uint64_t times : {uint64_t{1}, uint64_t{1} << 40}) {
                const int status = run(one, fault_action::fail, n, times, &out);
                const std::string err = read_file(dir.file("err"));
                EXPECT_TRUE(status == 0 ? out == whole : err.find("Input/output error") != err.npos)
                    << one.arguments[0] << " " << n << " times " << times << ": " << status << "\n"
                    << err << out;
            }
        }
    }
}

// Whatever fails beneath a command that changes a store, it says so; and the same command again makes what it had made
// without. Of the places that allocate, or may do half of what they are told, one in four, else all; where it is slow,
// one of seven of them.
TEST_F(QueryFaults, EveryFailureOfAChangeIsMadeGood) {
    const bool brief = ::getenv("VELDAR_TORTURE") == nullptr;
    const no_flushes flushes;
    const no_pauses pauses;
    st_init("query_faults_test");  // locks are signed
    const std::string kept = dir.file("kept"), csv = dir.file("e.csv"), bucket = store + "/bucket-000001";
    const std::string index = dir.file("index");
    std::string more, samples, events, out;
    for (int i = 1000; i < 2100; i++) events += std::to_string(i) + "\t" + std::to_string(i) + "\t1\t1\t1\t0\ta\n";
    for (int i = 0; i < 25; i++) samples += "p " + std::to_string(i) + " 17040672000" + std::to_string(10 + i) + "\n";
    for (int i = 10; i < 40; i++)
        more += "Jan  3 00:00:" + std::to_string(i) + " host prog[" + std::to_string(i) + "]: x\n";
    const std::string packed = gzip_member(more);
    write_file(dir.file("d.log.gz"), packed);
    write_file(csv, "time,cpu,host\n1704067200,1.5,a\n1704067201,2.5,\"b\"\n");
    const std::string clock = "10:00:01 one\n10:00:02 two\n";
    write_file(dir.file("clock.log"), clock);
    ASSERT_EQ(run({add_load_command, {"load", dir.file("clock.log")}}, fault_action::fail, NEVER, 1, &out), 0);
    std::ofstream(dir.file("a.log"), std::ios::app) << "2024-01-01T00:09:00Z host=h0 GET item more\n";
    std::ofstream(dir.file("m.om"), std::ios::app) << "n_total 500 1704067900\n";
    std::filesystem::rename(store, kept);
    const merge_manifest_t merge = {merge_owner_self(), "8-1-66.tsidx", "8-1-66.pre-tsidx", {"7-1-5.tsidx"}};
    unique_fd merging;
    const auto stands = [&] { std::filesystem::copy(kept, store, std::filesystem::copy_options::recursive); };
    const auto was_torn = [&] {
        stands();
        std::ofstream(store + "/sources", std::ios::app) << "/half/a.na";
    };
    const auto was_killed = [&] {  // before it noted how far it was, which is the note's end
        stands();
        const std::string notes = bucket + "/source.map";
        std::filesystem::resize_file(notes, std::filesystem::file_size(notes) - 24);
    };
    const auto was_deleted_from = [&] {
        was_killed();
        run({add_delete_command, {"delete", "status=404"}}, fault_action::fail, NEVER, 1, &out);
        run({add_load_command, {"load", dir.file("a.log")}}, fault_action::fail, NEVER, 1, &out);
    };
    const auto has_leftovers = [&] {  // a merge is writing one of them, and a log is gone
        stands();
        std::filesystem::remove(dir.file("clock.log"));
        write_file(bucket + "/9-1-77.tsidx.seal", "");
        write_file(bucket + "/" + merge.temp, "");
        merging = open_file(bucket + "/" + MERGE_MANIFEST_TMP_NAME, merge_manifest_text(merge));
        ASSERT_EQ(tsidx_lock_file(merging.get()), 1);
    };
    const auto is_damaged = [&] {
        stands();
        const std::string path = files_in(bucket, ".tsidx").at(0);
        std::string bytes = read_file(path);
        for (size_t i = 0; i < 30; i++) bytes[bytes.size() / 2 + i] ^= 0x10;
        write_file(path, bytes);
    };
    const auto has_lost = [&] {
        is_damaged();
        run({add_salvage_command, {"salvage"}}, fault_action::fail, NEVER, 1, &out);
    };
    const struct {
        form ask;
        std::function<void()> make;
    } changes[] = {
        {{add_load_command,
          {"load", "--no-optimize", "--bucket-bytes", "3000", dir.file("a.log"), dir.file("d.log.gz")}},
         [] {}},
        {{add_metrics_command, {"metrics", "load", dir.file("m.om")}}, [] {}},
        {{add_load_command, {"load", "--no-optimize", dir.file("a.log"), dir.file("clock.log")}}, was_torn},
        {{add_metrics_command, {"metrics", "load", dir.file("m.om")}}, stands},
        {{add_load_command, {"load", dir.file("d.log.gz")}}, stands},
        {{add_load_command, {"load", "--again", dir.file("a.log")}}, stands},
        {{add_load_command, {"load", "--bucket-bytes", "400", "-"}}, stands},
        {{add_metrics_command, {"metrics", "load", "-", "--batch", "10", "--format", "prometheus"}}, stands},
        {{add_put_command, {"put", index, "-", "--max-values", "1024"}}, stands},
        {{add_forget_command, {"forget", dir.file("b.log.gz")}}, stands},
        {{add_metrics_command, {"metrics", "load", csv, "--value", "cpu", "--dims", "host"}}, stands},
        {{add_delete_command, {"delete", "status=404"}}, stands},
        {{add_delete_command, {"delete", "status=404"}}, was_killed},
        {{add_load_command, {"load", dir.file("d.log.gz")}}, was_deleted_from},
        {{add_optimize_command, {"optimize", "--all"}}, stands},
        {{add_retain_command, {"retain", "--older-than", "2024-01-01T00:01:00Z"}}, stands},
        {{add_seal_command, {"seal", "--anew"}}, stands},
        {{add_gc_command, {"gc", "--yes"}}, has_leftovers},
        {{add_salvage_command, {"salvage"}}, is_damaged},
        {{add_rebuild_command, {"rebuild"}}, has_lost},
    };
    const auto holds = [&] {  // in one child
        const pid_t child = ::fork();
        if (child == 0) {
            ::dup2(::open(dir.file("held").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            ::dup2(STDOUT_FILENO, STDERR_FILENO);
            for (const form& one : {form{add_search_command, {"search", "*", "--format", "raw"}},
                                    form{add_metrics_command, {"metrics", "dump"}},
                                    form{add_dump_command, {"dump", index}}, form{add_fsck_command, {"fsck"}}}) {
                std::printf("%d\n", run_command(one, store, [](const auto& work) { return work(); }));
            }
            std::fflush(nullptr);
            ::_exit(0);
        }
        EXPECT_EQ(::waitpid(child, nullptr, 0), child);
        std::vector<std::string> lines;
        std::istringstream in(read_file(dir.file("held")));
        for (std::string line; std::getline(in, line);) {
            if (line.find(" slices checked") == line.npos) lines.push_back(line);  // merges may have come between
        }
        std::sort(lines.begin(), lines.end());
        return lines;
    };
    const auto count_slices = [&] {
        size_t count = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(store)) {
            count += entry.path().extension() == ".tsidx" ? 1 : 0;
        }
        return count;
    };
    const std::string* piped = &more;
    const auto restore = [&](const std::function<void()>& make) {
        merging.reset();
        std::filesystem::remove_all(store);
        std::filesystem::remove_all(index);
        write_file(dir.file("clock.log"), clock + "10:00:03 three\n");
        make();
        write_file(dir.file("piped"), *piped);
    };
    std::set<uint64_t> tried;
    for (const auto& [ask, make] : changes) {
        piped = ask.add == add_metrics_command ? &samples : ask.add == add_put_command ? &events : &more;
        for (const fault_action action : {fault_action::fail, fault_action::allocation, fault_action::shorten}) {
            std::string said, told_now;
            // A rescue takes a short read for the end of a file.
            if (action == fault_action::shorten && ask.add == add_salvage_command) continue;
            restore(make);
            // A slice that only forgotten events are left in goes if it can.
            const bool forgets =
                ask.add == add_rebuild_command || ask.add == add_load_command || ask.add == add_forget_command;
            const int usual = run(ask, action, ~uint64_t{0}, 1, &said);  // a rescue may end with 4
            EXPECT_EQ(usual, ask.add == add_salvage_command ? 4 : 0) << read_file(dir.file("err"));
            const std::vector<uint64_t> places(told->places, told->places + told->place_count);
            const std::vector<uint64_t> stacks(told->stacks, told->stacks + told->place_count);
            const size_t slices = count_slices();
            const std::vector<std::string> whole = holds();
            restore(make);
            count_parser(ask);
            size_t cases = 0;
            const size_t stride = (2 * SANITIZED_PART - 1) * (brief && action != fault_action::fail ? 4 : 1);
            for (size_t i = 0; i < places.size(); i++) {
                // What fails beneath the load of a pipe has another end than beneath that of a file.
                const bool of_pipe = ask.arguments.back() == "-" && action == fault_action::fail;
                const uint64_t kind = of_pipe ? 1 : action == fault_action::shorten ? 2 : 0;
                if (!tried.insert(stacks[i] + kind).second || ++cases % stride != 0) continue;
                if (action == fault_action::allocation && places[i] <= told->by_parser) continue;
                SCOPED_TRACE(testing::PrintToString(ask.arguments) + " " + std::to_string(places[i]));
                restore(make);
                const int status = run(ask, action, places[i], 1, &told_now);
                const std::string err = read_file(dir.file("err"));
                const bool is_done = status == usual;
                const bool names_cause = (told_now + err).find("Input/output error") != err.npos;
                const bool tells = names_cause || told_now.find("could not be read: ") != err.npos;
                EXPECT_LT(status, 1000) << err;
                EXPECT_TRUE(is_done || action != fault_action::fail || names_cause) << status << told_now << err;
                EXPECT_TRUE(!is_done || tells || ask.add == add_salvage_command || told_now == said)
                    << told_now << err << said;
                EXPECT_TRUE(!is_done || tells || forgets || count_slices() == slices) << err;
                EXPECT_TRUE(!merging.valid() || std::filesystem::exists(bucket + "/" + merge.temp));
                // Of a pipe so much has been taken: bytes, or lines.
                const size_t kept_at = err.find("the first ");
                const bool has_all = err.find("the pipe is kept") != err.npos || err.starts_with("30 events") ||
                                     err.starts_with("25 samples") || err.starts_with("1,100 events");
                const size_t unit = ask.add == add_put_command ? events.size() / 1100 : 1;
                const size_t kept_size = kept_at == err.npos ? 0 : std::strtoul(&err[kept_at + 10], nullptr, 10) * unit;
                write_file(dir.file("piped"), has_all ? "" : piped->substr(kept_size));
                const int again = is_done ? usual : run(ask, action, NEVER, 1, &out);
                EXPECT_TRUE(again == usual || again <= 1) << err << read_file(dir.file("err"));
                EXPECT_EQ(holds(), whole) << status << err << told_now << again;
            }
        }
    }
}

}  // namespace
}  // namespace veldar

// Partial answers: however stores are cut apart and answers are put together again, one store's answer comes out; and
// what is damaged, asked differently or there already is no answer.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>

#include "tests/support/damage.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/partial/partial_answer.h"
#include "tools/libveldar/partial/partial_merge.h"
#include "tools/veldar/commands/hosts.h"
#include "tools/veldar/commands/spread.h"

namespace veldar {

using namespace tool;
namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

constexpr size_t STORES = 5;

// Stores of a part of the lines and of the samples each, and one of all.
struct split_stores {
    temp_dir dir;
    strings stores;
    std::string whole = dir.file("whole");

    explicit split_stores(size_t count = STORES) {
        const lock_optimism optimism;
        std::mt19937 random(17);
        std::vector<std::string> logs(STORES), metrics(STORES);
        for (int i = 0; i < 1500; i++) {
            // Several events a second, and seconds that several stores share.
            const int second = i / 5 + static_cast<int>(random() % 3);
            char time[64];
            std::snprintf(time, sizeof time, "2024-03-31T00:%02d:%02d.%03uZ", second / 60 % 60, second % 60,
                          static_cast<unsigned>(random() % 1000));
            const size_t at = random() % (STORES - 1);  // the last one has none
            logs[at] += std::string(time) + " level=" + strings{"info", "warn", "error"}[random() % 3] +
                        " status=" + std::to_string(200 + random() % 5) +
                        " bytes=" + (random() % 9 == 0 ? "many" : std::to_string(random() % 3000)) + " user=u" +
                        std::to_string(random() % 200) + " number " + std::to_string(i) + " of the run\n";
            if (i % 3 != 0) continue;
            metrics[at] += "load{host=\"h" + std::to_string(random() % 4) + "\"} " + std::to_string(random() % 50) +
                           " " + std::to_string(1711843200 + second) + "\n";
        }
        strings all_logs;
        for (size_t i = 0; i < count; i++) {
            stores.push_back(dir.file("store" + std::to_string(i)));
            const std::string log = dir.file("log" + std::to_string(i)), om = dir.file("om" + std::to_string(i));
            write_file(log, i + 1 < STORES ? logs[i] : "2024-03-30T00:00:00Z level=debug alone\n");
            write_file(om, "# TYPE load gauge\n" + metrics[i] + "# EOF\n");
            for (const std::string& store : {stores[i], whole}) {
                EXPECT_EQ(run_tool("veldar/veldar", {"-s", store, "load", log}).status, 0);
                if (metrics[i].empty()) continue;
                EXPECT_EQ(run_tool("veldar/veldar", {"-s", store, "metrics", "load", om}).status, 0);
            }
        }
    }
};

tool_result ask(const std::string& store, strings words) {
    words.insert(words.begin(), {"-s", store});
    return run_tool("veldar/veldar", words);
}

std::string answer_of(const std::string& store, const strings& words) {
    strings partial = words;
    partial.emplace_back("--partial");
    const tool_result result = ask(store, partial);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

named_partial take(const std::string& bytes, const std::string& name) {
    named_partial one;
    one.name = name;
    std::string_view rest = bytes;
    std::string fault;
    EXPECT_TRUE(partial_take(&rest, &one.answer, &fault)) << fault;
    EXPECT_TRUE(rest.empty());
    return one;
}

std::string merge(const strings& answers) {
    std::vector<named_partial> all;
    for (size_t i = 0; i < answers.size(); i++) all.push_back(take(answers[i], std::to_string(i)));
    std::string out;
    merged_write(partials_merge(std::move(all)), [&](std::string_view bytes) { out.append(bytes); });
    return out;
}

// Merges neighbours at random until one answer is left.
std::string merge_as_tree(strings answers, std::mt19937* random) {
    std::shuffle(answers.begin(), answers.end(), *random);
    while (answers.size() > 1) {
        const size_t fan_in = std::min<size_t>(2 + (*random)() % 2, answers.size());
        const size_t at = (*random)() % (answers.size() - fan_in + 1);
        const auto first = answers.begin() + static_cast<ptrdiff_t>(at);
        const std::string merged = merge({first, first + static_cast<ptrdiff_t>(fan_in)});
        answers.erase(first + 1, first + static_cast<ptrdiff_t>(fan_in));
        answers[at] = merged;
    }
    return answers.front();
}

strings sorted_lines(const std::string& text) {
    strings lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

const std::vector<strings> QUESTIONS = [] {
    std::vector<strings> questions;
    for (const std::string& row : data_rows("questions")) {
        std::istringstream words(row);
        questions.emplace_back();
        for (std::string word; std::getline(words, word, '\t');) questions.back().push_back(word);
    }
    return questions;
}();

TEST(Partial, AnyGroupingGivesTheAnswerOfOneStore) {
    const split_stores made;
    std::mt19937 random(3);
    for (const strings& question : QUESTIONS) {
        SCOPED_TRACE(testing::PrintToString(question));
        strings answers;
        for (const std::string& store : made.stores) answers.push_back(answer_of(store, question));
        const std::string flat = merge(answers);
        for (int i = 0; i < 4; i++) ASSERT_EQ(merge_as_tree(answers, &random), flat);
        write_file(made.dir.file("merged"), flat);
        strings words = {"merge-answers", made.dir.file("merged")};
        for (size_t i = 0; i < question.size(); i++) {
            if (question[i] == "--format") words.insert(words.end(), {"--format", question[i + 1]});
            if (question[i] == "-r") words.emplace_back("-r");
        }
        const tool_result merged = run_tool("veldar/veldar", words), one = ask(made.whole, question);
        EXPECT_EQ(merged.status, one.status) << merged.err << one.err;
        if (question.front() == "stats") {
            EXPECT_EQ(merged.err, one.err);  // values that are no numbers
        }
        if (question.front() != "search") {
            EXPECT_EQ(merged.out, one.out);
        } else if (question.back() != "jsonl") {
            // Within a second the one store has its logs one behind the other.
            EXPECT_TRUE(sorted_lines(merged.out) == sorted_lines(one.out));
            EXPECT_GT(one.out.size(), 1000U);
        } else {
            EXPECT_EQ(sorted_lines(merged.out).size(), sorted_lines(one.out).size());
        }
    }
}

TEST(Partial, TheNewestEventsOfAll) {
    const split_stores made;
    const strings question = {"search", "*", "--format", "addr"};
    const auto times_of = [](const std::string& text) {
        strings times;
        for (const std::string& line : sorted_lines(text)) times.push_back(line.substr(0, 20));
        return times;
    };
    for (const char* const limit : {"1", "17", "400", "5000"}) {
        strings answers, words = question;
        words.insert(words.end(), {"-n", limit});
        for (const std::string& store : made.stores) answers.push_back(answer_of(store, words));
        write_file(made.dir.file("merged"), merge(answers));
        const tool_result merged =
            run_tool("veldar/veldar", {"merge-answers", "--format", "addr", made.dir.file("merged")});
        strings expected = times_of(ask(made.whole, words).out);
        for (std::string& time : expected) time = time.substr(0, 19);
        strings got = times_of(merged.out);
        for (std::string& time : got) time = time.substr(0, 19);
        EXPECT_EQ(got, expected) << limit;
    }
}

TEST(Partial, WhatIsCutOrFlippedIsNoAnswer) {
    const split_stores made(3);
    for (const strings& question :
         std::vector<strings>{{"search", "level=error", "-n", "4", "-C", "1", "--fields", "all"},
                              {"terms", "level=*"},
                              {"metrics", "query", "load", "-n", "3"},
                              {"stats", "--by", "level"}}) {
        const std::string whole = answer_of(made.stores[1], question);
        ASSERT_GT(take(whole, "").answer.records, 0U);
        partial answer;
        std::string fault;
        for (size_t size = 0; size < whole.size(); size++) {
            const std::string cut = whole.substr(0, size);
            std::string_view rest = cut;
            ASSERT_FALSE(partial_take(&rest, &answer, &fault)) << size;
        }
        for (size_t at = 0; at < whole.size(); at++) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ (1 << (at % 8)));
            std::string_view rest = damaged;
            ASSERT_FALSE(partial_take(&rest, &answer, &fault)) << at;
        }
    }
    // A time that no index keeps.
    std::string far;
    partial_writer writer;
    partial_begin(&writer, take(answer_of(made.stores[1], {"metrics", "query", "load"}), "").answer.asked, {},
                  [&](std::string_view bytes) { far.append(bytes); });
    partial_put_sample(&writer, std::string_view("load\0", 5), INT64_MIN, 1);
    partial_end(&writer, {});
    std::string_view rest = far;
    partial answer;
    std::string fault;
    EXPECT_FALSE(partial_take(&rest, &answer, &fault));
    // The others are told all the same.
    const temp_dir dir;
    const strings question = {"count", "*"};
    write_file(dir.file("a"), answer_of(made.stores[0], question));
    write_file(dir.file("b"), answer_of(made.stores[1], question).substr(0, 60));
    write_file(dir.file("both"), read_file(dir.file("a")) + answer_of(made.stores[2], question));
    const tool_result cut = run_tool("veldar/veldar", {"merge-answers", dir.file("a"), dir.file("b"), dir.file("no")});
    EXPECT_EQ(cut.status, 3);
    EXPECT_EQ(cut.out, ask(made.stores[0], question).out);
    EXPECT_NE(cut.err.find(dir.file("b")), std::string::npos);
    EXPECT_NE(cut.err.find(dir.file("no")), std::string::npos);
    const tool_result both = run_tool("veldar/veldar", {"merge-answers"}, {.input = dir.file("both")});
    EXPECT_EQ(both.status, 0) << both.err;
    EXPECT_EQ(std::stoi(both.out), std::stoi(cut.out) + std::stoi(ask(made.stores[2], question).out));
    EXPECT_EQ(run_tool("veldar/veldar", {"merge-answers", dir.file("b")}).status, 3);
}

TEST(Partial, NothingCountsTwiceAndNothingElseCounts) {
    const split_stores made(2);
    const std::string all = answer_of(made.stores[0], {"count", "*"});
    const std::string bucket = answer_of(made.stores[0] + "/bucket-000001", {"count", "*"});
    std::string slice;
    for (const auto& entry : fs::directory_iterator(made.stores[0] + "/bucket-000001")) {
        if (entry.path().extension() == ".tsidx") slice = answer_of(entry.path(), {"count", "*"});
    }
    const std::string other = answer_of(made.stores[1], {"count", "*"});
    const std::string question = answer_of(made.stores[1], {"count", "level=info"});
    const auto refuses = [](const strings& answers, const char* why) {
        try {
            merge(answers);
            return false;
        } catch (const failure_t& failure) {
            return failure.status == OUTCOME_USAGE && failure.message.find(why) != std::string::npos;
        }
    };
    for (const std::string& again : {all, bucket, slice, merge({all, other})}) {
        EXPECT_TRUE(refuses({all, again}, "twice"));
        EXPECT_TRUE(refuses({again, other, all}, "twice"));
    }
    EXPECT_TRUE(refuses({bucket, slice}, "twice"));
    EXPECT_TRUE(refuses({all, other, other}, "twice"));
    EXPECT_TRUE(refuses({all, question}, "different questions"));
    EXPECT_EQ(merged_count(partials_merge({take(bucket, "a"), take(other, "b")})),
              merged_count(partials_merge({take(all, "a"), take(other, "b")})));
    write_file(made.dir.file("count"), all);
    EXPECT_EQ(run_tool("veldar/veldar", {"merge-answers", "--format", "addr", made.dir.file("count")}).status, 2);
    const tool_result bins = ask(made.whole, {"stats", "--every", "auto", "--partial"});
    EXPECT_EQ(bins.status, 2);
}

TEST(Partial, AStoreKnowsItselfWhereverItLies) {
    const split_stores made(1);
    const lock_optimism optimism;
    const temp_dir dir;
    fs::copy(made.stores[0], dir.file("copy"), fs::copy_options::recursive);
    const std::string all = answer_of(made.stores[0], {"count", "*"});
    EXPECT_THROW(merge({all, answer_of(dir.file("copy"), {"count", "*"})}), failure_t);
    // One that was made without an id is told by its place, and gets one with the next load.
    fs::remove(dir.file("copy/id"));
    const std::string by_place = answer_of(dir.file("copy"), {"count", "*"});
    EXPECT_NE(take(by_place, "").answer.parts[0].identity.find(":/"), std::string::npos);
    write_file(dir.file("log"), "2024-03-31T00:00:00Z one more\n");
    EXPECT_EQ(ask(dir.file("copy"), {"load", dir.file("log")}).status, 0);
    EXPECT_EQ(merge({all, answer_of(dir.file("copy"), {"count", "*"})}).empty(), false);
    write_file(dir.file("copy/id"), "not hexadecimal\n");
    EXPECT_EQ(ask(dir.file("copy"), {"count", "*", "--partial"}).status, 5);
}

TEST(Partial, QuestionsSayTheSameOnOtherMachines) {
    const split_stores made(1);
    for (const strings& question : QUESTIONS) {
        const partial answer = take(answer_of(made.stores[0], question), "").answer;
        SCOPED_TRACE(question_text(answer.asked));
        strings words = question_arguments(answer.asked);
        words.insert(words.begin(), {"-s", made.stores[0]});
        const tool_result again = run_tool("veldar/veldar", words);
        EXPECT_EQ(question_text(take(again.out, "").answer.asked), question_text(answer.asked)) << again.err;
    }
    for (const char* const query : {"-level=error", "[x", "a\nb '\"c\"' $HOME", "--since", "=", "100% sure"}) {
        question asked;
        asked.kind = "count";
        asked.set("query", query);
        question back;
        ASSERT_TRUE(question_parse(question_text(asked), &back)) << query;
        EXPECT_EQ(back.value("query"), query);
    }
    question none;
    for (const char* const text :
         {"", "kind\n", "kind kiss\n", "kind count\nuntil 1\nsince 1\n", "kind count\nquery a%0\n"}) {
        EXPECT_FALSE(question_parse(text, &none)) << text;
    }
}

// However small the pieces, together they are the whole, each event once.
TEST(Partial, AnAnswerThatIsCutGoesOnWhereItEnded) {
    const split_stores made;
    const std::string cursor = made.dir.file("cursor");
    // Numbers behind the last tab add up; other lines are told once, but for heads of columns.
    const auto total = [](const strings& lines) {
        double sum = 0;
        for (const std::string& line : lines) sum += std::atof(line.substr(line.rfind('\t') + 1).c_str());
        return sum;
    };
    for (const strings& question : std::vector<strings>{
             {"search", "level=error", "--fields", "user,raw"},
             {"search", "NOT", "\"before @0\"", "-n", "700"},
             {"search", "\"of the run\"", "--since", "2024-03-31T00:01:00.5", "--until", "2024-03-31T00:03:20.25"},
             {"metrics", "query", "load"},
             {"count", "status>200"},
             {"stats", "--by", "status", "--agg", "sum(bytes)", "--format", "tsv"}}) {
        SCOPED_TRACE(testing::PrintToString(question));
        strings words = question, lines;
        const bool is_least = question.front() == "count";  // less than any window needs
        words.insert(words.end(), {"--max-read", is_least ? "1" : "50KB", "--cursor", cursor});
        strings whole = sorted_lines(ask(made.whole, question).out);
        int runs = 1;
        for (bool is_last = false; !is_last; runs++) {
            const tool_result piece = ask(made.whole, words);
            is_last = !fs::exists(cursor);
            ASSERT_EQ(piece.status == 3, !is_last) << piece.err;
            ASSERT_EQ(piece.err.find("complete back to") == std::string::npos, is_last);
            for (std::string& line : sorted_lines(piece.out)) lines.push_back(std::move(line));
            ASSERT_LT(runs, 200);
        }
        EXPECT_GT(runs, 1);
        if (question.front() == "count" || question.front() == "stats") {
            EXPECT_EQ(total(lines), total(whole));
            continue;
        }
        std::sort(lines.begin(), lines.end());
        const auto is_head = [](const std::string& line) { return line.starts_with("time"); };
        std::erase_if(lines, is_head);
        std::erase_if(whole, is_head);
        EXPECT_TRUE(lines == whole) << lines.size() << " of " << whole.size();
    }
    const strings first = {"count", "*", "--max-read", "1", "--cursor", cursor};
    ASSERT_EQ(ask(made.whole, first).status, 3);
    EXPECT_EQ(ask(made.whole, {"count", "level=error", "--cursor", cursor}).status, 2);
    EXPECT_EQ(ask(made.stores[0], {"count", "*", "--cursor", cursor}).status, 2);
    EXPECT_EQ(ask(made.whole, {"count", "*", "--cursor", cursor, "--partial"}).status, 2);
    write_file(cursor, read_file(cursor).substr(0, 30));
    EXPECT_EQ(ask(made.whole, first).status, 2);
    // What others did in the time that they had, and as far back as all of them.
    const std::string cut = ask(made.stores[0], {"count", "*", "--max-read", "1", "--partial"}).out;
    const merged_answer both = partials_merge({take(answer_of(made.stores[1], {"count", "*"}), "a"), take(cut, "b")});
    EXPECT_TRUE(both.coverage.complete_back_to.has_value());
    EXPECT_EQ(ask(made.stores[0], {"metrics", "query", "load", "--rate", "--deadline", "1s"}).status, 2);
    EXPECT_EQ(ask(made.stores[0], {"count", "*", "--deadline", "1week"}).status, 2);
}

// Fractions of negative times count upwards, and no bound stands before or behind the last second.
TEST(Partial, TimesBeforeTheEpochAndTheLastSecondOfAll) {
    const lock_optimism optimism;
    const temp_dir dir;
    const std::string empty = dir.file("empty");  // knows no raw records, but has no events
    fs::create_directory(empty);
    const std::string store = dir.file("store"), cursor = dir.file("cursor");
    write_file(dir.file("log"),
               "1901-12-13T20:45:52Z a\n1969-12-31T23:59:58.900Z a\n1969-12-31T23:59:59.250Z a\n"
               "1969-12-31T23:59:59.750Z a\n2038-01-19T03:14:06Z a\n2038-01-19T03:14:07Z a\n");
    ASSERT_EQ(ask(store, {"load", dir.file("log")}).status, 0);
    for (const strings& bounds : std::vector<strings>{{"--since", "2038-01-19T03:14:00"},
                                                      {"--since", "@-0.5", "--until", "@9"},
                                                      {"--since", "@-9", "--until", "@-0.5"},
                                                      {"--since", "@-1.5", "--until", "@-0.5"},
                                                      {"--until", "@-2147483648"}}) {
        SCOPED_TRACE(testing::PrintToString(bounds));
        strings words = {"search", "a"};
        words.insert(words.end(), bounds.begin(), bounds.end());
        const std::string whole = ask(store, words).out;
        write_file(dir.file("answer"), answer_of(store, words) + answer_of(empty, words));
        EXPECT_EQ(run_tool("veldar/veldar", {"merge-answers", dir.file("answer")}).out, whole);
        words.insert(words.end(), {"--max-read", "1", "--cursor", cursor});
        std::string pieces;
        int runs = 0;
        do {
            pieces += ask(store, words).out;
        } while (fs::exists(cursor) && ++runs < 20);
        EXPECT_EQ(pieces, whole);
    }
}

TEST(Hosts, LinesOfTheFile) {
    const std::vector<host_line> hosts =
        hosts_parse("# ours\n\n:\n  :/srv/a b\r\nweb1\nme@web2:/srv/x:y\n[::1]:s\n", "hosts");
    ASSERT_EQ(hosts.size(), 5U);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"", ""}, {"", "/srv/a b"}, {"web1", ""}, {"me@web2", "/srv/x:y"}, {"::1", "s"}};
    for (size_t i = 0; i < hosts.size(); i++) EXPECT_EQ(std::pair(hosts[i].host, hosts[i].store), expected[i]) << i;
    for (const char* const line : {"-oProxyCommand=x", "a b", "a;b", "$(x)", "", "#", "[::1"}) {
        EXPECT_THROW(hosts_parse(line, "hosts"), failure_t) << line;
    }
}

}  // namespace
}  // namespace veldar

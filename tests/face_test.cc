// veldar.h as its callers see it: answers beside the tool's, errors, records of other versions, cancellation, threads,
// want of memory, the C examples, and what the shared library shows.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/face/veldar.h"
#include "tools/libveldar/load/progress.h"

namespace veldar {
namespace {

using strings = std::vector<std::string>;

std::string make_log(int lines, const std::string& word = "fine") {
    std::string text;
    for (int i = 0; i < lines; i++) {
        char time[32];
        std::snprintf(time, sizeof time, "2024-05-01T%02d:%02d:%02d.250Z", i / 3600 % 24, i / 60 % 60, i % 60);
        text += std::string(time) + " level=" + (i % 10 == 0 ? "error" : "info") + " n=" + std::to_string(i) +
                " Path=\"/a b\" " + word + "\n";
    }
    return text;
}

struct closer {
    void operator()(veldar_store* store) const { veldar_close(store); }
    void operator()(veldar_events* events) const { veldar_events_close(events); }
    void operator()(veldar_table* table) const { veldar_table_free(table); }
    void operator()(veldar_bytes* bytes) const { veldar_bytes_free(bytes); }
};
template <typename T>
using owned = std::unique_ptr<T, closer>;

owned<veldar_store> open_store(const std::string& path, unsigned flags = 0, const veldar_observer* observer = nullptr) {
    veldar_store* store = nullptr;
    EXPECT_EQ(veldar_open(path.c_str(), flags, observer, &store), VELDAR_OK) << veldar_last_error()->message;
    return owned<veldar_store>(store);
}

veldar_status load(veldar_store* store, const strings& files, veldar_load_result* result = nullptr) {
    std::vector<const char*> names;
    for (const std::string& file : files) names.push_back(file.c_str());
    return veldar_load(store, names.data(), names.size(), nullptr, result);
}

veldar_query query_of(const char* text) {
    veldar_query query = {};
    query.size = sizeof query;
    query.text = text;
    return query;
}

std::string cell(const veldar_column& column, size_t row) {
    if (column.valid != nullptr && column.valid[row] == 0) return "-";
    if (column.type == VELDAR_TEXT) {
        return {column.bytes + column.offsets[row], column.offsets[row + 1] - column.offsets[row]};
    }
    if (column.type == VELDAR_DOUBLE) return std::to_string(static_cast<const double*>(column.values)[row]);
    if (column.type == VELDAR_UINT64) return std::to_string(static_cast<const uint64_t*>(column.values)[row]);
    return std::to_string(static_cast<const int64_t*>(column.values)[row]);
}

// Line by line, with tabs, the names first.
std::string text_of(const veldar_table* table) {
    std::string text;
    veldar_column column = {};
    column.size = sizeof column;
    for (size_t row = 0; row <= veldar_table_rows(table); row++) {
        for (size_t i = 0; veldar_table_column(table, i, &column) == VELDAR_OK; i++) {
            text += (i == 0 ? "" : "\t") + (row == 0 ? std::string(column.name) : cell(column, row - 1));
        }
        text += '\n';
    }
    return text;
}

// What a call that gives a table answers; its status goes into `status`.
template <typename F>
std::string table_text(F ask, veldar_status* status = nullptr) {
    veldar_table* table = nullptr;
    const veldar_status got = ask(&table);
    const owned<veldar_table> held(table);
    if (status != nullptr) *status = got;
    return table == nullptr ? "" : text_of(table);
}

std::string stats_text(veldar_store* store, const char* by, const char* aggregates, const char* every) {
    veldar_stats_options options = {};
    options.size = sizeof options;
    options.by = by;
    options.aggregates = aggregates;
    options.every = every;
    return table_text([&](veldar_table** table) { return veldar_stats(store, nullptr, &options, table); });
}

// The raw records of a search, by event and by table.
std::string raw_by_event(veldar_store* store, const char* query, uint64_t limit, veldar_status* end) {
    veldar_events* made = nullptr;
    veldar_event event = {};
    veldar_text raw;
    std::string text;
    event.size = sizeof event;
    const veldar_query asked = query_of(query);
    *end = veldar_search(store, &asked, limit, &made);
    const owned<veldar_events> events(made);
    while (events != nullptr && (*end = veldar_events_next(made, &event)) == VELDAR_OK) {
        const veldar_status status = veldar_event_text(made, VELDAR_RAW, &raw);
        if (status == VELDAR_OK) text += std::string(raw.data, raw.size) + "\n";
        if (status > VELDAR_INCOMPLETE) return *end = status, text;
    }
    return text;
}

std::string raw_by_table(veldar_store* store, const char* query, uint64_t limit) {
    veldar_events* made = nullptr;
    std::string text;
    const veldar_query asked = query_of(query);
    EXPECT_EQ(veldar_search(store, &asked, limit, &made), VELDAR_OK);
    const owned<veldar_events> events(made);
    for (veldar_table* table = nullptr; veldar_events_table(made, 7, VELDAR_NAMES, &table) == VELDAR_OK;) {
        const owned<veldar_table> held(table);
        EXPECT_EQ(veldar_events_fill(made, table, VELDAR_RAWS | VELDAR_TIMES), VELDAR_OK);
        veldar_column raw = {};
        raw.size = sizeof raw;
        EXPECT_EQ(veldar_table_column(table, 1, &raw), VELDAR_OK);
        for (size_t i = 0; i < veldar_table_rows(table); i++) text += cell(raw, i) + "\n";
    }
    return text;
}

std::string tool_says(strings arguments) {
    return run_tool("veldar/veldar", arguments).out;
}

class Face : public testing::Test {
  protected:
    temp_dir dir_;
    std::string store_ = dir_.file("the store");

    std::string log(const std::string& name, const std::string& text) const {
        write_file(dir_.file(name), text);
        return dir_.file(name);
    }
    owned<veldar_store> loaded(int lines, const std::string& word = "fine") {
        owned<veldar_store> store = open_store(store_, VELDAR_CREATE);
        EXPECT_EQ(load(store.get(), {log("a log", make_log(lines, word))}), VELDAR_OK) << veldar_last_error()->message;
        return store;
    }
};

TEST_F(Face, AnswersAreThoseOfTheTool) {
    const owned<veldar_store> held = loaded(500, "caf\xe9 \x01");
    veldar_store* const store = held.get();
    uint64_t count = 0;
    veldar_status end;
    for (const char* const text : {"level=error", "*", "n>490", "\"fine print\"", "path=\"/a b\" NOT n=3"}) {
        const veldar_query query = query_of(text);
        EXPECT_LE(veldar_count(store, &query, &count), VELDAR_END) << text;
        EXPECT_EQ(std::to_string(count) + "\n", tool_says({"-s", store_, "count", text}));
        for (const uint64_t limit : {uint64_t{0}, uint64_t{3}, uint64_t{20}}) {
            strings arguments = {"-s", store_, "search", text};
            if (limit != 0) arguments.insert(arguments.end(), {"-n", std::to_string(limit)});
            const std::string expected = tool_says(arguments);
            EXPECT_EQ(raw_by_event(store, text, limit, &end), expected) << text;
            EXPECT_EQ(end, VELDAR_END);
            EXPECT_EQ(raw_by_table(store, text, limit), expected) << text;
        }
    }
    EXPECT_EQ(stats_text(store, "level", "count,avg(n),dc(n),values(path)", nullptr),
              "level\tcount\tavg(n)\tdc(n)\tvalues(path)\nerror\t50\t245.000000\t50\t/a "
              "b\ninfo\t450\t250.000000\t450\t/a b\n");
    EXPECT_EQ(stats_text(store, nullptr, nullptr, "5m"),
              "time\tcount\n1714521600000000000\t300\n1714521900000000000\t200\n");
    EXPECT_EQ(table_text([&](veldar_table** t) { return veldar_terms(store, "level=*", 1, 0, t); }),
              "term\tcount\tfirst\tlast\nlevel=info\t450\t1714521601000000000\t1714522099000000000\n");
    EXPECT_EQ(table_text([&](veldar_table** t) { return veldar_seen(store, "level=error", t); }),
              "count\tfirst\tlast\n50\t1714521600000000000\t1714522090000000000\n");
    const std::string fields = table_text([&](veldar_table** t) { return veldar_fields(store, t); });
    EXPECT_NE(fields.find("\nlevel\t500\t2\n"), std::string::npos) << fields;
    EXPECT_NE(table_text([&](veldar_table** t) {
                  return veldar_slices(store, t);
              }).find("bucket-000001\t1714521600000000000\t1714522099000000000\t500\t0\t"),
              std::string::npos);
}

TEST_F(Face, AnEventTellsItsParts) {
    const owned<veldar_store> store = loaded(2);
    const veldar_query query = query_of("n=1");
    veldar_events* made = nullptr;
    ASSERT_EQ(veldar_search(store.get(), &query, 0, &made), VELDAR_OK);
    const owned<veldar_events> events(made);
    veldar_event event = {};
    veldar_text name, value;
    int64_t time = 0;
    EXPECT_EQ(veldar_event_time(made, &time), VELDAR_USAGE) << "none was read";
    event.size = offsetof(veldar_event, address);
    event.address = 77;
    ASSERT_EQ(veldar_events_next(made, &event), VELDAR_OK);
    EXPECT_EQ(event.time_ns, 1714521601000000000);
    EXPECT_EQ(event.address, 77u) << "is no field of this caller's version";
    ASSERT_EQ(veldar_event_time(made, &time), VELDAR_OK);
    EXPECT_EQ(time, 1714521601250000000);
    std::string told;
    for (size_t i = 0; veldar_event_field(made, i, &name, &value) == VELDAR_OK; i++) {
        told += std::string(name.data, name.size) + "=" + std::string(value.data, value.size) + ";";
    }
    EXPECT_EQ(told, "level=info;n=1;path=/a b;");
    ASSERT_EQ(veldar_event_text(made, VELDAR_SOURCE, &value), VELDAR_OK);
    EXPECT_EQ(std::string(value.data, value.size), dir_.file("a log"));
    event.size = 0;
    EXPECT_EQ(veldar_events_next(made, &event), VELDAR_END);
}

TEST_F(Face, ErrorsSayWhatWhereAndWhatNext) {
    const owned<veldar_store> held = loaded(3);
    veldar_store *const store = held.get(), *none = store;
    const veldar_error* error = nullptr;
    const auto fails = [&](veldar_status status, veldar_status expected, const std::string& part) {
        error = veldar_last_error();
        EXPECT_EQ(status, expected) << error->message;
        EXPECT_EQ(error->status, expected);
        EXPECT_NE(std::string(error->message).find(part), std::string::npos) << error->message;
        EXPECT_EQ(std::string(error->message).find("--"), std::string::npos) << "no options here: " << error->message;
    };
    uint64_t count = 7;
    veldar_table* table = nullptr;
    fails(veldar_open(dir_.file("nothing").c_str(), 0, nullptr, &none), VELDAR_USAGE, "No such file");
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(error->file, dir_.file("nothing"));
    EXPECT_STRNE(error->next_step, "");
    fails(veldar_open(store_.c_str(), 64, nullptr, &none), VELDAR_USAGE, "flags");
    fails(veldar_open(dir_.file("a log/x").c_str(), VELDAR_CREATE, nullptr, &none), VELDAR_IO, "Not a directory");
    veldar_query query = query_of("a (b");
    fails(veldar_count(store, &query, &count), VELDAR_USAGE, "(b");
    EXPECT_EQ(error->offset, 2u);
    EXPECT_EQ(count, 0u);
    query = query_of("a");
    query.since = "yesterfoo";
    fails(veldar_count(store, &query, &count), VELDAR_USAGE, "since yesterfoo: expected a time");
    fails(veldar_seen(store, "two words", &table), VELDAR_USAGE, "one word");
    const veldar_query unsized = {
        .size = 0, .text = "status=404", .since = nullptr, .until = nullptr, .zone = nullptr, .is_native = 0};
    fails(veldar_count(store, &unsized, &count), VELDAR_USAGE, "size");
    veldar_stats_options options = {};
    options.size = sizeof options;
    options.every = "7 apples";
    fails(veldar_stats(store, nullptr, &options, &table), VELDAR_USAGE, "every: '7 apples'");
    EXPECT_EQ(table, nullptr);
    options = {
        .size = sizeof options, .by = nullptr, .aggregates = "half", .every = nullptr, .top = 0, .keeps_missing = 0};
    fails(veldar_stats(store, nullptr, &options, &table), VELDAR_USAGE, "aggregates: 'half'");
    fails(load(store, {""}), VELDAR_USAGE, "empty");
    fails(load(store, {dir_.file("missing.log")}), VELDAR_INCOMPLETE, "missing.log");
    const owned<veldar_store> bucket = open_store(store_ + "/bucket-000001");
    fails(load(bucket.get(), {dir_.file("a log")}), VELDAR_USAGE, "no store");
    veldar_writer* writer = nullptr;
    fails(veldar_writer_open(store_.c_str(), &writer), VELDAR_USAGE, "is a store");
    fails(veldar_writer_open((store_ + "/bucket-000001").c_str(), &writer), VELDAR_USAGE, "is a store's bucket");
    fails(veldar_writer_open((store_ + "/metrics/").c_str(), &writer), VELDAR_USAGE, "is a store's metric directory");
    ASSERT_EQ(veldar_writer_open(dir_.file("own").c_str(), &writer), VELDAR_OK);
    const veldar_text bad = {"a\0b", 3}, good = {"a", 1};
    fails(veldar_writer_put(writer, 1, 1, &bad, 1), VELDAR_USAGE, "NUL");
    fails(veldar_writer_put(writer, INT64_MAX, 1, &good, 1), VELDAR_USAGE, "32-bit");
    EXPECT_EQ(veldar_writer_put(writer, 1, 1, &good, 1), VELDAR_OK) << "nothing of the others stayed";
    EXPECT_EQ(veldar_writer_close(writer), VELDAR_OK);
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", dir_.file("own"), "count", "*"}).out, "1\n");
}

TEST_F(Face, TablesHaveThePartsThatWereAskedFor) {
    const owned<veldar_store> held = loaded(3);
    EXPECT_EQ(veldar_path(held.get()), store_);
    EXPECT_TRUE(tool_says({"--version"}).starts_with("veldar " + std::string(veldar_version()) + "\n"));
    const veldar_query query = query_of("*");
    veldar_events *made[2] = {}, *const &first = made[0];
    for (veldar_events*& one : made) ASSERT_EQ(veldar_search(held.get(), &query, 0, &one), VELDAR_OK);
    const owned<veldar_events> events(made[0]), others(made[1]);
    veldar_table* table = nullptr;
    ASSERT_EQ(veldar_events_table(first, 2, 0, &table), VELDAR_OK);
    const owned<veldar_table> two(table);
    const std::string head = "time\traw\thost\tsource\tsourcetype\tdirectory\taddress\n";
    EXPECT_EQ(text_of(table),
              head + "1714521602000000000\t-\t-\t-\t-\t-\t115\n1714521601000000000\t-\t-\t-\t-\t-\t58\n");
    ASSERT_EQ(veldar_events_fill(first, table, VELDAR_NAMES), VELDAR_OK);
    EXPECT_TRUE(text_of(table).ends_with("\t" + dir_.file("a log") + "\tiso8601\tbucket-000001\t58\n"))
        << text_of(table);
    veldar_text name, value;
    ASSERT_EQ(veldar_events_row(first, table, 1), VELDAR_OK);
    ASSERT_EQ(veldar_event_field(first, 1, &name, &value), VELDAR_OK);
    EXPECT_EQ(std::string(value.data, value.size), "1");
    EXPECT_EQ(veldar_events_row(first, table, 2), VELDAR_USAGE);
    EXPECT_EQ(veldar_events_row(others.get(), table, 0), VELDAR_USAGE);
    EXPECT_EQ(veldar_events_fill(others.get(), table, 0), VELDAR_USAGE);
    const auto refuses = [&](const auto& change, const std::string& why) {
        veldar_load_options options = {};
        options.size = sizeof options;
        change(&options);
        const std::string file = dir_.file("a log");
        const char* const names[] = {file.c_str()};
        EXPECT_EQ(veldar_load(held.get(), names, 1, &options, nullptr), VELDAR_USAGE) << why;
        EXPECT_EQ(veldar_last_error()->message, why);
    };
    refuses([](auto* o) { o->zone = "Nowhere/City"; }, "unknown time zone Nowhere/City");
    refuses([](auto* o) { o->year = 1969; }, "year 1969: expected 1970 to 2037");
    refuses([](auto* o) { o->year = 2038; }, "year 2038: expected 1970 to 2037");
    refuses([](auto* o) { o->time_format = "%Q"; }, "%Q has an unknown letter behind '%'");
    refuses([](auto* o) { o->time_field = "a\tb"; }, "a field's name has no tabs or line ends");
    refuses([](auto* o) { o->date_order = "md"; }, "date order md: expected one of dmy, mdy, ymd");
    write_file(dir_.file("m"), "up{host=\"a\"} 1 100\nup{host=\"b\"} 2.5 101.25\ndown 3 99\n");
    const auto metrics = [&] { return table_text([&](veldar_table** t) { return veldar_metrics(held.get(), t); }); };
    EXPECT_EQ(metrics(), "metric\tsamples\tseries\tfirst\tlast\n");
    ASSERT_EQ(run_tool("veldar/veldar", {"-s", store_, "metrics", "load", dir_.file("m")}).status, 0);
    EXPECT_EQ(metrics(),
              "metric\tsamples\tseries\tfirst\tlast\ndown\t1\t1\t99000000000\t99000000000\n"
              "up\t2\t2\t100000000000\t101000000000\n");
    veldar_writer* writer = nullptr;
    EXPECT_EQ(veldar_writer_open(dir_.file("m").c_str(), &writer), VELDAR_USAGE);
    EXPECT_EQ(veldar_last_error()->message, dir_.file("m") + ": Not a directory");
}

TEST_F(Face, AnswersThatLackSomethingSaySo) {
    const owned<veldar_store> held = loaded(20);
    veldar_store* const store = held.get();
    veldar_status end;
    std::filesystem::remove(dir_.file("a log"));
    EXPECT_EQ(raw_by_event(store, "level=error", 0, &end), "");
    EXPECT_EQ(end, VELDAR_INCOMPLETE);
    EXPECT_NE(std::string(veldar_last_error()->message).find("a log"), std::string::npos);
    const std::string slice = store_ + "/bucket-000001/" + tool::slice_names(store_ + "/bucket-000001").at(0);
    std::string bytes = read_file(slice);
    bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 8);
    write_file(slice, bytes);
    const std::string found = table_text([&](veldar_table** t) { return veldar_fsck(store, 1, t); }, &end);
    EXPECT_EQ(end, VELDAR_DAMAGED);
    EXPECT_NE(found.find(slice), std::string::npos) << found;
    write_file(slice, "gone");
    EXPECT_EQ(table_text([&](veldar_table** t) { return veldar_fields(store, t); }, &end), "field\tevents\tvalues\n");
    EXPECT_EQ(end, VELDAR_INCOMPLETE);
}

std::string bytes_of(veldar_bytes* bytes) {
    const owned<veldar_bytes> held(bytes);
    return bytes == nullptr ? "" : std::string(veldar_bytes_data(bytes), veldar_bytes_size(bytes));
}

std::string question_of(const char* kind, const char* text = nullptr, const char* aggregates = nullptr) {
    const veldar_query query = query_of(text);
    veldar_stats_options stats = {};
    stats.size = sizeof stats;
    stats.aggregates = aggregates;
    veldar_question question = {};
    question.size = sizeof question;
    question.kind = kind;
    question.query = &query;
    question.stats = &stats;
    question.pattern = text;
    question.limit = 30;
    question.with_fields = 1;
    veldar_bytes* made = nullptr;
    EXPECT_EQ(veldar_question_text(&question, &made), VELDAR_OK) << veldar_last_error()->message;
    return bytes_of(made);
}

std::string partial_of(veldar_store* store, const std::string& question) {
    veldar_bytes* answer = nullptr;
    EXPECT_LE(veldar_answer_partially(store, question.c_str(), &answer), VELDAR_INCOMPLETE);
    return bytes_of(answer);
}

// The merged answer of these; it lacks `gap` when there is one.
std::string merged_of(const std::string& question, const strings& answers, const char* gap, veldar_status* status) {
    std::vector<veldar_text> texts;
    for (const std::string& one : answers) texts.push_back({one.data(), one.size()});
    veldar_bytes* merged = nullptr;
    *status = veldar_answers_merge(question.c_str(), texts.data(), texts.size(), &gap, gap == nullptr ? 0 : 1, &merged);
    return bytes_of(merged);
}

TEST_F(Face, AnswersOfManyStoresAreOne) {
    const owned<veldar_store> held = loaded(50), other = open_store(dir_.file("other"), VELDAR_CREATE);
    ASSERT_EQ(load(other.get(), {log("b log", make_log(40, "b=\"a,b=c\""))}), VELDAR_OK);
    veldar_status status;
    const auto table = [&](const std::string& answer) {
        const veldar_text text = {answer.data(), answer.size()};
        return table_text([&](veldar_table** t) { return veldar_answer_table(&text, t); }, &status);
    };
    const auto both = [&](const std::string& question) {
        const strings answers = {partial_of(held.get(), question), partial_of(other.get(), question)};
        const std::string merged = merged_of(question, answers, nullptr, &status);
        EXPECT_EQ(status, VELDAR_OK);
        EXPECT_EQ(table(merged_of(question, {answers[1], merged_of(question, {answers[0]}, nullptr, &status)}, nullptr,
                                  &status)),
                  table(merged));
        return table(merged);
    };
    EXPECT_EQ(both(question_of("count", "level=error")), "count\n9\n");
    EXPECT_EQ(both(question_of("stats", "level=error", "count,max(n)")), "count\tmax(n)\n9\t40.000000\n");
    EXPECT_EQ(both(question_of("seen", "n=3")), "count\tfirst\tlast\n2\t1714521603000000000\t1714521603000000000\n");
    EXPECT_EQ(both(question_of("terms", "level=err*")),
              "term\tcount\tfirst\tlast\nlevel=error\t9\t1714521600000000000\t1714521640000000000\n");
    EXPECT_EQ(both(question_of("new", "level=info")).substr(0, 36), "term\tcount\tfirst\tlast\nlevel=info\t81\t");
    EXPECT_NE(both(question_of("fields")).find("\nn\t90\t50\n"), std::string::npos);
    EXPECT_EQ(both(question_of("samples")), "time\tmetric\tlabels\tvalue\n");
    const std::string found = both(question_of("search", "b=* n=39 OR n=45"));
    EXPECT_EQ(found.find("time\traw\thost\tsource\tsourcetype\tdirectory\taddress\tindex\tfields\n1714521645250"), 0u);
    EXPECT_NE(found.find("\tlevel=info,n=39,path=/a b,b=a\\,b\\=c\n"), std::string::npos) << found;

    const std::string question = question_of("count"), answer = partial_of(held.get(), question);
    const std::string none = merged_of(question, {}, nullptr, &status);
    EXPECT_EQ(table(none), "count\n0\n");
    std::string damaged = answer;
    damaged[damaged.size() / 2] = 'x';
    const std::string lacking = merged_of(question, {damaged, answer}, "host b: silent", &status);
    EXPECT_EQ(status, VELDAR_INCOMPLETE);
    EXPECT_EQ(table(lacking), "count\n50\n");
    EXPECT_EQ(status, VELDAR_INCOMPLETE);
    EXPECT_NE(std::string(veldar_last_error()->message).find("\nhost b: silent"), std::string::npos);
    const veldar_text text = {lacking.data(), lacking.size()};
    int64_t back_to = 0;
    EXPECT_EQ(table_text([&](veldar_table** t) { return veldar_answer_lacks(&text, &back_to, t); }),
              "lacks\nanswer 1: a damaged partial answer: its hash is another\nhost b: silent\n");
    EXPECT_EQ(back_to, INT64_MIN);
    EXPECT_EQ(table(damaged), "");
    EXPECT_EQ(status, VELDAR_DAMAGED);
    for (const strings& wrong : {strings{answer, answer}, strings{partial_of(held.get(), question_of("fields"))}}) {
        EXPECT_EQ(merged_of(question, wrong, nullptr, &status), "");
        EXPECT_EQ(status, VELDAR_USAGE);
    }
    veldar_bytes* bytes = nullptr;
    EXPECT_EQ(veldar_answer_partially(held.get(), "kind rumour\n", &bytes), VELDAR_USAGE);
}

struct stopper {
    std::atomic<int> asked = 0;
    int at = 0;
    std::string said;
    veldar_observer observer() {
        veldar_observer made = {};
        made.size = sizeof made;
        made.context = this;
        made.message = [](void* context, veldar_message_kind kind, const char* text) {
            static_cast<stopper*>(context)->said += (kind == VELDAR_TROUBLE ? "! " : "") + std::string(text) + "\n";
        };
        made.progress = [](void* context, const veldar_progress* progress) {
            EXPECT_TRUE(context != nullptr && progress->seconds >= 0);
        };
        made.stop = [](void* context) {
            auto* const self = static_cast<stopper*>(context);
            return ++self->asked >= self->at ? 1 : 0;
        };
        return made;
    }
};

TEST_F(Face, AnObserverHearsAndEndsTheWork) {
    const std::string file = log("big", make_log(30000));
    stopper stops;
    const veldar_observer observer = stops.observer();
    const owned<veldar_store> held = open_store(store_, VELDAR_CREATE, &observer);
    veldar_store* const store = held.get();
    EXPECT_EQ(load(store, {file}), VELDAR_INTERRUPTED) << "at once";
    stops.at = INT_MAX;
    veldar_load_result result = {};
    result.size = sizeof result;
    EXPECT_EQ(load(store, {file}, &result), VELDAR_OK);
    EXPECT_NE(stops.said.find("30,000 events"), std::string::npos) << stops.said;
    uint64_t count = 0;
    const veldar_query query = query_of("*");
    EXPECT_EQ(veldar_count(store, &query, &count), VELDAR_OK);
    EXPECT_EQ(count, 30000u) << "each line once";
    stops.at = 0;
    veldar_table* table = nullptr;
    // A new handle asks at once.
    const auto fresh = [&] { return open_store(store_, 0, &observer); };
    EXPECT_EQ(veldar_count(fresh().get(), &query, &count), VELDAR_INTERRUPTED);
    EXPECT_EQ(veldar_terms(fresh().get(), nullptr, 0, 0, &table), VELDAR_INTERRUPTED);
    EXPECT_EQ(veldar_stats(fresh().get(), nullptr, nullptr, &table), VELDAR_INTERRUPTED);
    EXPECT_EQ(veldar_fsck(fresh().get(), 0, &table), VELDAR_INTERRUPTED);
    EXPECT_EQ(table, nullptr);
    veldar_events* events = nullptr;
    veldar_event event = {};
    event.size = sizeof event;
    const owned<veldar_store> once = fresh();
    ASSERT_EQ(veldar_search(once.get(), &query, 0, &events), VELDAR_OK);
    const owned<veldar_events> searched(events);
    EXPECT_EQ(veldar_events_table(events, 0, 0, &table), VELDAR_USAGE);
    EXPECT_EQ(veldar_events_table(events, 1, 8, &table), VELDAR_USAGE);
    EXPECT_EQ(veldar_events_next(events, &event), VELDAR_INTERRUPTED);
    EXPECT_EQ(veldar_events_table(events, 10, 0, &table), VELDAR_INTERRUPTED) << "and not the end";
}

TEST_F(Face, HandlesOfManyThreads) {
    constexpr int THREADS = 4, LINES = 400;
    const std::string shared = loaded(LINES) != nullptr ? store_ : "";
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++) {
        threads.emplace_back([&, i] {
            const std::string name = "own-" + std::to_string(i);
            const owned<veldar_store> own = open_store(dir_.file(name), VELDAR_CREATE), other = open_store(shared);
            EXPECT_EQ(load(own.get(), {log(name + ".log", make_log(LINES, name))}), VELDAR_OK);
            for (int round = 0; round < 5; round++) {
                veldar_status end;
                const std::string mine = raw_by_event(own.get(), name.c_str(), 0, &end);
                EXPECT_EQ(std::count(mine.begin(), mine.end(), '\n'), LINES);
                EXPECT_NE(stats_text(other.get(), "level", "count", "1h").find("info\t360"), std::string::npos);
                const std::string torn = "(" + name;
                const veldar_query bad = query_of(torn.c_str());
                uint64_t count;
                EXPECT_EQ(veldar_count(other.get(), &bad, &count), VELDAR_USAGE);
                EXPECT_NE(std::string(veldar_last_error()->message).find(name), std::string::npos) << "another's error";
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(Face, WantOfMemoryIsAStatus) {
    const owned<veldar_store> held = loaded(30);
    veldar_store* const store = held.get();
    const std::string asked = question_of("search", "n<4");
    const auto questions = [&](std::string* told) {
        veldar_status worst = VELDAR_OK;
        const auto note = [&](veldar_status status) { worst = std::max(worst, status); };
        veldar_status end;
        uint64_t count = 0;
        const veldar_query query = query_of("level=error OR n=3");
        note(veldar_count(store, &query, &count));
        *told = std::to_string(count) + raw_by_event(store, "n<4", 0, &end);
        note(end);
        *told += table_text([&](veldar_table** t) { return veldar_terms(store, "n=*", 2, 0, t); }, &end);
        note(end);
        *told += table_text([&](veldar_table** t) { return veldar_stats(store, &query, nullptr, t); }, &end);
        note(end);
        veldar_bytes* partial = nullptr;
        note(veldar_answer_partially(store, asked.c_str(), &partial));
        const owned<veldar_bytes> answer(partial);
        if (answer == nullptr) return worst;
        const veldar_text bytes = {veldar_bytes_data(partial), veldar_bytes_size(partial)};
        veldar_bytes* merged = nullptr;
        note(veldar_answers_merge(asked.c_str(), &bytes, 1, nullptr, 0, &merged));
        const owned<veldar_bytes> same(merged);
        *told += table_text([&](veldar_table** t) { return veldar_answer_table(&bytes, t); }, &end);
        note(end);
        return worst;
    };
    std::string whole;
    uint64_t allocations = 0;
    {
        const fault_step counted(fault_action::allocation, UINT64_MAX);
        ASSERT_EQ(questions(&whole), VELDAR_END);
        allocations = counted.allocations();
    }
    ASSERT_GT(allocations, 100u);
    for (uint64_t nth = 1; nth <= allocations; nth += 1 + allocations / 150) {
        std::string told;
        veldar_status worst;
        {
            const fault_step short_of(fault_action::allocation, nth);
            try {
                worst = questions(&told);
            } catch (const std::bad_alloc&) {  // this test's own strings
                continue;
            }
        }
        EXPECT_TRUE(worst >= VELDAR_INCOMPLETE || told == whole) << nth << ": " << told;
    }
}

#ifdef VELDAR_HAS_SHARED
std::set<std::string> words(const std::string& text, const std::string& pattern) {
    std::set<std::string> found;
    const std::regex word(pattern);
    for (std::sregex_iterator i(text.begin(), text.end(), word), end; i != end; ++i) found.insert((*i)[1]);
    return found;
}

TEST_F(Face, TheLibraryShowsWhatTheHeaderDeclaresAlone) {
    const std::string face = VELDAR_SOURCE_DIR "/tools/libveldar/face/veldar.";
    const std::string listed = dir_.file("nm"), library = VELDAR_TOOLS_DIR "/libveldar/libveldar.so";
    ASSERT_EQ(std::system(("nm -D --defined-only " + library + " > " + listed).c_str()), 0);
    const std::set<std::string> shown = words(read_file(listed), " [TDBRVWiu] ([A-Za-z_0-9]+)");
    const std::set<std::string> mapped = words(read_file(face + "map"), "\n    (\\w+);");
    const std::set<std::string> declared = words(read_file(face + "h"), "\n[a-z][a-z_ 0-9*]*[ *](veldar_\\w+)\\(");
    EXPECT_EQ(shown, mapped);
    EXPECT_EQ(declared, mapped);
}

TEST_F(Face, TheExamplesAreCAndWork) {
    const std::string file = log("web log", make_log(100));
    const auto run = [](const std::string& name, const strings& arguments) {
        return run_tool("../examples/example_" + name, arguments);
    };
    const tool_result found = run("search", {store_, "n=50", file});
    EXPECT_EQ(found.status, 0) << found.err;
    EXPECT_EQ(found.out,
              "2024-05-01T00:00:50Z 2024-05-01T00:00:50.250Z level=error n=50 Path=\"/a b\" fine\n"
              "    level=error\n    n=50\n    path=/a b\n");
    EXPECT_EQ(run("search", {store_, "(n=50"}).status, 2);
    EXPECT_EQ(run("statistics", {store_, "*", "level", "count,max(n)", "1m"}).out,
              "time\tlevel\tcount\tmax(n)\n1714521600\terror\t6\t50\n1714521600\tinfo\t54\t59\n"
              "1714521660\terror\t4\t90\n1714521660\tinfo\t36\t99\n");
    write_file(dir_.file("m.prom"), "up{job=\"a,b\"} 1 1714521600000\nup{job=\"c\"} 0 1714525200000\n");
    EXPECT_EQ(run("metrics", {store_, "up", dir_.file("m.prom")}).out,
              "1714525200 up{job=c} 0\n1714521600 up{job=a\\,b} 1\nhour 1714521600 avg 1\nhour 1714525200 avg 0\n");
    EXPECT_EQ(run("put_events", {dir_.file("own")}).out, "50 errors\n2 slices merged into 1\nno faults\n");
}
#endif

}  // namespace
}  // namespace veldar

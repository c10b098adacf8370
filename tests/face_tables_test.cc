// Every question of veldar.h, asked outright and in parts: whole tables, beside what was read and found right before.
#include <gtest/gtest.h>

#include <memory>
#include <regex>

#include "tests/support/temp_dir.h"
#include "tools/libveldar/face/veldar.h"

namespace veldar {
namespace {

template <typename T>
using owned = std::unique_ptr<T, void (*)(T*)>;

struct asked {
    const char* kind;
    const char *text = nullptr, *by = nullptr, *aggregates = nullptr, *every = nullptr, *pattern = nullptr;
    const char *names = nullptr, *where = nullptr, *since = nullptr, *until = nullptr, *zone = nullptr;
    uint64_t limit = 0;  // of groups, too
    int flag = 0;        // fields, by term, groups that lack a field, or rates
};
constexpr asked QUESTIONS[] = {
    {.kind = "search", .text = "n<4", .limit = 3, .flag = 1},
    {.kind = "search", .text = "\"b, c\"", .since = "2024-05-01T12:00:01.5", .zone = "+02:00"},
    {.kind = "count", .text = "level=error", .until = "2024-05-01T10:00:05Z"},
    {.kind = "stats"},
    {.kind = "stats", .by = "level,user", .aggregates = "count,sum(n),values(user),dc(n)", .limit = 2},
    {.kind = "stats", .by = "user", .aggregates = "avg(n),values(n)", .every = "3s", .flag = 1},
    {.kind = "stats", .text = "n<6", .aggregates = "min(n),max(user)", .every = "2s", .since = "2024-05-01T10:00:01Z"},
    {.kind = "terms", .pattern = "n=*", .limit = 3, .flag = 1},
    {.kind = "fields"},
    {.kind = "seen", .pattern = "level=error"},
    {.kind = "new", .pattern = "n", .since = "2024-05-01T10:00:03Z", .limit = 4},
    {.kind = "samples"},
    {.kind = "samples", .names = "up,lo*", .where = "a=b", .since = "1970-01-01T00:01:39Z", .limit = 2},
    {.kind = "metric-stats", .by = "a", .aggregates = "max,sum,count,dc,values", .names = "up", .limit = 1},
    {.kind = "metric-stats", .by = "a", .every = "2s", .names = "up", .flag = 1},
};

std::string cell(const veldar_column& column, size_t row) {
    if (column.type == VELDAR_DOUBLE) return std::to_string(static_cast<const double*>(column.values)[row]);
    if (column.type != VELDAR_TEXT) return std::to_string(static_cast<const int64_t*>(column.values)[row]);
    return {column.bytes + column.offsets[row], column.bytes + column.offsets[row + 1]};
}

class FaceTables : public testing::Test {
  protected:
    temp_dir dir_;
    std::string told_;

    void tell(const std::string& what, veldar_status status, veldar_table* made) {
        const owned<veldar_table> table(made, veldar_table_free);
        told_ +=
            what + ": " + std::to_string(status) + (status > VELDAR_END ? veldar_last_error()->message : "") + "\n";
        veldar_column column = {};
        column.size = sizeof column;
        for (size_t i = 0; table != nullptr && veldar_table_column(made, i, &column) == VELDAR_OK; i++) {
            told_ += std::string("  ") + column.name;
            for (size_t row = 0; row < veldar_table_rows(made); row++) {
                const bool is_there = column.valid == nullptr || column.valid[row] != 0;
                told_ += " | " + (is_there ? cell(column, row) : "nothing");
            }
            told_ += '\n';
        }
    }

    void ask(veldar_store* store, const asked& q) {
        const size_t wheres = q.where == nullptr ? 0 : 1;
        const veldar_query query = {sizeof query, q.text, q.since, q.until, q.zone, 0};
        const veldar_stats_options stats = {sizeof stats, q.by, q.aggregates, q.every, q.limit, q.flag};
        const veldar_metric_query metrics = {sizeof metrics, q.names, &q.where, wheres, q.since, q.until, q.zone};
        const veldar_metric_stats_options rates = {sizeof rates, q.by, q.aggregates, q.every, q.limit, 0, q.flag};
        const veldar_question whole = {sizeof whole, q.kind,    &query,  &stats, &metrics,
                                       &rates,       q.pattern, q.limit, q.flag, q.flag};
        const std::string kind = q.kind;
        veldar_table* table = nullptr;
        veldar_status status = VELDAR_IO;
        if (kind == "stats") status = veldar_stats(store, &query, &stats, &table);
        if (kind == "terms") status = veldar_terms(store, q.pattern, q.limit, q.flag, &table);
        if (kind == "fields") status = veldar_fields(store, &table);
        if (kind == "seen") status = veldar_seen(store, q.pattern, &table);
        if (kind == "samples") status = veldar_metric_samples(store, &metrics, q.limit, &table);
        if (kind == "metric-stats") status = veldar_metric_stats(store, &metrics, &rates, &table);
        if (status != VELDAR_IO) tell(kind, status, table);
        veldar_bytes *text = nullptr, *part = nullptr, *merged = nullptr;
        ASSERT_EQ(veldar_question_text(&whole, &text), VELDAR_OK) << veldar_last_error()->message;
        const owned<veldar_bytes> text_held(text, veldar_bytes_free);
        told_ += std::string("== ") + veldar_bytes_data(text);
        ASSERT_EQ(veldar_answer_partially(store, veldar_bytes_data(text), &part), VELDAR_OK);
        const owned<veldar_bytes> part_held(part, veldar_bytes_free);
        const veldar_text answers[] = {{"no answer", 9}, {veldar_bytes_data(part), veldar_bytes_size(part)}};
        const char* const lacks[] = {"someone"};
        status = veldar_answer_table(&answers[1], &table);
        tell("in parts", status, table);
        EXPECT_EQ(veldar_answers_merge(veldar_bytes_data(text), answers, 2, lacks, 1, &merged), VELDAR_INCOMPLETE);
        const owned<veldar_bytes> merged_held(merged, veldar_bytes_free);
        const veldar_text both = {veldar_bytes_data(merged), veldar_bytes_size(merged)};
        int64_t back_to = 0;
        status = veldar_answer_lacks(&both, &back_to, &table);
        tell("lacks", status, table);
        told_ += std::to_string(back_to) + "\n";
    }
};

TEST_F(FaceTables, AreWhatTheyWere) {
    const std::string a = dir_.file("a.log"), m = dir_.file("m"), file = VELDAR_SOURCE_DIR "/tests/data/face_tables";
    std::string log;
    for (const std::string n : {"0", "1", "2", "3", "4", "5", "6", "7"}) {
        log += "01.05.24 12:00:0" + n + ",25 level=" + (n < "3" ? "error" : "info user=\"b, c=d\"") + " n=" + n + "\n";
    }
    write_file(a, log);
    write_file(m, "up{a=\"1=2,3\\\\\"} 1 99\nup{a=\"1=2,3\\\\\"} 4 101.25\nup{a=\"b\"} 2.5 100\nlow 3 99\n");
    veldar_store* made = nullptr;
    ASSERT_EQ(veldar_open(dir_.file("s").c_str(), VELDAR_CREATE, nullptr, &made), VELDAR_OK);
    const owned<veldar_store> store(made, veldar_close);
    veldar_load_result result = {};
    result.size = sizeof result;
    const veldar_load_options options = {
        sizeof options, "text", "Europe/Berlin", "h", "kind", nullptr, "%d.%m.%y %T", nullptr, 0, 0, 0, 1, 1, 1};
    const char *const logs[] = {a.c_str()}, *const scraped[] = {m.c_str()};
    for (const bool is_log : {true, false}) {
        const veldar_status status = is_log ? veldar_load(made, logs, 1, &options, &result)
                                            : veldar_load_metrics(made, scraped, 1, nullptr, &result);
        told_ += "load: " + std::to_string(status) + " events " + std::to_string(result.events) + " bytes " +
                 std::to_string(result.bytes) + " slices " + std::to_string(result.slices) + "\n";
    }
    for (const asked& one : QUESTIONS) ask(made, one);
    told_ = std::regex_replace(told_, std::regex("[0-9a-f]{32}"), "ID");
    for (size_t at; (at = told_.find(dir_.path())) != std::string::npos;) told_.replace(at, dir_.path().size(), "@");
    EXPECT_EQ(told_, read_file(file));
}

}  // namespace
}  // namespace veldar

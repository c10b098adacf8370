// The extension of SQLite as those who load it see it: what is pushed down answers as what SQLite does by itself, reads
// no more events than it must, and says so; errors, interruption, odd bytes; and the shell that `veldar sql` opens.
#ifdef VELDAR_HAS_SQLITE
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <random>

#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"

namespace veldar {
namespace {

using rows = std::vector<std::string>;  // columns with "|" between them

struct database {
    database() {
        EXPECT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
        sqlite3_enable_load_extension(db, 1);
        char* message = nullptr;
        const std::string file = VELDAR_TOOLS_DIR "/sqlite/veldar_sqlite.so";
        EXPECT_EQ(sqlite3_load_extension(db, file.c_str(), nullptr, &message), SQLITE_OK) << message;
    }
    database(const database&) = delete;
    ~database() { EXPECT_EQ(sqlite3_close(db), SQLITE_OK); }

    // "error: ..." is the last row when it fails.
    rows ask(const std::string& sql) const {
        rows out;
        sqlite3_stmt* statement = nullptr;
        const int prepared = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
        if (prepared == SQLITE_OK) {
            while (sqlite3_step(statement) == SQLITE_ROW) {
                out.emplace_back();
                for (int i = 0; i < sqlite3_column_count(statement); i++) {
                    const auto* const text = static_cast<const char*>(sqlite3_column_blob(statement, i));
                    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, i));
                    out.back() += (i > 0 ? "|" : "") + (text == nullptr ? "" : std::string(text, size));
                }
            }
        }
        if ((sqlite3_finalize(statement) | prepared) != SQLITE_OK)
            out.push_back(std::string("error: ") + sqlite3_errmsg(db));
        return out;
    }
    std::string one(const std::string& sql) const {
        const rows found = ask(sql);
        return found.size() == 1 ? found[0] : std::to_string(found.size()) + " rows";
    }
    int64_t read(const char* what) const { return std::stoll(one(std::string("SELECT veldar_decoded(") + what + ")")); }

    sqlite3* db = nullptr;
};

std::string line_of(int i, const std::string& text) {
    char time[40];
    std::snprintf(time, sizeof time, "2024-05-%02dT%02d:%02d:%02d.250Z ", 1 + i / 86400, i / 3600 % 24, i / 60 % 60,
                  i % 60);
    return time + text + "\n";
}

// Two hosts and two logs, one with a blank in its name and with lines that are no UTF-8.
class Sql : public ::testing::Test {
  protected:
    Sql() {
        std::string some, odd;
        for (int i = 0; i < 600; i++) {
            some += line_of(i * 35, "level=" + std::string(i % 10 == 0 ? "error" : "info") + " n=" + std::to_string(i));
        }
        for (int i = 0; i < 100; i++) {
            odd += line_of(i * 183, "user=ann user=bob \xFF n=" + std::to_string(i) + " say=\"a \\\"b\\\" \x01\"");
        }
        write_file(dir.file("some.log"), some);
        write_file(dir.file("odd one's.log"), odd);
        load("Web1", "some.log");
        load("db 2", "odd one's.log");
        create("events");
    }
    void load(const std::string& host, const std::string& file) const {
        const tool_result done = run_tool("veldar/veldar", {"-s", store, "load", "--host", host, dir.file(file)});
        EXPECT_EQ(done.status, 0) << done.err;
    }
    void create(const std::string& kind) const {
        const std::string module = "USING veldar_" + kind + "('" + store + "')";
        EXPECT_EQ(db.ask("CREATE VIRTUAL TABLE temp." + kind + " " + module), rows());
    }

    temp_dir dir;
    const std::string store = dir.file("a store");
    database db;
};

// SQLite asks for each side of an OR by itself and unites the rows by their numbers.
TEST_F(Sql, AnOrLosesNoRows) {
    for (const std::string either :
         {"time<'2024-05-01 01' OR #time>'2024-05-01 03'", "host='Web1' OR #time>'2024-05-01 02'",
          "host='db 2' OR #host='Web1' OR #time_ns=1714525200000000000"}) {
        std::string pushed, kept;
        for (const char c : either) {
            if (c != '#') pushed += c;
            kept += c == '#' ? std::string("+") : std::string(1, c);
        }
        const std::string count = "SELECT count(*), sum(address) FROM events WHERE ";
        EXPECT_EQ(db.one(count + pushed), db.one(count + "+" + kept)) << either;
    }
    const rows told = db.ask("SELECT raw FROM events('level=info) OR (level=error') WHERE host='Web1'");
    EXPECT_TRUE(!told.empty() && told.back().starts_with("error")) << "what is no query stays none";
}

TEST_F(Sql, BordersOfTimesAndArguments) {
    const std::string last = "2038-01-19 03:14:07";
    write_file(dir.file("last.log"), "2038-01-19T03:14:07Z the last\n2038-01-19T03:14:06Z one before\n");
    load("Web1", "last.log");
    for (const std::string op : {"=", "<=", ">=", "<", ">"}) {
        const std::string asked = "SELECT count(*), max(raw) FROM events('the last OR one') WHERE ";
        EXPECT_EQ(db.ask(asked + "time " + op + "'" + last + "'"), db.ask(asked + "+time " + op + "'" + last + "'"))
            << op;
    }
    EXPECT_EQ(db.one("SELECT raw FROM events('last OR before') WHERE time<'" + last + "' LIMIT 1"),
              "2038-01-19T03:14:06Z one before");
    EXPECT_EQ(db.one("SELECT g1, g2, a1 FROM veldar_stats('" + store + "', 'level=error', '\"level\"', NULL, 'count')"),
              "error||60");
    const rows told = db.ask("SELECT count(*) FROM veldar_events('" + store + "', 'level=error' || char(0) || 'x')");
    EXPECT_TRUE(told.back().starts_with("error:")) << told.back();
}

// A unary plus keeps a condition with SQLite.
TEST_F(Sql, PushedConditionsAnswerAsUnpushedOnes) {
    std::mt19937 random(20240501);
    const auto pick = [&](const std::vector<std::string>& from) { return from[random() % from.size()]; };
    const std::vector<std::string> times = {"'2024-05-01 01:00:00'",
                                            "'2024-05-01 01:00:00.5'",
                                            "'2024-05-01'",
                                            "'2024-05-01 02:1'",
                                            "'z'",
                                            "''",
                                            "NULL",
                                            "datetime('2024-05-01', '+100 minutes')",
                                            "'2024-05-01 00:14:00'"};
    const std::vector<std::string> numbers = {"1714525200000000000",
                                              "1714525200500000000",
                                              "1714528800000000001",
                                              "1e30",
                                              "-1e30",
                                              "'x'",
                                              "x'00'",
                                              "1714525200000000000.5",
                                              "NULL",
                                              "'1714525200'"};
    const std::vector<std::string> hosts = {
        "'Web1'", "'web1'", "'db 2'", "'WEB1' COLLATE NOCASE", "'db 2 ' COLLATE RTRIM", "'nobody'", "'*'", "'we\"b'",
        "1",      "NULL",   "''"};
    for (int i = 0; i < 100; i++) {
        std::string pushed, kept;
        for (uint64_t conditions = random() % 4; conditions > 0; conditions--) {
            const std::string op = pick({"<", "<=", "=", ">", ">="});
            std::string condition;
            switch (random() % 4) {
                case 0:
                    condition = "time " + op + " " + pick(times);
                    break;
                case 1:
                    condition = "time_ns " + op + " " + pick(numbers);
                    break;
                case 2:
                    condition = "time BETWEEN " + pick(times) + " AND " + pick(times);
                    break;
                default:
                    condition = "host = " + pick(hosts);
            }
            pushed += " AND " + condition;
            kept += " AND +" + condition;
        }
        const std::string query = pick({"", "", "level=error OR user=ann", "n=1*", "\"n=2\""});
        const auto select = [&](const std::string& what, const std::string& where) {
            return db.ask("SELECT " + what + " FROM events('" + query + "') WHERE +address >= 0" + where);
        };
        const std::string all = "time_ns, host, source, address", order = "2, 3, 4";
        EXPECT_EQ(select(all, pushed + " ORDER BY 1, " + order), select(all, kept + " ORDER BY 1, " + order)) << pushed;
        const std::string limit =
            " DESC LIMIT " + std::to_string(random() % 50) + " OFFSET " + std::to_string(random() % 9);
        const std::string from = " FROM events('" + query + "') WHERE 1";
        EXPECT_EQ(db.ask("SELECT time" + from + pushed + " ORDER BY time" + limit),
                  db.ask("SELECT time" + from + kept + " ORDER BY +time" + limit))
            << pushed << limit;
        EXPECT_EQ(db.ask("SELECT count(*)" + from + pushed), db.ask("SELECT count(*)" + from + kept)) << pushed;
    }
}

TEST_F(Sql, WhatIsPushedIsSaidAndReadsNoMore) {
    const auto costs = [&](const std::string& sql, const std::string& plan, int64_t events, int64_t lines) {
        const std::string told = db.ask("EXPLAIN QUERY PLAN " + sql).at(0);
        EXPECT_TRUE(told.ends_with("INDEX 0:veldar:" + plan)) << sql << "\n" << told;
        const int64_t events_before = db.read(""), lines_before = db.read("'lines'");
        db.ask(sql);
        EXPECT_EQ(db.read("") - events_before, events) << sql;
        EXPECT_EQ(db.read("'lines'") - lines_before, lines) << sql;
    };
    costs("SELECT count(*) FROM events", " count", 0, 0);
    costs("SELECT count(*) FROM events('level=error')", " query count", 0, 0);
    costs("SELECT count(*) FROM events WHERE time >= '2024-05-01 01' AND time_ns < 1714528800000000000",
          " time>= time_ns<", 1, 0);
    costs("SELECT raw FROM events('level=error') ORDER BY time DESC LIMIT 3 OFFSET 2", " query order limit offset", 5,
          3);
    costs("SELECT time FROM events ORDER BY time_ns DESC LIMIT 3", " order limit", 3, 0);
    costs("SELECT time FROM events ORDER BY time LIMIT 3", "", 700, 0);
    costs("SELECT time FROM events WHERE host = 'db 2' LIMIT 1", " host=", 1, 0);
    costs("SELECT sum(address) FROM events WHERE host = 'db 2'", " host=", 100, 0);
    costs("SELECT time FROM events('level=error', '2024-05-01T05:00Z') WHERE time < '2024-05-01 05:10'", " query since",
          8, 0);
    costs("SELECT max(CASE WHEN address > 50 THEN time END) FROM events WHERE time > 'z'", " time>", 0, 0);
}

TEST_F(Sql, ColumnsHoldWhatTheLogsHold) {
    const std::string odd = " FROM events('user=ann') ORDER BY time DESC LIMIT 1";
    EXPECT_EQ(db.one("SELECT typeof(raw), time, time_ns, exact_ns - time_ns, host, source" + odd),
              "blob|2024-05-01 05:01:57|1714539717000000000|250000000|db 2|" + dir.file("odd one's.log"));
    EXPECT_EQ(db.one("SELECT raw" + odd) + "\n",
              line_of(99 * 183, "user=ann user=bob \xFF n=99 say=\"a \\\"b\\\" \x01\""));
    EXPECT_EQ(
        db.one("SELECT json_valid(fields), fields ->> '$.user[1]', veldar_field(fields, 'USER'), "
               "veldar_field(fields, 'n'), veldar_field(fields, 'none') IS NULL, veldar_field(NULL, 'n') IS NULL" +
               odd),
        "1|bob|ann|99|1|1");
    EXPECT_EQ(db.one("SELECT typeof(raw), veldar_field(fields, 'level') FROM events('n=590') LIMIT 1"), "text|error");
}

TEST_F(Sql, OtherTablesAnswerAsTheTool) {
    write_file(dir.file("m.om"),
               "cpu{host=\"a,b\",x=\"=\"} 1.5 1714525200.25\ncpu{host=\"c\"} 0.5 1714525200.125\ncpu{host=\"c\"} 2 "
               "1714525201\nmem 3 1714525202\n# EOF\n");
    EXPECT_EQ(run_tool("veldar/veldar", {"-s", store, "metrics", "load", dir.file("m.om")}).status, 0);
    for (const char* const kind : {"terms", "stats", "metrics", "slices", "fields"}) create(kind);
    EXPECT_EQ(db.ask("SELECT term, count, first FROM terms('level=*') LIMIT 5"),
              rows({"level=info|540|2024-05-01 00:00:35", "level=error|60|2024-05-01 00:00:00"}));
    EXPECT_EQ(db.ask("SELECT time, g1, g2, a1, a2, a3 FROM stats('n=1*', 'level,host', '6h', 'count,max(n)')"),
              rows({"2024-05-01 00:00:00|error|web1|11|190.0|", "2024-05-01 00:00:00|info|web1|100|199.0|"}));
    EXPECT_EQ(db.ask("SELECT time, metric, labels, value FROM metrics"),
              rows({"2024-05-01 01:00:02|mem|{}|3.0", "2024-05-01 01:00:01|cpu|{\"host\":\"c\"}|2.0",
                    "2024-05-01 01:00:00.25|cpu|{\"host\":\"a,b\",\"x\":\"=\"}|1.5",
                    "2024-05-01 01:00:00.125|cpu|{\"host\":\"c\"}|0.5"}));
    EXPECT_EQ(db.one("SELECT value FROM metrics WHERE time < '2024-05-01 01:00:00.2' LIMIT 1"), "0.5");
    EXPECT_EQ(
        db.one("SELECT group_concat(value) FROM metrics('cpu', 'host=a\\,b') WHERE time < '2024-05-01 01:00:00.3'"),
        "1.5");
    EXPECT_EQ(db.one("SELECT value FROM metrics WHERE metric = 'cpu' AND time >= '2024-05-01 01:00:00.3'"), "2.0");
    EXPECT_EQ(db.one("SELECT value FROM metrics WHERE time_ns < 1714525202000000000 ORDER BY time DESC LIMIT 1"),
              "2.0");
    EXPECT_EQ(db.one("SELECT sum(events) FROM slices WHERE directory <> 'metrics'"), "700");
    EXPECT_EQ(db.one("SELECT events FROM fields WHERE field = 'n'"), "700");
    EXPECT_EQ(db.ask("SELECT q.column1, count(*) FROM (VALUES ('level=error'), ('user=ann')) q, "
                     "veldar_events('" +
                     store + "', q.column1) GROUP BY 1"),
              rows({"level=error|60", "user=ann|100"}));
}

TEST_F(Sql, ErrorsAreTheLibrarys) {
    const auto fails = [&](const std::string& sql, const std::string& message) {
        const rows told = db.ask(sql);
        ASSERT_FALSE(told.empty());
        EXPECT_TRUE(told.back().starts_with("error: ") && told.back().find(message) != std::string::npos)
            << sql << "\n"
            << told.back();
    };
    fails("SELECT * FROM events('a (b')", "expected a ')'");
    fails("SELECT * FROM veldar_events('/no/such')", "/no/such");
    fails("SELECT veldar_count('/no/such')", "/no/such");
    fails("SELECT veldar_count(1, 2, 3, 4, 5)", "veldar_count(");
    fails("SELECT * FROM events('a', 'whenever')", "whenever");
    fails("SELECT * FROM events WHERE time > 5", "time_ns");
    fails("SELECT * FROM events WHERE time > '2024-05-01T00:00:00Z'", "compared as text");
    fails("SELECT * FROM veldar_stats('" + store + "', NULL, 'n', NULL, 'nonsense(n)')", "nonsense");
    fails("SELECT veldar_field('no json', 'n')", "malformed JSON");
    fails("DELETE FROM events", "may not be modified");
    fails("CREATE VIRTUAL TABLE t USING veldar_events(a, b)", "one argument");
    ASSERT_EQ(std::remove(dir.file("some.log").c_str()), 0);
    fails("SELECT raw FROM events('level=error')", "some.log");
    EXPECT_EQ(db.one("SELECT count(host) FROM events('level=error')"), "60");
    const std::string empty = dir.file("empty");
    write_file(dir.file("no.log"), "");
    static_cast<void>(run_tool("veldar/veldar", {"-s", empty, "load", dir.file("no.log")}));
    EXPECT_EQ(db.one("SELECT count(*), max(time) IS NULL FROM veldar_events('" + empty + "')"), "0|1");
}

// SQLite itself looks between rows only: what ends here is the call that the interruption came before.
TEST_F(Sql, AnInterruptEndsACall) {
    const auto interrupt = [](sqlite3_context* to, int, sqlite3_value** values) {
        sqlite3_interrupt(sqlite3_context_db_handle(to));
        sqlite3_result_value(to, values[0]);
    };
    sqlite3_create_function(db.db, "interrupted", 1, SQLITE_UTF8, nullptr, interrupt, nullptr, nullptr);
    for (const std::string query : {"interrupted('\"fo no\"')", "interrupted('level=info')"}) {
        EXPECT_EQ(db.ask("SELECT veldar_count('" + store + "', " + query + ")"), rows({"error: interrupted"}));
        EXPECT_EQ(db.ask("SELECT count(*) FROM events(" + query + ")"), rows({"error: interrupted"}));
        EXPECT_EQ(db.ask("SELECT a1 FROM veldar_stats('" + store + "', " + query + ")"), rows({"error: interrupted"}));
    }
    EXPECT_EQ(db.one("SELECT count(*) FROM events"), "700");
}

TEST_F(Sql, TheShellOpensWithTheTables) {
    const auto run = [](std::vector<std::string> arguments, const tool_options& options = {}) {
        arguments.insert(arguments.begin(), "sql");
        return run_tool("veldar/veldar", arguments, options);
    };
    const std::string sql = "SELECT count(*) FROM events('level=error'); SELECT count(*) > 0 FROM slices, fields;";
    EXPECT_EQ(run({store, sql}).out, "60\n1\n");
    EXPECT_EQ(run({"-s", store, "--format", "json", "SELECT count(*) c FROM events"}).out, "[{\"c\":700}]\n");
    write_file(dir.file("in.sql"), "nonsense;\n" + sql);
    EXPECT_EQ(run({store}, {.input = dir.file("in.sql")}).out, "60\n1\n");
    const tool_result refused = run({store, "SELECT * FROM events('a (b')"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("expected a ')'"), std::string::npos);
    EXPECT_EQ(run({"-s", dir.file("none"), "SELECT 1"}).status, 2);
    EXPECT_EQ(run({"-s", store, store, "SELECT 1"}).status, 2);
    const std::string path = std::getenv("PATH");
    ::setenv("PATH", dir.path().c_str(), 1);
    const tool_result absent = run({store});
    ::setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(absent.status, 2);
    EXPECT_NE(absent.err.find("package sqlite3"), std::string::npos);
}

}  // namespace
}  // namespace veldar
#endif

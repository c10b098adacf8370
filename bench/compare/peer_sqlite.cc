#include <sqlite3.h>

#include <stdexcept>

#include "bench/compare/peer.h"

namespace veldar {

namespace {

// A full-text table without content, whose row numbers begin with the time, so that bounds of time are bounds of rows:
// the least that it can store, and the fastest that it can be asked.
class sqlite_peer final : public peer {
  public:
    explicit sqlite_peer(const std::string& directory) {
        require(sqlite3_open((directory + "/events.db").c_str(), &db_));
        run("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-200000;");
        run("CREATE VIRTUAL TABLE e USING fts5(t, content='', detail=none, columnsize=0,"
            " tokenize=\"ascii tokenchars ':./-_'\");");
        run("CREATE VIRTUAL TABLE v USING fts5vocab(e, 'row'); BEGIN;");
        insert_ = prepare("INSERT INTO e(rowid, t) VALUES (?, ?)");
        count_ = prepare("SELECT count(*) FROM e WHERE e MATCH ? AND rowid BETWEEN ? AND ?");
        newest_ = prepare("SELECT rowid FROM e WHERE e MATCH ? AND rowid BETWEEN ? AND ? ORDER BY rowid DESC LIMIT ?");
        terms_ = prepare("SELECT count(*) FROM v WHERE term GLOB ?");
    }
    ~sqlite_peer() override {
        for (sqlite3_stmt* statement : {insert_, count_, newest_, terms_}) sqlite3_finalize(statement);
        sqlite3_close(db_);
    }

    std::string name() const override { return "SQLite FTS5"; }

    void put(uint32_t number, int32_t time, const std::vector<std::string_view>& terms) override {
        line_.clear();
        for (const std::string_view term : terms) line_.append(term).append(" ");
        sqlite3_bind_int64(insert_, 1, row(time, number));
        sqlite3_bind_text(insert_, 2, line_.data(), static_cast<int>(line_.size()), SQLITE_STATIC);
        require(sqlite3_step(insert_) == SQLITE_DONE ? SQLITE_OK : SQLITE_ERROR);
        sqlite3_reset(insert_);
    }

    void finish() override { run("INSERT INTO e(e) VALUES ('optimize'); COMMIT;"); }

    uint64_t count(const question& asked) override {
        const std::string text = bind(count_, asked);
        require(sqlite3_step(count_) == SQLITE_ROW ? SQLITE_OK : SQLITE_ERROR);
        const auto events = static_cast<uint64_t>(sqlite3_column_int64(count_, 0));
        sqlite3_reset(count_);
        return events;
    }

    std::vector<uint32_t> newest(const question& asked, uint32_t most) override {
        const std::string text = bind(newest_, asked);
        sqlite3_bind_int64(newest_, 4, most);
        std::vector<uint32_t> numbers;
        while (sqlite3_step(newest_) == SQLITE_ROW) {
            numbers.push_back(static_cast<uint32_t>(sqlite3_column_int64(newest_, 0)));
        }
        sqlite3_reset(newest_);
        return numbers;
    }

    uint64_t terms_with(const std::string& text) override {
        const std::string pattern = "*" + text + "*";
        sqlite3_bind_text(terms_, 1, pattern.c_str(), -1, SQLITE_STATIC);
        require(sqlite3_step(terms_) == SQLITE_ROW ? SQLITE_OK : SQLITE_ERROR);
        const auto terms = static_cast<uint64_t>(sqlite3_column_int64(terms_, 0));
        sqlite3_reset(terms_);
        return terms;
    }

  private:
    static int64_t row(int32_t time, uint32_t number) { return int64_t{time} << 32 | number; }

    // The text stays as long as the statement runs.
    static std::string bind(sqlite3_stmt* statement, const question& asked) {
        std::string text;
        const auto add = [&text](const std::vector<std::string>& terms, const char* between) {
            for (size_t i = 0; i < terms.size(); i++) text += (i == 0 ? "\"" : between) + terms[i] + "\"";
        };
        add(asked.all, " AND \"");
        if (!asked.any.empty()) {
            text += text.empty() ? "(" : " AND (";
            add(asked.any, " OR \"");
            text += ")";
        }
        for (const std::string& term : asked.none) text += " NOT \"" + term + "\"";
        sqlite3_bind_text(statement, 1, text.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int64(statement, 2, row(asked.from, 0));
        sqlite3_bind_int64(statement, 3, row(asked.to, UINT32_MAX));
        return text;
    }

    void require(int status) const {
        if (status != SQLITE_OK) throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db_));
    }
    void run(const char* text) { require(sqlite3_exec(db_, text, nullptr, nullptr, nullptr)); }
    sqlite3_stmt* prepare(const char* text) {
        sqlite3_stmt* statement = nullptr;
        require(sqlite3_prepare_v2(db_, text, -1, &statement, nullptr));
        return statement;
    }

    sqlite3* db_ = nullptr;
    sqlite3_stmt *insert_ = nullptr, *count_ = nullptr, *newest_ = nullptr, *terms_ = nullptr;
    std::string line_;
};

}  // namespace

std::unique_ptr<peer> make_sqlite(const std::string& directory) {
    return std::make_unique<sqlite_peer>(directory);
}

}  // namespace veldar

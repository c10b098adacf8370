// The tables that are answered as a whole: terms, fields, slices, statistics and metrics.
#include <algorithm>
#include <limits>

#include "row_source.h"
#include "sql_values.h"

SQLITE_EXTENSION_INIT3

namespace veldar::sql {

namespace {

constexpr size_t STATS_GROUPS = 8, STATS_AGGREGATES = 16;
constexpr size_t NO_COLUMN = std::numeric_limits<size_t>::max();

struct table_freer {
    void operator()(veldar_table* table) const { veldar_table_free(table); }
};
using table_ptr = std::unique_ptr<veldar_table, table_freer>;

enum class shown { PLAIN, NUMBER, LABELS };  // a time as a text or in nanoseconds; labels as JSON

struct shown_column {
    size_t number;  // of the answer's columns
    shown how = shown::PLAIN;
};

class answer_rows final : public row_source {
  public:
    // `end` is what the answer came with.
    answer_rows(table_ptr table, std::vector<shown_column> columns, veldar_status end)
        : table_(std::move(table)), rows_(veldar_table_rows(table_.get())), columns_(std::move(columns)) {
        if (end == VELDAR_INCOMPLETE) lack_ = veldar_last_error()->message;
        for (size_t i = 0; i < veldar_table_columns(table_.get()); i++) {
            veldar_column column = {};
            column.size = sizeof column;
            static_cast<void>(veldar_table_column(table_.get(), i, &column));
            answer_.push_back(column);
        }
    }

    veldar_status next() override {
        if (begun_ && row_ < rows_) row_++;
        begun_ = true;
        if (row_ < rows_) return VELDAR_OK;
        if (!lack_.empty()) throw table_fault{lack_};
        return VELDAR_END;
    }

    bool rewind() override {
        begun_ = false;
        row_ = 0;
        return true;
    }

    // Of tables that are asked for parts of: a hash of what the row says (FNV-1a, 64 bits).
    int64_t rowid(int64_t row) const override {
        if (answer_[0].type != VELDAR_TIME) return row;
        uint64_t hash = 0xcbf29ce484222325;
        const auto add = [&](const void* bytes, size_t size) {
            for (size_t i = 0; i < size; i++) hash = (hash ^ static_cast<const uint8_t*>(bytes)[i]) * 0x100000001b3;
        };
        for (const veldar_column& column : answer_) {
            if (column.type == VELDAR_TEXT) {
                add(column.bytes + column.offsets[row_], column.offsets[row_ + 1] - column.offsets[row_]);
                add("", 1);
            } else {
                add(static_cast<const char*>(column.values) + 8 * row_, 8);
            }
        }
        return static_cast<int64_t>(hash);
    }

    int64_t time_ns() const override { return static_cast<const int64_t*>(answer_[0].values)[row_]; }

    veldar_status put(sqlite3_context* to, int number) override {
        const shown_column& shows = columns_[static_cast<size_t>(number)];
        if (shows.number >= answer_.size()) return VELDAR_OK;
        const veldar_column& column = answer_[shows.number];
        if (column.valid != nullptr && column.valid[row_] == 0) return VELDAR_OK;
        switch (column.type) {
            case VELDAR_TEXT: {
                const uint64_t begin = column.offsets[row_];
                const std::string_view text(column.bytes + begin, column.offsets[row_ + 1] - begin);
                put_text(to, shows.how == shown::LABELS ? json_of_labels(text) : std::string(text));
                break;
            }
            case VELDAR_DOUBLE:
                sqlite3_result_double(to, static_cast<const double*>(column.values)[row_]);
                break;
            default: {
                const int64_t value = static_cast<const int64_t*>(column.values)[row_];
                const bool is_text = column.type == VELDAR_TIME && shows.how == shown::PLAIN;
                is_text ? put_text(to, time_text(value)) : sqlite3_result_int64(to, value);
            }
        }
        return VELDAR_OK;
    }

  private:
    table_ptr table_;
    size_t row_ = 0, rows_;
    bool begun_ = false;
    std::string lack_;  // what the answer lacks; empty for nothing
    std::vector<shown_column> columns_;
    std::vector<veldar_column> answer_;
};

// Hands an answer over, with these of its columns.
veldar_status rows_of(veldar_status status, veldar_table* table, std::vector<shown_column> columns,
                      std::unique_ptr<row_source>* rows) {
    if (table != nullptr) *rows = std::make_unique<answer_rows>(table_ptr(table), std::move(columns), status);
    return status;
}

std::vector<shown_column> as_they_are(size_t count) {
    std::vector<shown_column> columns;
    for (size_t i = 0; i < count; i++) columns.push_back({i});
    return columns;
}

constexpr const char* TERMS_ARGUMENTS[] = {"pattern"};

veldar_status ask_terms(veldar_store* store, const table_question& question, std::unique_ptr<row_source>* rows) {
    veldar_table* table = nullptr;
    const veldar_status status = veldar_terms(store, question.argument(1), question.limit, 0, &table);
    return rows_of(status, table, as_they_are(4), rows);
}

veldar_status ask_fields(veldar_store* store, const table_question&, std::unique_ptr<row_source>* rows) {
    veldar_table* table = nullptr;
    const veldar_status status = veldar_fields(store, &table);
    return rows_of(status, table, as_they_are(3), rows);
}

veldar_status ask_slices(veldar_store* store, const table_question&, std::unique_ptr<row_source>* rows) {
    veldar_table* table = nullptr;
    const veldar_status status = veldar_slices(store, &table);
    return rows_of(status, table, as_they_are(8), rows);
}

enum stats_argument { QUERY = 1, BY, EVERY, AGG, STATS_SINCE, STATS_UNTIL, TZ };
constexpr const char* STATS_ARGUMENTS[] = {"query", "by", "every", "agg", "since", "until", "tz"};

// Fields with commas between them; a comma in quotes or parentheses is part of a name.
size_t count_fields(std::string_view fields) {
    size_t count = fields.empty() ? 0 : 1;
    int depth = 0;
    bool quoted = false;
    for (const char c : fields) {
        if (c == '"') quoted = !quoted;
        if (!quoted) depth += c == '(' ? 1 : c == ')' ? -1 : 0;
        count += c == ',' && !quoted && depth == 0 ? 1 : 0;
    }
    return count;
}

// The answer's columns are the time, if there are bins, the groups and the aggregates.
std::vector<shown_column> stats_columns(const table_question& question, size_t count) {
    const char *const by = question.argument(BY), *const every = question.argument(EVERY);
    const std::string_view fields = by == nullptr ? "" : by;
    const size_t times = every == nullptr || *every == '\0' ? 0 : 1;
    const size_t groups = count_fields(fields);
    if (groups > STATS_GROUPS || count > times + groups + STATS_AGGREGATES) {
        throw table_fault{"veldar_stats has columns for 8 fields and 16 aggregates"};
    }
    const size_t time = times == 1 ? 0 : NO_COLUMN;
    std::vector<shown_column> columns = {{time}, {time, shown::NUMBER}};
    for (size_t i = 0; i < STATS_GROUPS; i++) columns.push_back({i < groups ? times + i : NO_COLUMN});
    for (size_t i = times + groups; columns.size() < 2 + STATS_GROUPS + STATS_AGGREGATES; i++) {
        columns.push_back({i < count ? i : NO_COLUMN});
    }
    return columns;
}

veldar_status ask_stats(veldar_store* store, const table_question& question, std::unique_ptr<row_source>* rows) {
    const veldar_query query = {.size = sizeof query,
                                .text = question.argument(QUERY),
                                .since = question.argument(STATS_SINCE),
                                .until = question.argument(STATS_UNTIL),
                                .zone = question.argument(TZ),
                                .is_native = 0};
    const veldar_stats_options options = {.size = sizeof options,
                                          .by = question.argument(BY),
                                          .aggregates = question.argument(AGG),
                                          .every = question.argument(EVERY),
                                          .top = 0,
                                          .keeps_missing = 0};
    veldar_table* given = nullptr;
    const veldar_status status = veldar_stats(store, &query, &options, &given);
    table_ptr table(given);
    const size_t count = table == nullptr ? 0 : veldar_table_columns(table.get());
    std::vector<shown_column> columns = stats_columns(question, count);
    return rows_of(status, table.release(), std::move(columns), rows);
}

enum metrics_argument { PATTERN = 1, WHERE, METRICS_SINCE, METRICS_UNTIL };
constexpr const char* METRICS_EQUALS[] = {"metric"};
constexpr const char* METRICS_ARGUMENTS[] = {"pattern", "where", "since", "until"};

// Conditions with commas between them; a backslash before a comma or a backslash that is meant.
std::vector<std::string> conditions_of(const char* where) {
    std::vector<std::string> conditions;
    const std::string_view text = where == nullptr ? "" : where;
    if (!text.empty()) conditions.emplace_back();
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == ',') {
            conditions.emplace_back();
        } else {
            if (text[i] == '\\' && i + 1 < text.size()) i++;
            conditions.back().push_back(text[i]);
        }
    }
    return conditions;
}

veldar_status ask_metrics(veldar_store* store, const table_question& question, std::unique_ptr<row_source>* rows) {
    const std::vector<std::string> conditions = conditions_of(question.argument(WHERE));
    std::vector<const char*> where;
    for (const std::string& one : conditions) where.push_back(one.c_str());
    const char *const pattern = question.argument(PATTERN), *const since = question.argument(METRICS_SINCE),
                      *const until = question.argument(METRICS_UNTIL);
    const veldar_metric_query query = {.size = sizeof query,
                                       .names = pattern != nullptr ? pattern : question.metric.c_str(),
                                       .where = where.data(),
                                       .where_count = where.size(),
                                       .since = since != nullptr ? since : question.since.c_str(),
                                       .until = until != nullptr ? until : question.until.c_str(),
                                       .zone = nullptr};
    veldar_table* table = nullptr;
    const veldar_status status = veldar_metric_samples(store, &query, question.limit, &table);
    return rows_of(status, table, {{0}, {0, shown::NUMBER}, {1}, {2, shown::LABELS}, {3}}, rows);
}

constexpr table_kind TABLES[] = {
    {"veldar_terms",
     "term TEXT, count INTEGER, first TEXT, last TEXT",
     4,
     TERMS_ARGUMENTS,
     false,
     {},
     0,
     ask_terms,
     nullptr},
    {"veldar_fields", "field TEXT, events INTEGER, \"values\" INTEGER", 3, {}, false, {}, 0, ask_fields, nullptr},
    {"veldar_slices",
     "path TEXT, directory TEXT, first TEXT, last TEXT, events INTEGER, deleted INTEGER, terms INTEGER, bytes INTEGER",
     8,
     {},
     false,
     {},
     0,
     ask_slices,
     nullptr},
    {"veldar_stats",
     "time TEXT, time_ns INTEGER, g1 TEXT, g2 TEXT, g3 TEXT, g4 TEXT, g5 TEXT, g6 TEXT, g7 TEXT, g8 TEXT, a1, a2, a3, "
     "a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, a16",
     2 + STATS_GROUPS + STATS_AGGREGATES,
     STATS_ARGUMENTS,
     false,
     {},
     0,
     ask_stats,
     nullptr},
    {"veldar_metrics", "time TEXT, time_ns INTEGER, metric TEXT, labels TEXT, value REAL", 5, METRICS_ARGUMENTS, true,
     METRICS_EQUALS, 2, ask_metrics, nullptr},
};

}  // namespace

std::span<const table_kind> answer_tables() {
    return TABLES;
}

}  // namespace veldar::sql

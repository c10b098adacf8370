// veldar_events: the events that a query finds.
#include <algorithm>
#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "row_source.h"
#include "sql_values.h"

SQLITE_EXTENSION_INIT3

namespace veldar::sql {

namespace {

enum column { TIME, TIME_NS, RAW, HOST, SOURCE, SOURCETYPE, DIRECTORY, ADDRESS, EXACT_NS, FIELDS };
enum argument { STORE, QUERY, SINCE, UNTIL };
constexpr const char* ARGUMENTS[] = {"query", "since", "until"};
constexpr const char* EQUALS[] = {"host", "source", "sourcetype"};

std::atomic<uint64_t> events_seen, lines_seen;

struct events_closer {
    void operator()(veldar_events* events) const { veldar_events_close(events); }
};

class event_rows final : public row_source {
  public:
    explicit event_rows(veldar_events* events) : events_(events) {}

    veldar_status next() override {
        has_line_ = false;
        const veldar_status status = veldar_events_next(events_.get(), &event_);
        if (status == VELDAR_OK) events_seen++;
        return status;
    }

    int64_t time_ns() const override { return event_.time_ns; }

    int64_t rowid(int64_t) const override {
        return static_cast<int64_t>(uint64_t{event_.directory} << 32 | event_.address);
    }

    veldar_status put(sqlite3_context* to, int column) override {
        switch (column) {
            case TIME:
                put_text(to, time_text(event_.time_ns));
                return VELDAR_OK;
            case TIME_NS:
                sqlite3_result_int64(to, event_.time_ns);
                return VELDAR_OK;
            case ADDRESS:
                sqlite3_result_int64(to, event_.address);
                return VELDAR_OK;
            case EXACT_NS:
                return put_exact_time(to);
            case FIELDS:
                return put_fields(to);
            default:
                return put_part(to, column);
        }
    }

  private:
    void read_line() {
        if (!has_line_) lines_seen++;
        has_line_ = true;
    }

    veldar_status put_exact_time(sqlite3_context* to) {
        read_line();
        int64_t time_ns = 0;
        const veldar_status status = veldar_event_time(events_.get(), &time_ns);
        if (status == VELDAR_OK) sqlite3_result_int64(to, time_ns);
        return status;
    }

    // A line that cannot be read is NULL; the end of the rows tells of it.
    veldar_status put_part(sqlite3_context* to, int column) {
        static constexpr veldar_part PARTS[] = {VELDAR_RAW, VELDAR_HOST, VELDAR_SOURCE, VELDAR_SOURCETYPE,
                                                VELDAR_DIRECTORY};
        if (column == RAW) read_line();
        veldar_text text;
        const veldar_status status = veldar_event_text(events_.get(), PARTS[column - RAW], &text);
        if (status == VELDAR_OK) (column == RAW ? put_raw : put_text)(to, view_of(text));
        return status == VELDAR_END || status == VELDAR_INCOMPLETE ? VELDAR_OK : status;
    }

    // {"status":"200","user":["ann","bob"]}, in the order of the line.
    veldar_status put_fields(sqlite3_context* to) {
        read_line();
        std::vector<std::pair<std::string, std::vector<std::string>>> fields;
        veldar_text name, value;
        veldar_status status = VELDAR_OK;
        for (size_t i = 0; (status = veldar_event_field(events_.get(), i, &name, &value)) == VELDAR_OK; i++) {
            const auto same = [&](const auto& field) { return field.first == view_of(name); };
            auto field = std::find_if(fields.begin(), fields.end(), same);
            if (field == fields.end()) field = fields.insert(field, {std::string(view_of(name)), {}});
            field->second.emplace_back(view_of(value));
        }
        if (status == VELDAR_INCOMPLETE) return VELDAR_OK;
        if (status != VELDAR_END) return status;
        std::string json = "{";
        for (const auto& [field, values] : fields) {
            if (json.size() > 1) json.push_back(',');
            json_put_string(&json, field);
            json.append(values.size() > 1 ? ":[" : ":");
            for (const std::string& one : values) {
                if (json.back() == '"') json.push_back(',');
                json_put_string(&json, one);
            }
            if (values.size() > 1) json.push_back(']');
        }
        put_text(to, json.append("}"));
        return VELDAR_OK;
    }

    std::unique_ptr<veldar_events, events_closer> events_;
    veldar_event event_ = {.size = sizeof(veldar_event), .time_ns = 0, .address = 0, .directory = 0};
    bool has_line_ = false;
};

const char* or_null(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

bool are_brackets_even(const std::string& text) {
    int depth = 0;
    bool quoted = false;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\') {
            i++;
        } else if (text[i] == '"') {
            quoted = !quoted;
        } else if (!quoted && (text[i] == '(' || text[i] == ')')) {
            depth += text[i] == '(' ? 1 : -1;
            if (depth < 0) return false;
        }
    }
    return depth == 0 && !quoted;
}

// `text` keeps what the query points to.
veldar_query query_of(const table_question& question, std::string* text) {
    const char* const given = question.argument(QUERY);
    *text = given == nullptr ? "" : given;
    const bool is_every = text->find_first_not_of(" \t\r\n") == std::string::npos;
    // What is no query by itself must not become one; SQLite checks the conditions in any case.
    if (are_brackets_even(*text)) {
        if (!is_every && !question.conditions.empty()) text->insert(0, 1, '(').push_back(')');
        *text += question.conditions;
    }
    const char *const since = question.argument(SINCE), *const until = question.argument(UNTIL);
    return {.size = sizeof(veldar_query),
            .text = text->c_str(),
            .since = since != nullptr ? since : or_null(question.since),
            .until = until != nullptr ? until : or_null(question.until),
            .zone = nullptr,
            .is_native = 0};
}

veldar_status ask(veldar_store* store, const table_question& question, std::unique_ptr<row_source>* rows) {
    std::string text;
    const veldar_query query = query_of(question, &text);
    veldar_events* events = nullptr;
    const veldar_status status = veldar_search(store, &query, question.limit, &events);
    if (events != nullptr) *rows = std::make_unique<event_rows>(events);
    return status;
}

veldar_status count(veldar_store* store, const table_question& question, uint64_t* count) {
    std::string text;
    const veldar_query query = query_of(question, &text);
    return veldar_count(store, &query, count);
}

}  // namespace

const table_kind EVENTS_TABLE = {
    "veldar_events",
    "time TEXT, time_ns INTEGER, raw, host TEXT, source TEXT, sourcetype TEXT, directory TEXT, address INTEGER, "
    "exact_ns INTEGER, fields TEXT",
    10,
    ARGUMENTS,
    true,
    EQUALS,
    HOST,
    ask,
    count,
};

read_counts events_read() {
    return {events_seen, lines_seen};
}

}  // namespace veldar::sql

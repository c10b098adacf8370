#include "table_plan.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <string>

#include "sql_values.h"

SQLITE_EXTENSION_INIT3

namespace veldar::sql {

namespace {

constexpr char PLAN_BEGIN[] = "veldar:";
constexpr int TIME = 0, TIME_NS = 1;

const char* operator_text(unsigned op) {
    switch (op) {
        case SQLITE_INDEX_CONSTRAINT_EQ:
            return "=";
        case SQLITE_INDEX_CONSTRAINT_LT:
            return "<";
        case SQLITE_INDEX_CONSTRAINT_LE:
            return "<=";
        case SQLITE_INDEX_CONSTRAINT_GT:
            return ">";
        case SQLITE_INDEX_CONSTRAINT_GE:
            return ">=";
        default:
            return nullptr;
    }
}

struct planner {
    const table_kind& kind;
    bool has_store;
    sqlite3_index_info* info;
    std::string plan = PLAN_BEGIN;
    int values = 0;
    bool leaves_some = false;  // conditions to SQLite
    bool has_bounds = false;   // since or until is an argument
    int times = 0;
    double rows = 1e6;

    void take(int number, const std::string& word, bool entirely) {
        plan += " " + word;
        info->aConstraintUsage[number].argvIndex = ++values;
        info->aConstraintUsage[number].omit = entirely ? 1 : 0;
    }

    // The name of a hidden column; null for others.
    const char* argument_of(int column) const {
        if (column < static_cast<int>(kind.visible)) return nullptr;
        const size_t number = static_cast<size_t>(column) - kind.visible + (has_store ? 1 : 0);
        return number == 0 ? "store" : kind.hidden[number - 1];
    }

    bool is_taken(const std::string& word) const { return (plan + " ").find(" " + word + " ") != std::string::npos; }

    bool is_collated(int number, const char* name) const {
        return sqlite3_stricmp(sqlite3_vtab_collation(info, number), name) == 0;
    }

    bool take_time(int number, int column, const char* op) {
        if (!kind.has_time || has_bounds || column > TIME_NS || op == nullptr) return false;
        if (column == TIME && !is_collated(number, "BINARY")) return false;
        take(number, std::string(column == TIME ? "time" : "time_ns") + op, true);
        times++;
        rows /= 8;
        return true;
    }

    // SQLite compares once more: a query knows no capitals.
    void take_equality(int number, int column, unsigned op) {
        const int place = column - kind.first_equal;
        if (op != SQLITE_INDEX_CONSTRAINT_EQ || place < 0 || place >= static_cast<int>(kind.equals.size())) return;
        // Names of metrics know capitals; what events say does not.
        const bool folds = kind.count != nullptr && is_collated(number, "NOCASE");
        if (!is_collated(number, "BINARY") && !folds) return;
        take(number, std::string(kind.equals[static_cast<size_t>(place)]) + "=", false);
        rows /= 10;
    }

    // False when the value of an argument is not there.
    bool take_condition(int number) {
        const auto& one = info->aConstraint[number];
        const bool is_equal = one.op == SQLITE_INDEX_CONSTRAINT_EQ;
        const char* const argument = one.iColumn < 0 ? nullptr : argument_of(one.iColumn);
        if (argument != nullptr && is_equal && !is_taken(argument)) {
            if (one.usable == 0) return false;
            take(number, argument, true);
            rows /= 10;
            return true;
        }
        const bool is_here = one.usable != 0 && one.iColumn >= 0 && argument == nullptr;
        if (is_here && take_time(number, one.iColumn, operator_text(one.op))) return true;
        if (is_here) take_equality(number, one.iColumn, one.op);
        leaves_some = true;
        return true;
    }

    bool take_order() {
        if (!kind.has_time || info->nOrderBy == 0) return false;
        for (int i = 0; i < info->nOrderBy; i++) {
            const auto& one = info->aOrderBy[i];
            if (one.iColumn != TIME && one.iColumn != TIME_NS) return false;
            if (one.desc == 0) return false;
        }
        plan += " order";
        info->orderByConsumed = 1;
        return true;
    }
};

bool is_of_rows(unsigned op) {
    return op == SQLITE_INDEX_CONSTRAINT_LIMIT || op == SQLITE_INDEX_CONSTRAINT_OFFSET;
}

std::string text_of(sqlite3_value* value) {
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<size_t>(sqlite3_value_bytes(value)));
}

// Whether a query finds all events whose name this is: numbers stand for names that nobody knows.
bool can_be_asked(const std::string& name) {
    const auto is_plain = [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\' && c != '*'; };
    return !name.empty() && name.size() <= 200 && name.front() != ' ' && name.back() != ' ' &&
           std::all_of(name.begin(), name.end(), is_plain) && name.find_first_not_of("0123456789") != std::string::npos;
}

void read_equality(const table_kind& kind, const std::string& column, sqlite3_value* value, table_question* question) {
    const std::string name = text_of(value);
    if (sqlite3_value_type(value) != SQLITE_TEXT || !can_be_asked(name)) return;
    if (kind.count != nullptr) {
        question->conditions += " " + column + "=\"" + name + "\"";
    } else if (name.find_first_of(",'()") == std::string::npos) {
        question->metric = name;
    }
}

void read_limit(int64_t limit, int64_t offset, planned* out) {
    if (limit <= 0 || !out->window.is_whole()) return;
    const uint64_t behind = offset > 0 ? static_cast<uint64_t>(offset) : 0;
    out->question.limit = static_cast<uint64_t>(limit) + behind;
}

}  // namespace

int plan_make(const table_kind& kind, bool has_store, sqlite3_index_info* info) {
    planner make{kind, has_store, info};
    int limit = -1, offset = -1;
    for (int i = 0; i < info->nConstraint; i++) {
        const auto& one = info->aConstraint[i];
        const char* const argument = one.iColumn < 0 || is_of_rows(one.op) ? nullptr : make.argument_of(one.iColumn);
        const std::string name = argument == nullptr ? "" : argument;
        if (one.op == SQLITE_INDEX_CONSTRAINT_EQ && (name == "since" || name == "until")) make.has_bounds = true;
    }
    for (int i = 0; i < info->nConstraint; i++) {
        const unsigned op = info->aConstraint[i].op;
        if (op == SQLITE_INDEX_CONSTRAINT_LIMIT && info->aConstraint[i].usable != 0) limit = i;
        if (op == SQLITE_INDEX_CONSTRAINT_OFFSET) offset = i;
        if (!is_of_rows(op) && !make.take_condition(i)) return SQLITE_CONSTRAINT;
    }
    const bool in_order = make.take_order() || info->nOrderBy == 0;
    const bool offset_known = offset < 0 || info->aConstraint[offset].usable != 0;
    const bool takes_limit = kind.has_time || std::string_view(kind.name) == "veldar_terms";
    if (limit >= 0 && takes_limit && !make.leaves_some && in_order && offset_known) {
        make.take(limit, "limit", false);
        if (offset >= 0) make.take(offset, "offset", false);
        make.rows = std::min(make.rows, 100.0);
    }
    const bool reads_columns = (info->colUsed & ((uint64_t{1} << kind.visible) - 1)) != 0;
    const bool only_counts = kind.count != nullptr && !reads_columns && !make.leaves_some;
    if (only_counts) make.plan += " count";
    info->idxStr = sqlite3_mprintf("%s", make.plan.c_str());
    if (info->idxStr == nullptr) return SQLITE_NOMEM;
    info->needToFreeIdxStr = 1;
    info->estimatedRows = std::max<sqlite3_int64>(1, static_cast<sqlite3_int64>(make.rows));
    info->estimatedCost = only_counts ? 1000 : 1000 + make.rows * 10;
    return SQLITE_OK;
}

planned plan_read(const table_kind& kind, const char* plan, std::span<sqlite3_value* const> values) {
    planned out;
    out.question.arguments.resize(kind.hidden.size() + 1);
    std::istringstream words(plan);
    std::string word;
    words >> word;
    int64_t limit = -1, offset = 0;
    size_t next = 0;
    while (words >> word) {
        if (word == "order") continue;
        if (word == "count") {
            out.only_counts = true;
            continue;
        }
        sqlite3_value* const value = values[next++];
        const char* fault = nullptr;
        if (word == "limit") {
            limit = sqlite3_value_int64(value);
        } else if (word == "offset") {
            offset = sqlite3_value_int64(value);
        } else if (word.starts_with("time_ns")) {
            fault = window_narrow_ns(&out.window, word.substr(7), value);
        } else if (word.starts_with("time")) {
            fault = window_narrow_text(&out.window, word.substr(4), value);
        } else if (word.ends_with("=")) {
            read_equality(kind, word.substr(0, word.size() - 1), value, &out.question);
        } else if (sqlite3_value_type(value) != SQLITE_NULL) {
            const auto named = [&](const char* name) { return word == name; };
            const auto found = std::find_if(kind.hidden.begin(), kind.hidden.end(), named);
            const size_t number = word == "store" ? 0 : static_cast<size_t>(found - kind.hidden.begin()) + 1;
            std::string text = text_of(value);
            if (text.find('\0') != std::string::npos) throw table_fault{"an argument has a NUL in it"};
            out.question.arguments[number] = std::move(text);
        }
        if (fault != nullptr) throw table_fault{fault};
    }
    out.question.since = out.window.since();
    out.question.until = out.window.until();
    read_limit(limit, offset, &out);
    return out;
}

}  // namespace veldar::sql

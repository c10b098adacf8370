// veldar sql: the shell of SQLite over a store.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"

namespace veldar::tool {

namespace {

namespace fs = std::filesystem;

struct sql_options {
    std::string first, second, format;
};

// With each of these characters after a `before`.
std::string quoted(const std::string& text, char quote, const char* escaped, char before) {
    std::string out(1, quote);
    for (const char c : text) {
        if (std::string_view(escaped).find(c) != std::string_view::npos) out.push_back(before);
        out.push_back(c);
    }
    return out + quote;
}

// Where it is installed, and in a build tree.
std::string find_extension() {
    if (const char* const given = std::getenv("VELDAR_SQLITE"); given != nullptr && *given != '\0') return given;
    std::error_code error;
    const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
    for (const char* const place : {"../" VELDAR_LIBDIR "/veldar", "../sqlite"}) {
        const fs::path found = here / place / "veldar_sqlite.so";
        if (fs::exists(found, error)) return found.string();
    }
    throw failure_t{OUTCOME_USAGE,
                    "veldar_sqlite.so is not installed beside veldar: build it with -DVELDAR_SQLITE=ON, or name it in "
                    "$VELDAR_SQLITE"};
}

std::vector<std::string> shell_arguments(const std::string& store, const std::string& sql, const std::string& format) {
    const std::string path = fs::absolute(store).string();
    std::vector<std::string> arguments = {"sqlite3", "-bail", "-cmd",
                                          ".load " + quoted(find_extension(), '"', "\"\\", '\\')};
    for (const char* const name : {"events", "terms", "fields", "metrics", "slices", "stats"}) {
        arguments.insert(arguments.end(), {"-cmd", std::string("CREATE VIRTUAL TABLE temp.") + name + " USING veldar_" +
                                                       name + "(" + quoted(path, '\'', "'", '\'') + ")"});
    }
    if (!format.empty()) arguments.insert(arguments.end(), {"-cmd", ".mode " + format});
    arguments.insert(arguments.end(), {"-cmd", ".bail off", ":memory:"});
    if (!sql.empty()) arguments.push_back(sql);
    return arguments;
}

int sql_run(const tool_context& context, const sql_options& options) {
    std::error_code error;
    const bool names_store = context.store.empty() && !options.first.empty() &&
                             (!options.second.empty() || fs::exists(options.first, error));
    if (!names_store && !options.second.empty()) {
        throw failure_t{OUTCOME_USAGE, "two arguments beside -s; SQL is one, in quotes"};
    }
    const std::string store = store_choose(names_store ? options.first : context.store);
    static_cast<void>(slices_list(store, false));  // tells when nothing is there
    const std::vector<std::string> arguments =
        shell_arguments(store, names_store ? options.second : options.first, options.format);
    std::vector<char*> argv;
    for (const std::string& one : arguments) argv.push_back(const_cast<char*>(one.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    if (errno == ENOENT) throw failure_t{OUTCOME_USAGE, "sqlite3 is not in $PATH; it comes with the package sqlite3"};
    fail_io("cannot run", "sqlite3", errno);
}

}  // namespace

void add_sql_command(const command& veldar) {
    static sql_options options;
    const command sql = veldar.subcommand("sql", "Ask in SQL: the sqlite3 shell with a store's tables");
    sql.footer(
        "Tables: events, terms, fields, metrics, slices, stats; with arguments: events('status=500', '-1d').\n"
        "Exit status: the shell's.");
    sql.text("STORE", &options.first, "The store (else as for every command)");
    sql.text("SQL", &options.second, "What to run; without it the shell reads from its input");
    sql.text("--format", &options.format, "How the shell prints")
        .one_of(
            {"box", "column", "csv", "html", "insert", "json", "line", "list", "markdown", "quote", "table", "tabs"});
    sql.run([](const tool_context& context) { return sql_run(context, options); });
}

}  // namespace veldar::tool

#include "tools/libveldar/formats/user_formats.h"

#include <re2/re2.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <vector>

#include "tools/libveldar/formats/line_format_internal.h"

namespace veldar::tool {

struct user_format {
    std::string name;
    std::unique_ptr<RE2> expression;
    std::vector<std::pair<std::string, int>> groups;  // by their place in the expression
    time_place times;                                 // of the group `time`, when the file says its shape
    bool has_time = false;
};

namespace {

constexpr std::string_view TIME = "time";
constexpr int GROUPS_MAX = 64;

struct registry {
    std::vector<std::unique_ptr<user_format>> formats;
    std::vector<line_format> rows;
    std::string text;  // of the file
};

// Those that were read before stay: somebody may be parsing by them.
struct registries {
    std::mutex mutex;  // of `read`
    std::vector<std::unique_ptr<registry>> read;
    std::atomic<const registry*> known = nullptr;
};

registries& all_registries() {
    static registries all;
    return all;
}

// Makes it the one that is known, unless nothing in it is new.
void publish(std::unique_ptr<registry> now) {
    registries& all = all_registries();
    const std::lock_guard guard(all.mutex);
    const registry* const before = all.known;
    if (before != nullptr && before->text == now->text) return;
    all.known = now.get();
    all.read.push_back(std::move(now));
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isspace(static_cast<unsigned char>(text.front())) != 0) text.remove_prefix(1);
    while (!text.empty() && isspace(static_cast<unsigned char>(text.back())) != 0) text.remove_suffix(1);
    return text;
}

bool is_name(std::string_view name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
    });
}

std::string add_format(registry* all, std::string_view name, std::string_view expression) {
    const auto& builtin = line_formats();
    const bool taken =
        std::any_of(builtin.begin(), builtin.end(), [&](const line_format& one) { return name == one.name; }) ||
        std::any_of(all->formats.begin(), all->formats.end(), [&](const auto& one) { return name == one->name; });
    if (!is_name(name)) return "a format's name is letters, digits, '_', '-' and '.'";
    if (taken) return "there is another format " + std::string(name);
    auto made = std::make_unique<user_format>();
    RE2::Options options(RE2::Latin1);
    options.set_log_errors(false);
    made->name = name;
    made->expression = std::make_unique<RE2>(re2::StringPiece(expression.data(), expression.size()), options);
    if (!made->expression->ok()) return "in the expression: " + made->expression->error();
    for (const auto& [group, number] : made->expression->NamedCapturingGroups()) {
        if (number >= GROUPS_MAX) return "the expression has more than " + std::to_string(GROUPS_MAX - 1) + " groups";
        made->groups.emplace_back(group, number);
        made->has_time |= group == TIME;
    }
    if (made->groups.empty()) return "the expression names no groups: (?P<name>...)";
    std::sort(made->groups.begin(), made->groups.end(),
              [](const auto& a, const auto& b) { return a.second < b.second; });
    all->formats.push_back(std::move(made));
    return {};
}

std::string add_time(registry* all, std::string_view pattern) {
    if (all->formats.empty()) return "\"time = ...\" stands behind the format that it belongs to";
    user_format* const format = all->formats.back().get();
    if (!format->has_time) return "the format " + format->name + " has no group (?P<time>...)";
    const char* const fault = time_place_from_pattern(pattern, &format->times);
    return fault == nullptr ? std::string() : std::string(pattern) + " " + fault;
}

std::string add_line(registry* all, std::string_view line) {
    line = trimmed(line);
    if (line.empty() || line[0] == '#') return {};
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return "expected \"name = expression\"";
    const std::string_view name = trimmed(line.substr(0, equals)), value = trimmed(line.substr(equals + 1));
    return name == TIME ? add_time(all, value) : add_format(all, name, value);
}

}  // namespace

bool user_formats_read(const std::string& path, std::string* error) {
    std::ifstream file(path);
    auto all = std::make_unique<registry>();
    std::string line;
    if (!file) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    for (size_t number = 1; std::getline(file, line); number++) {
        all->text.append(line).push_back('\n');
        const std::string fault = add_line(all.get(), line);
        if (fault.empty()) continue;
        *error = path + ":" + std::to_string(number) + ": " + fault;
        return false;
    }
    for (const auto& format : all->formats) {
        line_format row = {format->name.c_str(), "of the user", parse_text};
        row.user = format.get();
        all->rows.push_back(row);
    }
    publish(std::move(all));
    return true;
}

std::string user_formats_path() {
    const char* const config = std::getenv("XDG_CONFIG_HOME");
    const char* const home = std::getenv("HOME");
    const bool named = config != nullptr && config[0] == '/';
    if (!named && (home == nullptr || *home == '\0')) return {};
    const std::string path = (named ? std::string(config) : std::string(home) + "/.config") + "/veldar/formats";
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? path : std::string();
}

std::span<const line_format> user_formats() {
    const registry* const known = all_registries().known;
    return known == nullptr ? std::span<const line_format>() : std::span(known->rows);
}

void user_format_prepare(const user_format& format, format_context* context) {
    if (!format.has_time || !context->time_field.empty()) return;
    context->time_field = TIME;
    if (!context->times.known()) context->times = format.times;
}

bool user_format_parse(const user_format& format, std::string_view line, parsed_line* out) {
    const std::string_view text = begin_parse(line, out);
    re2::StringPiece parts[GROUPS_MAX];
    const int count = format.groups.back().second + 1;
    if (!format.expression->Match(re2::StringPiece(text.data(), text.size()), 0, text.size(), RE2::UNANCHORED, parts,
                                  count)) {
        return parse_as_text(line, out);
    }
    for (const auto& [name, number] : format.groups) add_field(out, name, {parts[number].data(), parts[number].size()});
    if (!out->form_only) add_pairs(out, text);
    return true;
}

}  // namespace veldar::tool

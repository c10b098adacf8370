// JSON lines: one object a line. Members are fields, those of inner objects as `outer.inner`, each element of an array
// as a field of the array's name. Numbers stay as they are written; null and empty strings are no fields.
#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <deque>

#include "tools/veldar/formats/line_format_internal.h"
#include "tools/veldar/formats/terms.h"

namespace veldar::tool {

struct json_scratch {
    simdjson::ondemand::parser parser;
    std::vector<char> padded;       // the line and the bytes that the parser may read behind it
    std::deque<std::string> paths;  // names of inner members; a deque keeps them in place
    size_t paths_used = 0;
};

void json_scratch_delete::operator()(json_scratch* scratch) const {
    delete scratch;
}

namespace {

using simdjson::ondemand::array;
using simdjson::ondemand::json_type;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

constexpr int DEPTH_MAX = 32;        // deeper members are no fields
constexpr size_t FIELDS_MAX = 1024;  // nor are those past this number
constexpr std::string_view TIME_NAMES[] = {"@timestamp",   "timestamp", "time",    "ts",
                                           "datetime",     "date",      "@t",      "eventTime",
                                           "timeUnixNano", "asctime",   "t.$date", "__REALTIME_TIMESTAMP"};
constexpr std::string_view TEXT_NAMES[] = {"message", "msg", "log"};

struct json_walk {
    json_scratch* scratch;
    parsed_line* out;
    format_context* context;
    bool complete = true;  // no fault so far
};

bool is_named(std::string_view name, std::span<const std::string_view> names) {
    return std::any_of(names.begin(), names.end(), [&](std::string_view other) {
        return name.size() == other.size() && strncasecmp(name.data(), other.data(), name.size()) == 0;
    });
}

// A time in any of the ways of the other formats.
bool take_any_time(std::string_view text, log_stamp* out) {
    for (auto* take : {take_iso8601, take_epoch, take_clf_time}) {
        std::string_view rest = text;
        *out = {};
        if (take(&rest, out)) return true;
    }
    shape_time time;
    const bool taken = time_place_take_whole(text, &time);
    *out = time.stamp;
    return taken;
}

// The first member with a time member's name that holds a time gives the event's time, and is no field.
bool take_member_time(json_walk* walk, std::string_view name, std::string_view text) {
    log_stamp stamp;
    if (walk->out->has_time || !is_named(name, TIME_NAMES) || !take_any_time(text, &stamp)) return false;
    set_time(walk->out, stamp, walk->context);
    return walk->out->has_time;
}

void walk_scalar(json_walk* walk, std::string_view name, std::string_view text, int depth) {
    const bool member = depth == 1 || (depth == 2 && name.find('.') != std::string_view::npos);
    if (member && take_member_time(walk, name, text)) return;
    if (!name.empty() && walk->out->fields.size() < FIELDS_MAX) add_field(walk->out, name, text);
    if (depth == 1 && is_named(name, TEXT_NAMES)) add_pairs(walk->out, text);
}

std::string_view join_path(json_scratch* scratch, std::string_view outer, std::string_view inner) {
    if (outer.empty() || outer.size() + inner.size() >= TERM_MAX) return inner;
    if (scratch->paths_used == scratch->paths.size()) scratch->paths.emplace_back();
    std::string& path = scratch->paths[scratch->paths_used++];
    path.assign(outer).append(1, '.').append(inner);
    return path;
}

void walk_value(json_walk* walk, std::string_view name, value item, int depth);

void walk_members(json_walk* walk, std::string_view name, object members, int depth) {
    for (auto field : members) {
        std::string_view key;
        value item;
        if (field.unescaped_key().get(key) != simdjson::SUCCESS || field.value().get(item) != simdjson::SUCCESS) {
            walk->complete = false;
            return;
        }
        walk_value(walk, join_path(walk->scratch, name, key), item, depth + 1);
        if (!walk->complete) return;
    }
}

void walk_elements(json_walk* walk, std::string_view name, array elements, int depth) {
    for (auto element : elements) {
        value item;
        if (element.get(item) != simdjson::SUCCESS) {
            walk->complete = false;
            return;
        }
        walk_value(walk, name, item, depth + 1);
        if (!walk->complete) return;
    }
}

// Container runtimes keep the line end of what a program wrote in the string.
std::string_view without_line_end(std::string_view text) {
    if (text.ends_with('\n')) text.remove_suffix(1);
    if (text.ends_with('\r')) text.remove_suffix(1);
    return text;
}

// A number, true or false as written, without the blanks behind it.
std::string_view raw_text(std::string_view token) {
    size_t size = token.find_last_not_of(" \t\r\n");
    return token.substr(0, size + 1);
}

void walk_value(json_walk* walk, std::string_view name, value item, int depth) {
    json_type type{};
    if (depth > DEPTH_MAX) return;
    if (item.type().get(type) != simdjson::SUCCESS) {
        walk->complete = false;
        return;
    }
    switch (type) {
        case json_type::object: {
            object members;
            walk->complete = item.get_object().get(members) == simdjson::SUCCESS;
            if (walk->complete) walk_members(walk, name, members, depth);
            return;
        }
        case json_type::array: {
            array elements;
            walk->complete = item.get_array().get(elements) == simdjson::SUCCESS;
            if (walk->complete) walk_elements(walk, name, elements, depth);
            return;
        }
        case json_type::string: {
            std::string_view text;
            walk->complete = item.get_string().get(text) == simdjson::SUCCESS;
            if (walk->complete) walk_scalar(walk, name, without_line_end(text), depth);
            return;
        }
        case json_type::number:
        case json_type::boolean:
            walk_scalar(walk, name, raw_text(item.raw_json_token()), depth);
            return;
        case json_type::null:
            return;
    }
}

// Walks the padded copy of the line; false when it is no object at all.
bool walk_line(json_walk* walk, size_t size) {
    json_scratch* scratch = walk->scratch;
    simdjson::ondemand::document document;
    object members;
    walk->complete = true;
    scratch->paths_used = 0;
    auto fault = scratch->parser.iterate(scratch->padded.data(), size, scratch->padded.size()).get(document);
    if (fault != simdjson::SUCCESS || document.get_object().get(members) != simdjson::SUCCESS) return false;
    walk_members(walk, {}, members, 0);
    return true;
}

// What JSON does not allow inside a string: control characters and bytes that are no UTF-8.
void replace_odd_bytes(std::span<char> text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<signed char>(c) < 0x20; }, '?');
}

}  // namespace

bool parse_json(std::string_view line, format_context* context, parsed_line* out) {
    std::string_view text = begin_parse(line, out);
    skip_blanks(&text);
    if (!text.starts_with('{')) return parse_as_text(line, out);
    if (!out->json) out->json.reset(new json_scratch);
    json_walk walk{out->json.get(), out, context};
    std::vector<char>& padded = out->json->padded;
    if (padded.size() < text.size() + simdjson::SIMDJSON_PADDING)
        padded.resize(text.size() * 2 + simdjson::SIMDJSON_PADDING);
    memcpy(padded.data(), text.data(), text.size());
    memset(padded.data() + text.size(), ' ', simdjson::SIMDJSON_PADDING);
    if (walk_line(&walk, text.size()) && walk.complete) return true;

    // A line with odd bytes is read once more without them; one with a fault inside keeps the members before it.
    static_cast<void>(begin_parse(line, out));
    replace_odd_bytes({padded.data(), text.size()});
    bool read = walk_line(&walk, text.size()) && (walk.complete || out->has_time || !out->fields.empty());
    return read || parse_as_text(line, out);
}

}  // namespace veldar::tool

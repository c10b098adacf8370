// JSON lines: one object a line. Members are fields, those of inner objects as `outer.inner`, each element of an array
// as a field of the array's name. Numbers stay as they are written; null and empty strings are no fields. A message in
// it may be a line of another format: what container runtimes, log shippers and the journal write are envelopes.
#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "tools/libveldar/formats/line_format_internal.h"
#include "tools/libveldar/formats/terms.h"

namespace veldar::tool {

struct json_scratch {
    simdjson::ondemand::parser parser;
    std::vector<char> padded;  // the line and the bytes that the parser may read behind it
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
constexpr size_t NAMES_MAX = 4096;   // names of inner members that are made
constexpr int WRAPPERS_MAX = 4;

// Arrays that stand around the events of a service; their names are no part of a field's.
constexpr std::string_view WRAPPERS[] = {"Records", "resourceLogs", "scopeLogs", "logRecords"};

struct json_walk {
    parsed_line* out = nullptr;
    format_context* context = nullptr;
    bool complete = true;  // no fault so far
    int wrappers = 0;
    std::string_view texts[4];  // the messages
    size_t text_count = 0;
    log_stamp inner_time;  // of an inner member, in case that the line has no other
    bool has_inner_time = false;
};

// The name without the objects that it stands in.
std::string_view last_name(std::string_view name) {
    return name.substr(name.rfind('.') + 1);
}

void note_inner_time(json_walk* walk, std::string_view name, std::string_view text) {
    if (walk->has_inner_time || !is_time_name(last_name(name))) return;
    log_stamp stamp;
    walk->has_inner_time = take_any_time(text, &stamp);
    walk->inner_time = stamp;
}

void walk_scalar(json_walk* walk, std::string_view name, std::string_view text, int depth) {
    const bool member = depth == 1 || (depth == 2 && name.find('.') != std::string_view::npos);
    if (member && take_named_time(walk->out, name, text, walk->context)) return;
    if (!walk->out->has_time) note_inner_time(walk, name, text);
    if ((member || name.starts_with("resource.")) && is_host_name(name)) set_host(walk->out, text);
    if (!name.empty() && walk->out->fields.size() < FIELDS_MAX) add_field(walk->out, name, text);
    const bool message = member && is_text_name(name) && walk->text_count < std::size(walk->texts);
    if (message) walk->texts[walk->text_count++] = text;
}

std::string_view join_path(parsed_line* out, std::string_view outer, std::string_view inner) {
    const bool full = out->made_used >= NAMES_MAX || out->fields.size() >= FIELDS_MAX;
    if (outer.empty() || full || outer.size() + inner.size() >= TERM_MAX) return inner;
    return made_text(out)->append(outer).append(1, '.').append(inner);
}

void walk_value(json_walk* walk, std::string_view name, value item, int depth);

// The value of an attribute as OpenTelemetry writes it, {"stringValue": "GET"} or {"arrayValue": {"values": [...]}}: all
// that is in it has the attribute's name.
void walk_attribute(json_walk* walk, std::string_view name, value item, int depth) {
    json_type type{};
    if (depth > DEPTH_MAX) return;
    walk->complete = item.type().get(type) == simdjson::SUCCESS;
    if (!walk->complete) return;
    const auto walk_each = [&](auto inner) {
        value one;
        walk->complete = inner.get(one) == simdjson::SUCCESS;
        if (walk->complete) walk_attribute(walk, name, one, depth + 1);
        return walk->complete;
    };
    object members;
    array elements;
    if (type == json_type::object) {
        walk->complete = item.get_object().get(members) == simdjson::SUCCESS;
        if (!walk->complete) return;
        for (auto field : members) {
            if (!walk_each(field.value())) return;
        }
    } else if (type == json_type::array) {
        walk->complete = item.get_array().get(elements) == simdjson::SUCCESS;
        if (!walk->complete) return;
        for (auto element : elements) {
            if (!walk_each(element)) return;
        }
    } else {
        walk_value(walk, name, item, depth);
    }
}

void walk_members(json_walk* walk, std::string_view name, object members, int depth) {
    const bool attributes = last_name(name) == "attributes";
    std::string_view attribute;  // {"key": "http.method", "value": ...}
    for (auto field : members) {
        std::string_view key;
        value item;
        if (field.unescaped_key().get(key) != simdjson::SUCCESS || field.value().get(item) != simdjson::SUCCESS) {
            walk->complete = false;
            return;
        }
        if (attributes && key == "key" && item.get_string().get(attribute) == simdjson::SUCCESS) continue;
        if (!attribute.empty() && key == "value") {
            walk_attribute(walk, join_path(walk->out, name, attribute), item, depth + 1);
        } else {
            walk_value(walk, join_path(walk->out, name, key), item, depth + 1);
        }
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

// A text as the journal writes it when it has odd bytes: an array of their numbers. Anything else in it is walked.
void walk_bytes(json_walk* walk, std::string_view name, array elements, int depth) {
    std::string* const text = made_text(walk->out);
    for (auto element : elements) {
        value item;
        json_type type{};
        walk->complete = element.get(item) == simdjson::SUCCESS && item.type().get(type) == simdjson::SUCCESS;
        if (!walk->complete) return;
        unsigned byte = 0;
        const std::string_view token = type == json_type::number ? raw_text(item.raw_json_token()) : "";
        const auto [end, fault] = std::from_chars(token.data(), token.data() + token.size(), byte);
        if (fault == std::errc() && end == token.data() + token.size() && byte <= 0xFF) {
            text->push_back(static_cast<char>(byte));
            continue;
        }
        walk_value(walk, name, item, depth + 1);
        if (!walk->complete) return;
    }
    walk_scalar(walk, name, *text, depth);
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
            if (!walk->complete) return;
            if (depth == 1 && name == "MESSAGE") return walk_bytes(walk, name, elements, depth);
            const bool wrapper = std::find(std::begin(WRAPPERS), std::end(WRAPPERS), name) != std::end(WRAPPERS);
            if (!wrapper || walk->wrappers == WRAPPERS_MAX) return walk_elements(walk, name, elements, depth);
            walk->wrappers++;
            walk_elements(walk, {}, elements, -1);
            walk->wrappers--;
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
    json_scratch* scratch = walk->out->json.get();
    simdjson::ondemand::document document;
    object members;
    auto fault = scratch->parser.iterate(scratch->padded.data(), size, scratch->padded.size()).get(document);
    if (fault != simdjson::SUCCESS || document.get_object().get(members) != simdjson::SUCCESS) return false;
    walk_members(walk, {}, members, 0);
    return true;
}

// What has to wait until all members are seen.
bool finish(json_walk* walk) {
    parsed_line* const out = walk->out;
    if (!out->has_time && walk->has_inner_time) set_time(out, walk->inner_time, walk->context);
    for (size_t i = 0; i < walk->text_count; i++) add_message(out, walk->texts[i], walk->context);
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
    json_walk walk;
    walk.out = out;
    walk.context = context;
    std::vector<char>& padded = out->json->padded;
    if (padded.size() < text.size() + simdjson::SIMDJSON_PADDING)
        padded.resize(text.size() * 2 + simdjson::SIMDJSON_PADDING);
    memcpy(padded.data(), text.data(), text.size());
    memset(padded.data() + text.size(), ' ', simdjson::SIMDJSON_PADDING);
    if (walk_line(&walk, text.size()) && walk.complete) return finish(&walk);

    // A line with odd bytes is read once more without them; one with a fault inside keeps the members before it.
    static_cast<void>(begin_parse(line, out));
    replace_odd_bytes({padded.data(), text.size()});
    walk = json_walk();
    walk.out = out;
    walk.context = context;
    bool read = walk_line(&walk, text.size()) && (walk.complete || out->has_time || !out->fields.empty());
    return read ? finish(&walk) : parse_as_text(line, out);
}

}  // namespace veldar::tool

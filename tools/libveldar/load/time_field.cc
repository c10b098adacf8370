#include "tools/libveldar/load/time_field.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace veldar::tool {

namespace {

constexpr size_t VALUE_BYTES = 64;  // no time is longer

struct values {
    size_t order = 0;  // of the field in the lines
    std::vector<std::string> texts;
};

// Whether the name is that of a time: a bare number is one only then.
bool names_time(std::string_view name) {
    std::string folded(name);
    std::transform(folded.begin(), folded.end(), folded.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
    constexpr const char* WORDS[] = {"time", "date", "stamp", "created", "published"};
    return std::any_of(std::begin(WORDS), std::end(WORDS),
                       [&](const char* word) { return folded.find(word) != std::string::npos; });
}

time_place place_of(const values& field, const time_hints& hints) {
    const std::vector<std::string_view> texts(field.texts.begin(), field.texts.end());
    return time_place_find(texts, hints);
}

}  // namespace

void time_field_find(const line_format& format, std::span<const std::string_view> lines, const time_hints& hints,
                     format_context* context) {
    std::map<std::string, values, std::less<>> fields;
    format_context scratch = *context;
    parsed_line parsed;
    size_t records = 0, dated = 0;
    for (const std::string_view line : lines) {
        if (!begins_record(line)) continue;
        parse_log_line(format, line, &scratch, &parsed);
        if (parsed.no_event) continue;
        records++;
        dated += parsed.has_time;
        for (const field_view& field : parsed.fields) {
            if (field.value.size() > VALUE_BYTES) continue;
            const size_t order = fields.size();
            values* const known = &fields.try_emplace(std::string(field.name), values{order, {}}).first->second;
            if (known->texts.size() < records) known->texts.emplace_back(field.value);
        }
    }
    if (!context->time_field.empty()) {
        const auto field = fields.find(context->time_field);
        if (field != fields.end() && !context->times.known()) context->times = place_of(field->second, hints);
        return;
    }
    if (dated * 2 >= records) return;
    const time_place whole = time_place_find(lines, hints);
    std::pair<bool, size_t> best = {false, 0};  // named as a time, and how far to the front
    for (const auto& [name, field] : fields) {
        const std::pair<bool, size_t> key = {names_time(name), SIZE_MAX - field.order};
        if (field.texts.size() * 2 < records || key < best) continue;
        const time_place place = place_of(field, hints);
        const bool number =
            place.pattern.find('m') == std::string::npos && place.pattern.find('b') == std::string::npos;
        if (!place.known() || place.words > 1 || (number && !key.first)) continue;
        // The day in one field and the clock in the next are found together in the lines.
        const bool half = !place.shape.has_clock || !place.shape.has_date;
        if (half && whole.shape.has_clock && whole.shape.has_date) continue;
        best = key;
        context->time_field = name;
        context->times = place;
    }
}

}  // namespace veldar::tool

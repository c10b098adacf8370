#include "sql_values.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

SQLITE_EXTENSION_INIT3

namespace veldar::sql {

namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";
constexpr int64_t NS = 1'000'000'000;

// The bytes of the character that the text begins with; 0 when it begins with none.
size_t character_size(std::string_view text) {
    const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = at(0);
    if (first < 0x80) return first != 0 ? 1 : 0;
    const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size) return 0;
    for (size_t i = 1; i < size; i++) {
        if ((at(i) & 0xC0) != 0x80) return 0;
    }
    const unsigned second = at(1);
    const bool too_long = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool no_character = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    return too_long || no_character ? 0 : size;
}

// How many bytes are UTF-8 without NUL.
size_t sound_size(std::string_view text) {
    size_t i = 0;
    while (i < text.size()) {
        const size_t size = character_size(text.substr(i));
        if (size == 0) break;
        i += size;
    }
    return i;
}

}  // namespace

std::string time_text(int64_t time_ns) {
    namespace chrono = std::chrono;
    const int64_t seconds = time_ns / NS - (time_ns % NS < 0 ? 1 : 0);
    const chrono::sys_seconds time{chrono::seconds(seconds)};
    const chrono::sys_days day = chrono::floor<chrono::days>(time);
    const chrono::year_month_day date(day);
    const auto second = static_cast<int>((time - day).count());
    std::array<char, 48> text;
    int size = std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(date.year()),
                             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), second / 3600,
                             second / 60 % 60, second % 60);
    std::string out(text.data(), static_cast<size_t>(size));
    const int64_t fraction = time_ns - seconds * NS;
    if (fraction == 0) return out;
    size = std::snprintf(text.data(), text.size(), ".%09d", static_cast<int>(fraction));
    out.append(text.data(), static_cast<size_t>(size));
    return out.erase(out.find_last_not_of('0') + 1);
}

std::string utf8_text(std::string_view bytes) {
    std::string out;
    for (;;) {
        const size_t sound = sound_size(bytes);
        out += bytes.substr(0, sound);
        if (sound == bytes.size()) return out;
        out += REPLACEMENT;
        bytes.remove_prefix(sound + 1);
    }
}

void put_text(sqlite3_context* to, std::string_view bytes) {
    if (sound_size(bytes) != bytes.size()) return put_raw(to, utf8_text(bytes));
    put_raw(to, bytes);
}

void put_raw(sqlite3_context* to, std::string_view bytes) {
    if (sound_size(bytes) == bytes.size()) {
        sqlite3_result_text64(to, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    } else {
        sqlite3_result_blob64(to, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
    }
}

void json_put_string(std::string* json, std::string_view bytes) {
    json->push_back('"');
    for (const char c : utf8_text(bytes)) {
        if (c == '"' || c == '\\') json->push_back('\\');
        if (static_cast<unsigned char>(c) >= 0x20) {
            json->push_back(c);
            continue;
        }
        std::array<char, 8> code;
        std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(c));
        json->append(code.data());
    }
    json->push_back('"');
}

std::string json_of_labels(std::string_view labels) {
    std::string json = "{", part;
    bool has_any = false;
    const auto end_part = [&] {
        json_put_string(&json, part);
        part.clear();
        has_any = true;
    };
    for (size_t i = 0; i < labels.size(); i++) {
        if (labels[i] == '\\' && i + 1 < labels.size()) {
            part.push_back(labels[++i]);
        } else if (labels[i] == '=' || labels[i] == ',') {
            end_part();
            json.push_back(labels[i] == '=' ? ':' : ',');
        } else {
            part.push_back(labels[i]);
        }
    }
    if (has_any) end_part();
    return json + "}";
}

}  // namespace veldar::sql

#include "searchthing/format/tsidx_names.h"

#include <charconv>
#include <string_view>

namespace veldar {

namespace {

constexpr uint64_t KIND_REGULAR = 1;
constexpr uint64_t KIND_MINIFIED = 2;
constexpr uint64_t KIND_PART = 3;

// Takes a number off the front of the text: digits in the type's range, behind a sign when the type has one.
template <typename T>
bool take_number(std::string_view* text, T* out) {
    std::string_view digits = *text;
    if (std::is_signed_v<T> && digits.starts_with('+')) {
        digits.remove_prefix(1);
        if (digits.starts_with('-')) return false;
    }
    const std::from_chars_result result = std::from_chars(digits.data(), digits.data() + digits.size(), *out, 10);
    if (result.ec != std::errc()) return false;
    text->remove_prefix(static_cast<size_t>(result.ptr - text->data()));
    return true;
}

bool take_char(std::string_view* text, char c) {
    if (!text->starts_with(c)) return false;
    text->remove_prefix(1);
    return true;
}
bool take_dash(std::string_view* text) {
    return take_char(text, '-');
}

std::string_view name_in_path(const char* path) {
    std::string_view name = path;
    name.remove_prefix(name.rfind('/') + 1);  // npos + 1 is 0
    return name;
}

// Takes "<latest>-<earliest>-<id>" off the front; what follows is the caller's to judge.
bool take_fields(std::string_view* text, st_filename_metadata_t* meta) {
    return take_number(text, &meta->latest) && take_dash(text) && take_number(text, &meta->earliest) &&
           take_dash(text) && take_number(text, &meta->id);
}

}  // namespace

int st_tsidx_file_parse(const char* path, st_filename_metadata_t* meta) {
    std::string_view name = name_in_path(path);
    st_filename_metadata_t found;
    if (!take_fields(&name, &found) || (name != TSIDX_SUFFIX && name != TSIDX_MINI_SUFFIX)) return 0;
    found.kind = KIND_REGULAR;
    *meta = found;
    return 1;
}

int st_mini_tsidx_file_parse(const char* name, st_filename_metadata_t* meta) {
    std::string_view text = name;
    st_filename_metadata_t found;
    if (!take_fields(&text, &found) || text != TSIDX_MINI_SUFFIX) return 0;
    found.kind = KIND_MINIFIED;
    *meta = found;
    return 1;
}

int tsidx_part_file_parse(const char* path, st_filename_metadata_t* meta) {
    std::string_view name = name_in_path(path);
    st_filename_metadata_t found;
    uint32_t number = 0, writer = 0;
    if (!take_fields(&name, &found) || !take_char(&name, '.') || !take_number(&name, &number) ||
        !take_char(&name, '.') || !take_number(&name, &writer) || name != TSIDX_PART_SUFFIX) {
        return 0;
    }
    found.kind = KIND_PART;
    *meta = found;
    return 1;
}

int tsidx_pre_file_parse(const char* path, st_filename_metadata_t* meta) {
    std::string_view name = name_in_path(path);
    st_filename_metadata_t found;
    if (!take_fields(&name, &found) || name != TSIDX_PRE_SUFFIX) return 0;
    found.kind = KIND_REGULAR;
    *meta = found;
    return 1;
}

}  // namespace veldar

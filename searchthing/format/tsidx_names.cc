#include "searchthing/format/tsidx_names.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace veldar {

namespace {

constexpr uint64_t KIND_REGULAR = 1;
constexpr uint64_t KIND_MINIFIED = 2;
constexpr uint64_t KIND_PART = 3;

constexpr uint64_t MIB = 1048576;
constexpr uint64_t MAX_SIZE_MIB = 4096;
constexpr uint32_t MAX_MERGE_BUFFER_BYTES = 1073741824;
constexpr uint32_t MIN_MERGE_READER_SPAN = 128;

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

void st_tsidx_write_opts_init_with_byte_sizes(TSWRITEOPTS* opts, uint32_t level, uint64_t byte_size, uint32_t third,
                                              uint32_t fourth, uint32_t fifth, uint32_t sixth) {
    opts->write_level = level;
    opts->byte_size = byte_size;
    opts->merge_terms_per_block = third;
    opts->merge_buffer_bytes = std::min(fourth, MAX_MERGE_BUFFER_BYTES);
    opts->advanced_postings = fifth;
    opts->merge_reader_span = std::max(sixth, MIN_MERGE_READER_SPAN);
    opts->millisecond_mode = 0;
}

void st_tsidx_write_opts_init(TSWRITEOPTS* opts, uint32_t level, uint64_t size_mib, uint32_t fifth, uint32_t sixth) {
    const uint64_t byte_size = size_mib < MAX_SIZE_MIB ? size_mib * MIB : MAX_SIZE_MIB * MIB - 1;
    st_tsidx_write_opts_init_with_byte_sizes(opts, level, byte_size, 64, 8388608, fifth, sixth);
}

void st_tsidx_write_opts_init_write_level(TSWRITEOPTS* opts, uint32_t level) {
    st_tsidx_write_opts_init(opts, level, 1500, 1, 1024);
}

void st_tsidx_write_opts_set_defaults(TSWRITEOPTS* opts) {
    st_tsidx_write_opts_init_write_level(opts, 4);
}

void st_tsidx_write_opts_copy(TSWRITEOPTS* dst, const TSWRITEOPTS* src) {
    if (dst != nullptr && src != nullptr) *dst = *src;
}

bool st_tswriteopts_support_millisecond(const TSWRITEOPTS* opts) {
    return opts != nullptr && opts->millisecond_mode == 1 && opts->write_level > 3;
}

bool st_write_level_is_valid(uint32_t level) {
    return level >= 1 && level <= 4;
}

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

int so_status_filename(ospath_buf* out, const char* directory) {
    ospath_builder b;
    if (ospath_builder_concat_two_paths_with_sep(&b, directory, TSIDX_OPTIMIZE_RESULT_NAME) != 0) return -1;
    return ospath_buf_set(out, b.buf.val);
}

}  // namespace veldar

#include "searchthing/directory/tsidx_params.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/vbe.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/format/tsidx_names.h"

namespace veldar {

namespace {

constexpr std::string_view PREFIX = "VELDAR AUTO-GENERATED FILE. DO NOT MODIFY.|";
static_assert(PREFIX.size() + 8 * sizeof "18446744073709551615" <= TSIDX_PARAMS_MAX_BYTES,
              "eight numbers and their bars");

// Digits up to a "|" or, for the last number, the end of the text. Takes what it reads off the text.
bool take_number(std::string_view* text, bool last, uint64_t* out) {
    const size_t bar = text->find('|');
    const std::string_view digits = text->substr(0, bar);
    if (digits.empty() || (bar == std::string_view::npos && !last)) return false;
    uint64_t value = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9') return false;
        if (__builtin_mul_overflow(value, uint64_t{10}, &value) ||
            __builtin_add_overflow(value, static_cast<uint64_t>(c - '0'), &value)) {
            return false;
        }
    }
    text->remove_prefix(bar == std::string_view::npos ? text->size() : bar + 1);
    *out = value;
    return true;
}

int write_line(const char* path, const tsidx_params_line& line) {
    unique_fd fd = osfile_create_anew(path);
    if (!fd.valid()) return WARM_RC_OPEN;
    ST_TRY(st_file_write(fd.get(), line.text, static_cast<int64_t>(std::strlen(line.text))));
    return fd.close_checked() == 0 ? 0 : WARM_RC_CLOSE;
}

}  // namespace

tsidx_limits_t tsidx_default_limits(bool is_msidx) {
    return {.lexicon_bytes = is_msidx ? 2097152u : 131072u,
            .max_terms = is_msidx ? 2097152u : 131072u,
            .max_postings = 131072,
            .max_values = 131072,
            .keywords_per_txn = 8192,
            .dimset_words = 131072,
            .max_dimset_measures = 2097152};
}

tsidx_limits_t tsidx_clamp_limits(const tsidx_limits_t& limits) {
    const auto others = [](uint64_t limit) { return std::clamp<uint64_t>(limit, 1024, uint64_t{1} << 28); };
    return {.lexicon_bytes = std::clamp<uint64_t>(limits.lexicon_bytes, 65536, uint64_t{1} << 30),
            .max_terms = round_up_to_power_of_two(std::clamp<uint64_t>(limits.max_terms, 257, uint64_t{1} << 26)),
            .max_postings = others(limits.max_postings),
            .max_values = others(limits.max_values),
            .keywords_per_txn = others(limits.keywords_per_txn),
            .dimset_words = others(limits.dimset_words),
            .max_dimset_measures = others(limits.max_dimset_measures)};
}

bool tsidx_limits_within(const tsidx_limits_t& limits, const tsidx_limits_t& most) {
    return limits.lexicon_bytes <= most.lexicon_bytes && limits.max_terms <= most.max_terms &&
           limits.max_postings <= most.max_postings && limits.max_values <= most.max_values &&
           limits.keywords_per_txn <= most.keywords_per_txn && limits.dimset_words <= most.dimset_words &&
           limits.max_dimset_measures <= most.max_dimset_measures;
}

tsidx_limits_t tsidx_writable_limits(const tsidx_limits_t& limits, bool is_msidx) {
    constexpr uint64_t MAX_VALUES = UINT32_MAX / 31;
    tsidx_limits_t writable = limits;
    writable.max_values = std::min(limits.max_values, is_msidx ? MAX_VALUES / 2 : MAX_VALUES);
    writable.lexicon_bytes = std::min(limits.lexicon_bytes, uint64_t{1} << 31);
    return writable;
}

tsidx_params_line serialize_params(const tsidx_limits_t& l, uint32_t writer_number) {
    tsidx_params_line line;
    const int length = std::snprintf(
        line.text, sizeof line.text,
        "%s%" PRIu64 "|%" PRIu64 "|%" PRIu64 "|%" PRIu64 "|%" PRIu64 "|%" PRIu64 "|%" PRIu64 "|%" PRIu64 "|",
        PREFIX.data(), l.max_terms, l.lexicon_bytes, l.max_postings, l.max_values, l.keywords_per_txn, l.dimset_words,
        l.max_dimset_measures, uint64_t{writer_number});
    ST_ASSERT(length > 0 && static_cast<size_t>(length) < sizeof line.text);
    return line;
}

bool deserialize_params(std::string_view text, tsidx_limits_t* limits) {
    if (text.size() > TSIDX_PARAMS_MAX_BYTES || !text.starts_with(PREFIX)) return false;
    text.remove_prefix(PREFIX.size());
    tsidx_limits_t l;
    uint64_t writer;
    for (uint64_t* field : {&l.max_terms, &l.lexicon_bytes, &l.max_postings, &l.max_values, &l.keywords_per_txn,
                            &l.dimset_words, &l.max_dimset_measures}) {
        if (!take_number(&text, false, field)) return false;
    }
    if (!take_number(&text, true, &writer) || !text.empty()) return false;
    *limits = l;
    return true;
}

bool tsidx_read_params(const char* directory, tsidx_params_line* line) {
    ospath_builder path;
    static_cast<void>(ospath_builder_concat_two_paths_with_sep(&path, directory, TSIDX_PARAMS_NAME));  // "" has no file
    const unique_fd fd = osfile_open_regular(path.buf.val, O_RDONLY);
    if (!fd.valid()) return false;
    char text[TSIDX_PARAMS_MAX_BYTES + 1];
    const int64_t size = st_pread(fd.get(), text, sizeof text, 0);
    if (size < 0 || static_cast<size_t>(size) > TSIDX_PARAMS_MAX_BYTES) return false;
    *line = {};
    std::memcpy(line->text, text, static_cast<size_t>(size));
    // A NUL would hide what follows it.
    return std::memchr(text, '\0', static_cast<size_t>(size)) == nullptr;
}

int tsidx_write_params(const char* directory, const tsidx_params_line& line, uint32_t writer_tag) {
    ospath_builder target, part;
    char name[64];
    static_assert(sizeof name > sizeof TSIDX_PARAMS_NAME + sizeof ".part.4294967295");
    std::snprintf(name, sizeof name, "%s.part.%" PRIu32, TSIDX_PARAMS_NAME, writer_tag);
    if (ospath_builder_concat_two_paths_with_sep(&part, directory, name) != 0) return WARM_RC_PATH_TOO_LONG;
    static_cast<void>(ospath_builder_concat_two_paths_with_sep(&target, directory, TSIDX_PARAMS_NAME));  // shorter
    int status = write_line(part.buf.val, line);
    if (status == 0 && ::rename(part.buf.val, target.buf.val) != 0) status = WARM_RC_WRITE;
    if (status != 0) {
        const int saved_errno = errno;
        ::unlink(part.buf.val);
        errno = saved_errno;
    }
    return status;
}

}  // namespace veldar

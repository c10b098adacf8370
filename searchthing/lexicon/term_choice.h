// Which terms a walk hands out, what is told of them, and how long a term may be.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "searchthing/base/st_timeval.h"

namespace veldar {

// Which terms: those that all of this takes.
struct term_choice_t {
    std::string prefix;                            // that they begin with
    std::optional<std::string> needle;             // that matches them (isMatch); one without "*" is looked up
    std::optional<std::string> after;              // that they come behind: where an earlier walk ended
    std::function<bool(std::string_view)> wanted;  // given NUL-terminated terms; null: every term
};

// Added up over slices.
struct term_totals_t {
    uint64_t count = 0;  // events; deleted ones too, as long as their slice holds them
    st_time_t earliest = 0, latest = 0;
};

inline constexpr uint32_t ST_MAX_TERM_LENGTH = 2047;
inline constexpr uint32_t ST_TERM_BUFFER_SIZE = 2048;

// The answer of an enumeration.
struct st_enum_answer {
    char term[ST_TERM_BUFFER_SIZE];
    uint32_t id;  // a term id, or an event count once a directory has replaced it
};
static_assert(sizeof(st_enum_answer) == 2052);

}  // namespace veldar

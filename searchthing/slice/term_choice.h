// Which terms a walk hands out, and what is told of them.
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

}  // namespace veldar

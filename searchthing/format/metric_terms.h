// How the terms of metric slices begin.
#pragma once

#include <string_view>

namespace veldar {

// The term of a metric: the blank tells it from a word of a log.
inline constexpr std::string_view METRIC_NAME_TERM = " metric_name::";

}  // namespace veldar

// The field that says the time, where a format names its fields: the one that is asked for, or the likeliest.
#pragma once

#include <span>
#include <string_view>

#include "tools/libveldar/formats/line_format.h"
#include "tools/libveldar/formats/time_place.h"

namespace veldar::tool {

// Sets context->time_field, unless it is set, and context->times, unless it is known, to what stands in most of these
// lines. A field that is not asked for is looked for only when under half of the lines say a time; context is as it was
// when there is none.
void time_field_find(const line_format& format, std::span<const std::string_view> lines, const time_hints& hints,
                     format_context* context);

}  // namespace veldar::tool

// The answer of an enumeration of terms, and how long a term may be.
#pragma once

#include <cstdint>

#include "searchthing/base/language.h"

namespace veldar {

inline constexpr uint32_t ST_MAX_TERM_LENGTH = 2047;
inline constexpr uint32_t ST_TERM_BUFFER_SIZE = 2048;

struct st_enum_answer {
    char term[ST_TERM_BUFFER_SIZE];
    uint32_t id;  // a term id, or an event count once a directory has replaced it
};
static_assert(sizeof(st_enum_answer) == 2052);

}  // namespace veldar

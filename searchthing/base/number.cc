#include "searchthing/base/number.h"

#include <errno.h>
#include <locale.h>
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <limits>

namespace veldar {

namespace {

constexpr size_t EXACT_DIGITS = 15;  // a double holds every whole number of so many digits
static_assert(EXACT_DIGITS <= std::numeric_limits<double>::digits10);

}  // namespace

bool parse_query_number(const char* text, double* number) {
    static const locale_t c_locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    if (*text == '\0') return false;
    // Most values are whole numbers that a double holds as they are; strtod takes four times as long for them.
    uint64_t whole = 0;
    size_t digits = 0;
    for (; digits <= EXACT_DIGITS && text[digits] >= '0' && text[digits] <= '9'; digits++) {
        whole = whole * 10 + static_cast<uint64_t>(text[digits] - '0');
    }
    if (digits <= EXACT_DIGITS && text[digits] == '\0') {
        *number = static_cast<double>(whole);
        return true;
    }
    char* end = nullptr;
    errno = 0;
    *number = ::strtod_l(text, &end, c_locale);
    return *end == '\0' && errno != ERANGE;
}

}  // namespace veldar

// Names of months as logs write them, in languages of western Europe.
#pragma once

#include <string_view>

namespace veldar::tool {

// Takes "Nov", "November", "Okt", "août", "mars" ... in any case from the front of the text, and gives the month's
// number, 1 to 12. The dot behind a shortened name stays.
bool take_month(std::string_view* rest, unsigned* month);

}  // namespace veldar::tool

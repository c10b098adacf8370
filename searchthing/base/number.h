// Numbers in the text of queries and terms.
#pragma once

namespace veldar {

// The number that a text stands for, read whole in the "C" locale: false for an empty text, a rest or a range error.
bool parse_query_number(const char* text, double* number);

}  // namespace veldar

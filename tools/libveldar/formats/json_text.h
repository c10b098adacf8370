// The text of a record of a JSON log, as people and programs that read its strings see it.
#pragma once

#include <string>
#include <string_view>

namespace veldar::tool {

// The record with the escapes of its first line decoded when that line is a JSON object: "\n" becomes a newline,
// "\u00e9" its UTF-8 bytes, "\\" one backslash. What is no escape stays, and so do the lines that continue the record. Behind them stands what the journal
// writes as an array of bytes.
// The result is the record itself or in `scratch`, valid until either changes.
std::string_view json_text(std::string_view record, std::string* scratch);

}  // namespace veldar::tool

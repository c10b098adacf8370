// What a file is that no log is, told by its first bytes.
#pragma once

#include <string>
#include <string_view>

namespace veldar::tool {

// Why the content that begins like this is not loaded, for a message: it is compressed in a way that is not read, text in UTF-32, or binary.
// Empty for text; a log with a few odd bytes, or with a hole of NULs that a crash left, is text.
std::string foreign_content(std::string_view head);

}  // namespace veldar::tool

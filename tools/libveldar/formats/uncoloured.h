// The text of a log that was written for a terminal, without the commands to it.
#pragma once

#include <string>
#include <string_view>

namespace veldar::tool {

// The text as a terminal shows it: without colours and other sequences of ECMA-48 (ESC [ ... letter) and without titles
// (ESC ] ... BEL). The result is the text itself or in `scratch`, valid until either changes.
std::string_view uncoloured(std::string_view text, std::string* scratch);

}  // namespace veldar::tool

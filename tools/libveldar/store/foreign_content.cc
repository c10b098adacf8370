#include "tools/libveldar/store/foreign_content.h"

#include <algorithm>

#include "tools/libveldar/store/packed_stream.h"
#include "tools/libveldar/store/wide_text.h"

namespace veldar::tool {

namespace {

using namespace std::string_view_literals;

struct magic_bytes {
    std::string_view bytes, name;
};

constexpr magic_bytes COMPRESSED[] = {
    {"\x04\x22\x4D\x18"sv, "lz4"},  {"LZIP\x01"sv, "lzip"},  {"\x1F\x9D"sv, "compress"},
    {"7z\xBC\xAF\x27\x1C"sv, "7z"}, {"PK\x03\x04"sv, "zip"},
};
constexpr size_t TAR_MAGIC = 257;

std::string_view compression_of(std::string_view head) {
    for (const magic_bytes& one : COMPRESSED) {
        if (head.starts_with(one.bytes)) return one.name;
    }
    return packed_format_of(head) != PACKED_NONE ? "a second time" : "";
}

// Control characters that no log uses: colours, separators and the like are none.
bool is_odd(char c) {
    return (c >= 0x02 && c <= 0x06) || (c >= 0x0E && c <= 0x1A);
}

bool is_binary(std::string_view head) {
    size_t nul_runs = 0, odd = 0, lines = 1;
    for (size_t i = 0; i < head.size(); i++) {
        nul_runs += head[i] == '\0' && (i == 0 || head[i - 1] != '\0') ? 1 : 0;
        odd += is_odd(head[i]) ? 1 : 0;
        lines += head[i] == '\n' ? 1 : 0;
    }
    const bool only_nuls = !head.empty() && head.find_first_not_of('\0') == std::string_view::npos;
    return only_nuls || nul_runs > 1 + lines / 10 || odd > 4 + head.size() / 50;
}

}  // namespace

std::string foreign_content(std::string_view head) {
    const std::string_view compression = compression_of(head);
    if (!compression.empty()) {
        return "compressed (" + std::string(compression) + "); decompress it first, nothing is loaded";
    }
    if (head.size() > TAR_MAGIC && head.substr(TAR_MAGIC).starts_with("ustar")) {
        return "a tar archive; unpack it first, nothing is loaded";
    }
    if (text_encoding_of(head) == TEXT_UTF32) return "text in UTF-32; convert it to UTF-8 first, nothing is loaded";
    return is_binary(head) ? "binary and no log; nothing is loaded" : "";
}

}  // namespace veldar::tool

#include "tools/veldar/store/foreign_content.h"

#include <algorithm>

namespace veldar::tool {

namespace {

using namespace std::string_view_literals;

struct magic_bytes {
    std::string_view bytes, name;
};

constexpr magic_bytes COMPRESSED[] = {
    {"\xFD"sv
     "7zXZ\0"sv,
     "xz"},
    {"BZh"sv, "bzip2"},
    {"\x28\xB5\x2F\xFD"sv, "zstd"},
    {"\x04\x22\x4D\x18"sv, "lz4"},
    {"LZIP\x01"sv, "lzip"},
    {"\x1F\x9D"sv, "compress"},
    {"7z\xBC\xAF\x27\x1C"sv, "7z"},
    {"PK\x03\x04"sv, "zip"},
    {"\x1F\x8B\x08"sv, "gzip"},  // a second time
};
constexpr size_t BZIP2_BLOCK = 4;  // behind "BZh9"
constexpr size_t TAR_MAGIC = 257;

// "BZh" alone may begin a word.
bool is_bzip2(std::string_view head) {
    return head.substr(std::min(head.size(), BZIP2_BLOCK)).starts_with("1AY&SY") ||
           head.substr(std::min(head.size(), BZIP2_BLOCK)).starts_with("\x17\x72\x45\x38\x50\x90");
}

std::string_view compression_of(std::string_view head) {
    for (const magic_bytes& one : COMPRESSED) {
        if (head.starts_with(one.bytes) && (one.name != "bzip2" || is_bzip2(head))) return one.name;
    }
    return {};
}

// Text in UTF-16 has a mark at its front, or a NUL in every second place.
bool is_utf16(std::string_view head) {
    if (head.starts_with("\xFF\xFE"sv) || head.starts_with("\xFE\xFF"sv)) return true;
    size_t nuls[2] = {};
    for (size_t i = 0; i < head.size(); i++) nuls[i % 2] += head[i] == '\0' ? 1 : 0;
    const auto [few, many] = std::minmax(nuls[0], nuls[1]);
    return head.size() >= 4 && many * 5 >= head.size() * 2 && few * 20 <= head.size();
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
    if (!compression.empty()) return std::string(compression) + "-compressed; decompress it first, nothing is loaded";
    if (head.size() > TAR_MAGIC && head.substr(TAR_MAGIC).starts_with("ustar")) {
        return "a tar archive; unpack it first, nothing is loaded";
    }
    if (is_utf16(head)) return "text in UTF-16; convert it to UTF-8 first, nothing is loaded";
    return is_binary(head) ? "binary and no log; nothing is loaded" : "";
}

}  // namespace veldar::tool

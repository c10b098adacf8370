// Texts numbered in order of first appearance.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace veldar::tool {

// Texts by number, in order of first appearance.
struct text_table {
    struct hash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    std::unordered_map<std::string, uint32_t, hash, std::equal_to<>> numbers;
    std::vector<const std::string*> texts;
};
uint32_t text_number(text_table* table, std::string_view text);

}  // namespace veldar::tool

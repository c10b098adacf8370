// The distinct terms of one event: the words of its text and its fields as `name::value`.
//
// Folding, the same for events and for queries: ASCII letters in lower case, a NUL byte becomes a blank, all other
// bytes (also invalid UTF-8) stay.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veldar::tool {

inline constexpr size_t TERM_MAX = 2047;  // bytes; longer terms are cut

// The rule that cuts a text into words: a word is a run of [A-Za-z0-9_.-] without the `_`, `.` and `-` at its ends.
inline constexpr std::array<bool, 256> WORD_BYTES = [] {
    std::array<bool, 256> table{};
    for (const char c : std::string_view("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_.-")) {
        table[static_cast<unsigned char>(c)] = true;
    }
    return table;
}();
inline bool in_word(char c) {
    return WORD_BYTES[static_cast<unsigned char>(c)];
}
inline bool is_word_edge(char c) {
    return c == '_' || c == '.' || c == '-';
}
// The next word at or behind *at, which then stands behind its run; empty when there is none.
inline std::string_view next_word(const char** at, const char* end) {
    const char* here = *at;
    while (here < end && (!in_word(*here) || is_word_edge(*here))) here++;
    const char* const first = here;
    while (here < end && in_word(*here)) here++;
    const char* last = here;
    while (last > first && is_word_edge(last[-1])) last--;
    *at = here;
    return {first, static_cast<size_t>(last - first)};
}
// Whether no word of the text goes on over this place, which is in front of its words or behind them.
bool word_begins_at(std::string_view text, size_t at);
bool word_ends_at(std::string_view text, size_t at);

// Reused from event to event: once warm, nothing is allocated per term. For one thread.
struct term_set {
    std::vector<char> arena;  // the terms, one behind another
    size_t arena_used = 0;
    std::vector<uint32_t> lengths;  // of the terms
    size_t may_repeat = 0;          // so many first terms may be there twice, which saves looking for each of them

    struct entry {
        size_t offset;  // of a term that is looked for
        uint32_t length;
        uint32_t hash;
        uint32_t slot;  // its place in `slots`, for the reset
    };
    std::vector<entry> entries;
    std::vector<uint32_t> slots;  // entry index + 1, 0 = free
    size_t slot_mask =
        0;  // slots in use - 1: small again after each reset, so that one huge event costs the next nothing
    std::vector<std::string_view> views;
};

// Forgets the terms, in time linear in their number.
void term_set_reset(term_set* set);
// Adds every word of the text, folded, then cut to TERM_MAX.
void term_set_add_text(term_set* set, std::string_view text);
// Adds the parts of the words that have several: what stands between `_`, `.` and `-`, and of that the runs of letters,
// cut between capitals ("dfs.DataNode2": dfs, datanode2, data, node). Those of one byte or without a letter are left out.
void term_set_add_parts(term_set* set, std::string_view text);
// Adds the term `name::value`, both folded, cut to TERM_MAX. Nothing for an empty name or value, or when the name
// leaves no room for a byte of the value.
void term_set_add_field(term_set* set, std::string_view name, std::string_view value);
// The terms in order of their first appearance. The views are valid until the set changes.
std::span<const std::string_view> term_set_terms(term_set* set);

// Appends them: their bytes one behind another, and their lengths.
void term_set_append(const term_set& set, std::vector<char>* texts, std::vector<uint32_t>* lengths);

// `value` folded as above, not cut.
std::string fold_value(std::string_view value);
// The same into a text that keeps its allocation.
void fold_value(std::string_view value, std::string* out);
// Exactly the term that term_set_add_field adds; empty when it adds none.
std::string fold_field_term(std::string_view name, std::string_view value);

}  // namespace veldar::tool

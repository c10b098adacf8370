#include "tools/libveldar/formats/terms.h"

#include <algorithm>
#include <cstring>

#include "libzero/endian.h"

namespace veldar::tool {
namespace {

constexpr size_t FIRST_SLOTS = 256;
constexpr size_t SLACK = 8;  // bytes behind a term in the arena that may be read as one word

constexpr uint64_t EACH_BYTE = 0x0101010101010101;

// Eight bytes at once: A to Z get the bit that makes them small, a NUL the one that makes it a blank; bytes above 127
// stay.
uint64_t fold_word(uint64_t word) {
    uint64_t low = word & (EACH_BYTE * 0x7f);
    uint64_t nul = ~(word | (low + EACH_BYTE * 0x7f)) & (EACH_BYTE * 0x80);
    uint64_t from_a = low + EACH_BYTE * (0x80 - 'A');
    uint64_t past_z = low + EACH_BYTE * (0x7f - 'Z');
    uint64_t upper = ~word & (from_a ^ past_z) & (EACH_BYTE * 0x80);
    return word | (upper | nul) >> 2;
}

template <typename Word>
void fold_word_at(char* to, const char* from) {
    Word word;
    memcpy(&word, from, sizeof word);
    word = static_cast<Word>(fold_word(word));
    memcpy(to, &word, sizeof word);
}

// Folds `size` bytes. The last word overlaps the one before, so that no byte outside is touched.
void fold_into(char* to, const char* from, size_t size) {
    if (size >= 8) {
        for (size_t i = 0; i + 8 < size; i += 8) fold_word_at<uint64_t>(to + i, from + i);
        fold_word_at<uint64_t>(to + size - 8, from + size - 8);
    } else if (size >= 4) {
        fold_word_at<uint32_t>(to, from);
        fold_word_at<uint32_t>(to + size - 4, from + size - 4);
    } else {
        for (size_t i = 0; i < size; i++) fold_word_at<uint8_t>(to + i, from + i);
    }
}

uint64_t mix(uint64_t a, uint64_t b) {
    auto product = static_cast<unsigned __int128>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

// A multiply-and-fold hash over words; up to SLACK bytes after the text are read, never used.
uint32_t hash_term(const char* text, size_t size) {
    constexpr uint64_t KEY_A = 0x9e3779b97f4a7c15, KEY_B = 0xe7037ed1a0b428db;
    uint64_t hash = size * KEY_B;
    size_t i = 0;
    for (; i + 8 <= size; i += 8) hash = mix(hash ^ load_le64(text + i), KEY_A);
    uint64_t tail = load_le64(text + i) & ((uint64_t{1} << (size - i) * 8) - 1);
    hash = mix(hash ^ tail, KEY_B);
    return static_cast<uint32_t>(hash ^ hash >> 32);
}

void reserve_arena(term_set* set, size_t more) {
    size_t need = set->arena_used + more + SLACK;
    if (need > set->arena.size()) set->arena.resize(std::max(need, set->arena.size() * 2));
}

uint32_t free_slot(const term_set* set, uint32_t hash) {
    size_t slot = hash & set->slot_mask;
    while (set->slots[slot] != 0) slot = (slot + 1) & set->slot_mask;
    return static_cast<uint32_t>(slot);
}

void double_slots(term_set* set) {
    for (const term_set::entry& entry : set->entries) set->slots[entry.slot] = 0;
    size_t count = set->slot_mask == 0 ? FIRST_SLOTS : (set->slot_mask + 1) * 2;
    if (set->slots.size() < count) set->slots.resize(count);
    set->slot_mask = count - 1;
    uint32_t number = 0;
    for (term_set::entry& entry : set->entries) {
        entry.slot = free_slot(set, entry.hash);
        set->slots[entry.slot] = ++number;
    }
}

// Whether the set has not looked for the `size` bytes at the arena's end before.
bool is_new_term(term_set* set, size_t size) {
    if ((set->entries.size() + 1) * 2 > set->slot_mask) double_slots(set);
    const char* text = set->arena.data() + set->arena_used;
    uint32_t hash = hash_term(text, size);
    size_t slot = hash & set->slot_mask;
    for (; set->slots[slot] != 0; slot = (slot + 1) & set->slot_mask) {
        const term_set::entry& other = set->entries[set->slots[slot] - 1];
        if (other.hash == hash && other.length == size && memcmp(set->arena.data() + other.offset, text, size) == 0)
            return false;
    }
    set->entries.push_back({set->arena_used, static_cast<uint32_t>(size), hash, static_cast<uint32_t>(slot)});
    set->slots[slot] = static_cast<uint32_t>(set->entries.size());
    return true;
}

// Keeps the `size` bytes at the arena's end as a term unless the set is known to have it.
void commit_term(term_set* set, size_t size) {
    if (set->lengths.size() >= set->may_repeat && !is_new_term(set, size)) return;
    set->lengths.push_back(static_cast<uint32_t>(size));
    set->arena_used += size;
}

bool is_capital(char c) {
    return c >= 'A' && c <= 'Z';
}
bool is_letter(char c) {
    return is_capital(c) || (c >= 'a' && c <= 'z');
}

// Where the part ends that begins with a letter of the word at `begin`: a run of small letters behind at most one
// capital, or one of capitals, whose last one belongs to the small letters behind it.
size_t part_end(std::string_view word, size_t begin) {
    size_t end = begin;
    while (end < word.size() && is_capital(word[end])) end++;
    if (end - begin > 1) return end < word.size() && is_letter(word[end]) ? end - 1 : end;
    while (end < word.size() && is_letter(word[end]) && !is_capital(word[end])) end++;
    return end;
}

void add_part(term_set* set, std::string_view part) {
    const size_t size = std::min(part.size(), TERM_MAX);
    if (size < 2) return;
    reserve_arena(set, size);
    fold_into(set->arena.data() + set->arena_used, part.data(), size);
    commit_term(set, size);
}

// The runs of letters of a part, cut between capitals.
void add_smaller_parts(term_set* set, std::string_view part) {
    for (size_t begin = 0; begin < part.size();) {
        if (!is_letter(part[begin])) {
            begin++;
            continue;
        }
        const size_t size = part_end(part, begin) - begin;
        if (size < part.size()) add_part(set, part.substr(begin, size));
        begin += size;
    }
}

}  // namespace

bool word_begins_at(std::string_view text, size_t at) {
    while (at > 0 && is_word_edge(text[at - 1])) at--;
    return at == 0 || !in_word(text[at - 1]);
}

bool word_ends_at(std::string_view text, size_t at) {
    while (at < text.size() && is_word_edge(text[at])) at++;
    return at == text.size() || !in_word(text[at]);
}

void term_set_reset(term_set* set) {
    for (const term_set::entry& entry : set->entries) set->slots[entry.slot] = 0;
    set->entries.clear();
    set->lengths.clear();
    set->arena_used = 0;
    set->slot_mask = set->slots.empty() ? 0 : FIRST_SLOTS - 1;
}

void term_set_add_text(term_set* set, std::string_view text) {
    reserve_arena(set, text.size());
    const char* at = text.data();
    const char* const end = at + text.size();
    for (std::string_view word; !(word = next_word(&at, end)).empty();) {
        const size_t size = std::min(word.size(), TERM_MAX);
        fold_into(set->arena.data() + set->arena_used, word.data(), size);
        commit_term(set, size);
    }
}

void term_set_add_parts(term_set* set, std::string_view text) {
    const char* at = text.data();
    const char* const end = at + text.size();
    for (std::string_view word; !(word = next_word(&at, end)).empty();) {
        for (size_t begin = 0; begin < word.size();) {
            const size_t edge = std::min(word.find_first_of("_.-", begin), word.size());
            const std::string_view part = word.substr(begin, edge - begin);
            const bool has_letter = std::any_of(part.begin(), part.end(), is_letter);
            if (has_letter && part.size() < word.size()) add_part(set, part);
            if (has_letter) add_smaller_parts(set, part);
            begin = edge + 1;
        }
    }
}

void term_set_add_field(term_set* set, std::string_view name, std::string_view value) {
    if (name.empty() || value.empty() || name.size() + 2 >= TERM_MAX) return;
    value = value.substr(0, TERM_MAX - name.size() - 2);
    size_t size = name.size() + 2 + value.size();
    reserve_arena(set, size);
    char* to = set->arena.data() + set->arena_used;
    fold_into(to, name.data(), name.size());
    memcpy(to + name.size(), "::", 2);
    fold_into(to + name.size() + 2, value.data(), value.size());
    commit_term(set, size);
}

std::span<const std::string_view> term_set_terms(term_set* set) {
    set->views.clear();
    const char* text = set->arena.data();
    for (const uint32_t length : set->lengths) {
        set->views.emplace_back(text, length);
        text += length;
    }
    return set->views;
}

void term_set_append(const term_set& set, std::vector<char>* texts, std::vector<uint32_t>* lengths) {
    texts->insert(texts->end(), set.arena.data(), set.arena.data() + set.arena_used);
    lengths->insert(lengths->end(), set.lengths.begin(), set.lengths.end());
}

void fold_value(std::string_view value, std::string* out) {
    out->resize(value.size());
    if (!value.empty()) fold_into(out->data(), value.data(), value.size());
}

std::string fold_value(std::string_view value) {
    std::string folded;
    fold_value(value, &folded);
    return folded;
}

std::string fold_field_term(std::string_view name, std::string_view value) {
    if (name.empty() || value.empty() || name.size() + 2 >= TERM_MAX) return {};
    return fold_value(name) + "::" + fold_value(value.substr(0, TERM_MAX - name.size() - 2));
}

}  // namespace veldar::tool

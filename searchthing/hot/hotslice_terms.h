// The term table of a hot slice: a hash over the terms, their records and their bytes, as hotslice_internal.h draws
// them.
#pragma once

#include <xxhash.h>

#include <cstdint>
#include <cstring>
#include <span>

#include "libzero/resource.h"
#include "searchthing/hot/hotslice.h"

namespace veldar {

inline constexpr uint32_t HOT_NO_VALUE = 0xFFFFFFFF;

struct hot_slot_t {
    uint32_t hash;
    uint32_t term_plus_1;
};

struct hot_term_t {
    uint32_t offset;  // of its bytes in the lexicon arena
    uint32_t length;
    uint32_t newest;    // value slot of its newest posting; metric mode: of the newest event that it was put for
    uint32_t postings;  // nodes of this term
};

struct hot_terms_t {
    uint32_t capacity = 0;  // a power of two
    uint32_t count = 0;
    buffer<hot_term_t> terms;
    uint32_t mask = 0;         // slots - 1
    buffer<hot_slot_t> slots;  // two a term
    uint32_t text_capacity = 0;
    uint32_t text_used = 0;
    buffer<char> text;  // and 8 bytes more, so that the last term can be loaded in words
};
bool hot_terms_allocate(hot_terms_t& table, uint32_t max_terms, uint32_t text_bytes);
// Empties the table. One of millions of slots with few terms in them is not touched as a whole.
void hot_terms_clear(hot_terms_t& table);

inline bool hot_same_term(const hot_terms_t& table, hot_slot_t slot, const char* text, uint32_t length, uint32_t hash) {
    if (slot.hash != hash) return false;
    const hot_term_t& term = table.terms[slot.term_plus_1 - 1];
    return term.length == length && std::memcmp(table.text.data() + term.offset, text, length) == 0;
}

// The term's slot, or the empty slot where it belongs: the table is at most half full, so one of them is found.
inline uint32_t hot_locate_term(const hot_terms_t& table, const char* text, uint32_t length, uint32_t hash) {
    const uint32_t mask = table.mask;
    uint32_t slot = hash & mask;
    if (table.slots[slot].term_plus_1 == 0 || hot_same_term(table, table.slots[slot], text, length, hash)) return slot;
    const uint32_t step = XXH32(text, length, hash) | 1;
    do {
        slot = (slot + step) & mask;
    } while (table.slots[slot].term_plus_1 != 0 && !hot_same_term(table, table.slots[slot], text, length, hash));
    return slot;
}

inline uint32_t hot_add_term(hot_terms_t& table, uint32_t slot, const char* text, uint32_t length, uint32_t hash) {
    const uint32_t id = table.count++;
    table.terms[id] = {.offset = table.text_used, .length = length, .newest = HOT_NO_VALUE, .postings = 0};
    std::memcpy(table.text.data() + table.text_used, text, length);
    table.text[table.text_used + length] = '\0';
    table.text_used += length + 1;
    table.slots[slot] = {.hash = hash, .term_plus_1 = id + 1};
    return id;
}

// Takes the newest terms away again, down to `count`. The last one in is the first one out, so that no probe sequence
// of a term that stays is broken.
void hot_remove_newest_terms(hot_terms_t& table, uint32_t count);

inline bool hot_lexicon_holds(const hot_terms_t& table, uint64_t more) {
    return table.text_used + more < table.text_capacity;
}

// Distinct keywords among those that are not terms yet, with the arena bytes that they need. May throw std::bad_alloc.
struct hot_new_terms_t {
    uint64_t count = 0;
    uint64_t bytes = 0;
};
hot_new_terms_t hot_count_new_terms(const hot_terms_t& table, std::span<const hot_keyword_t> keywords);
// Whether the new terms fit: 0, HOT_PUT_RC_TERMS_FULL or HOT_PUT_RC_LEXICON_FULL.
[[nodiscard]] st_hotput_rc_t hot_check_new_terms(const hot_terms_t& table, const hot_new_terms_t& fresh);

}  // namespace veldar

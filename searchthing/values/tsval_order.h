// Orders of value records, and the in-place removal of duplicates from sorted answers. Newest first is the order of the
// engine's answers: every comparison of times puts the later one first. The compare functions have the shape of
// qsort's; the sorts are stable but for st_enum_answer_qsort, whose equal elements st_enum_gather adds up, and need no
// memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libzero/endian.h"
#include "searchthing/lexicon/term_choice.h"
#include "searchthing/values/st_tsval.h"

namespace veldar {

struct st_ntsval {  // the same key, both words big-endian
    be32 time;
    be32 address;
};
static_assert(sizeof(st_ntsval) == 8);
struct cs_tid_offset_t {
    uint32_t term_id;
    uint32_t offset;
};
struct st_revsort {
    const char* text;
    uint64_t payload;
};
static_assert(sizeof(st_revsort) == 16);

// Time descending, then address descending.
int st_tsval_compare(const void* a, const void* b);
void st_tsval_qsort(st_tsval* values, uint32_t count);
void st_tsval_ptr_qsort(st_tsval** values, uint32_t count);

// Address (the dimension set's id) descending, then time descending; the second pair goes on by subsecond descending.
int st_tsval_compare_dimsets(const void* a, const void* b);
void st_tsval_ptr_qsort_dimsets(st_tsval** values, uint32_t count);
int st_tsval_compare_dimsets_with_subsecond(const void* a, const void* b);
void st_tsval_ptr_qsort_dimsets_with_subsecond(st_tsval** values, uint32_t count);

// The order of st_tsval_compare over keys alone, in host and in file byte order.
int tsval_key_compare(const st_tsval_encoded* a, const st_tsval_encoded* b);
void st_tsval_enc_ptr_qsort(st_tsval_encoded** keys, uint32_t count);
int st_ntsval_compare(const void* a, const void* b);

void st_tid_offset_ptr_qsort(cs_tid_offset_t** entries, uint32_t count);  // term id ascending
void st_unsigned_qsort(uint32_t* numbers, size_t count);                  // ascending
void st_revsort_qsort(st_revsort* records, uint32_t count);               // byte order of the text
void st_enum_answer_qsort(st_enum_answer* answers, uint32_t count);       // byte order of the term

// Drops the values of a sorted array whose key equals that of the value before; returns the new count. A value that
// moves down moves its key (time and address) alone: the other fields of the kept slots mean nothing afterwards.
int st_tsval_gather(st_tsval* values, int count);
// Folds the answers of a sorted array with equal terms into one whose counts are added; returns the new count.
int st_enum_gather(st_enum_answer* answers, int count);

}  // namespace veldar

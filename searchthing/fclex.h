// Front-coded lexicon: the sorted dictionary of a slice's terms.
//
// (the owner of this file draws the byte table here)
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "libzero/resource.h"
#include "searchthing/query_info.h"
#include "searchthing/warm_rc.h"

namespace veldar {

inline constexpr uint32_t ST_MAX_TERM_LENGTH = 2047;
inline constexpr uint32_t ST_TERM_BUFFER_SIZE = 2048;

struct st_fclex_body {
    uint8_t bytes[12];  // terms, tperb, uncompressed size; the offset table and the blocks follow
};

struct st_fclex_handle {
    const uint8_t* body = nullptr;           // memory mode: the caller's body; file mode: the owned 16-byte copy
    const uint8_t* block_offsets = nullptr;  // memory mode only
    const uint8_t* blocks = nullptr;         // memory mode only
    int32_t fd = -1;
    int64_t fclex_offset = -1;
    uint8_t* block_cache = nullptr;          // file mode only
    uint64_t block_cache_size = 0;
    // Appended to the fields that the handle has always had:
    uint64_t body_limit = 0;                 // memory mode: bytes of the body that may be touched; 0 = unlimited
    buffer<uint8_t> owned_body;
    buffer<uint8_t> owned_cache;
};
using FCLEX = st_fclex_handle;

struct st_enum_answer {
    char term[ST_TERM_BUFFER_SIZE];
    uint32_t id;  // a term id, or an event count once a directory has replaced it
};
static_assert(sizeof(st_enum_answer) == 2052);

// -1 stops the walk; any other result is added to the walk's total.
using st_term_fn = int (*)(int32_t id, const char* term, size_t length, void* context);

enum lookup_type_t : uint32_t { LOOKUP_BY_TEXT = 0, LOOKUP_BY_POSITION = 1 };
union criteria_u {
    const char* text;
    uint32_t position;
};

FCLEX* st_fclex_open(const void* body);
// As st_fclex_open, and no byte of the body at or past `body.size()` is ever touched.
FCLEX* _fclex_open_bounded(std::span<const uint8_t> body);
FCLEX* st_fclex_open_fd(int fd, int64_t offset);
void st_fclex_close(FCLEX* lex);

int32_t st_fclex_get(FCLEX* lex, const char* text, st_query_info_t* stats);
// st_fclex_get that tells "absent" from "unreadable": 0 and the id, -38 for a term that is not there, or the failure.
int _fclex_get_with_status(FCLEX* lex, const char* text, uint32_t* id, st_query_info_t* stats, warm_rc_t* rc);
int st_fclex_get_term_from_id(FCLEX* lex, uint32_t id, char* out, size_t out_size, st_query_info_t* stats, warm_rc_t* rc);
int64_t st_fclex_apply(FCLEX* lex, const char* prefix, st_term_fn fn, void* context, st_query_info_t* stats);
int st_fclex_enum(FCLEX* lex, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag);
uint32_t st_fclex_terms(const FCLEX* lex);
uint32_t st_fclex_blocksize(const FCLEX* lex);
uint32_t st_fclex_how_many_blocks(const FCLEX* lex);
uint32_t st_fclex_uncompressed_size(const FCLEX* lex);
uint64_t st_fclex_size(FCLEX* lex);
uint64_t st_fclex_size_fd(int fd, int64_t offset);
void st_fclex_relocate(FCLEX* lex, void* new_body);
// Upper bound of the bytes that st_fclex_create writes for `num_terms` terms of `total_length` bytes, terminator included.
uint64_t fclex_body_bound(uint64_t num_terms, uint64_t total_length, uint32_t tperb);
FCLEX* st_fclex_create(void* body, uint64_t size, const char* const* sorted_terms, uint32_t num_terms, uint32_t tperb,
                       uint32_t uncompressed_size);
int st_fclex_dump_block(void* output, const FCLEX* lex, uint32_t block);

}  // namespace veldar

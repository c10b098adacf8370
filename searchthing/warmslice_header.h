// Warm slice header: the bytes, what each magic and flag implies, and where every section lies.
//
// (the owner of this file draws the byte table here)
#pragma once

#include <cstddef>
#include <cstdint>

#include "libzero/endian.h"
#include "libzero/resource.h"
#include "searchthing/tsidx_names.h"
#include "searchthing/warm_rc.h"

namespace veldar {

struct st_warm_slice_body {
    char magic[8];
    be32 num_values;
    be32 num_postings;
    be32 num_terms;
    be32 m_size;
    be32 s_size;
    be32 st_size;
    be32 h_size;
    be32 d_size;
    be32 m_nbits;
    be32 s_nbits;
    be32 st_nbits;
    be32 h_nbits;
    be32 d_nbits;
    be32 earliest;       // signed; rev0 and rev1 from here on
    be32 latest;         // signed
    uint8_t reserved68[4];
    be64 wflags;
    be32 seek_addr_min;  // rev1 from here on
    be32 seek_addr_max;
    be64 cstore_ref;     // signed
    be32 num_dimsets;
    uint8_t reserved100[20];
};
static_assert(sizeof(st_warm_slice_body) == 120 && alignof(st_warm_slice_body) == 1);
static_assert(offsetof(st_warm_slice_body, earliest) == 60 && offsetof(st_warm_slice_body, wflags) == 72);
static_assert(offsetof(st_warm_slice_body, cstore_ref) == 88 && offsetof(st_warm_slice_body, num_dimsets) == 96);

inline constexpr size_t WARM_HEADER_MAX_SIZE = 120;

enum warm_flag_t : uint64_t {
    WARM_FLAG_PLO_TAG1 = 0x1,
    WARM_FLAG_VALUES_PACKED = 0x2,
    WARM_FLAG_PREAMBLES = 0x4,
    WARM_FLAG_PLO_TAG2 = 0x8,
    WARM_FLAG_PLO32 = 0x10,
    WARM_FLAG_MS_REQUESTED = 0x20,
    WARM_FLAG_MS_PRESENT = 0x40,
};

enum warm_meta_type_t : uint32_t { META_COUNT_ONLY = 0, META_FULL = 1, META_PACKED = 2 };

bool verify_magic(const st_warm_slice_body* h);
size_t warm_header_size_on_disk(const st_warm_slice_body* h);  // 60, 80 or 120
bool warm_header_is_legacy(const st_warm_slice_body* h);       // magic[0] is not '_'
bool warm_header_is_rev1(const st_warm_slice_body* h);         // "_TSIDX8", "_TSIDX9", "_MSIDX4"
bool st_warm_slice_is_msidx_with_dimsets(const st_warm_slice_body* h);
bool st_warm_slice_is_msidx_v1(const st_warm_slice_body* h);
bool st_warm_slice_is_msidx(const st_warm_slice_body* h);
bool st_warm_slice_is_msidx_with_cstore(const st_warm_slice_body* h);
bool st_warm_slice_is_msidx_v2(const st_warm_slice_body* h);
bool warm_header_is_enabled(const st_warm_slice_body* h, uint64_t bits);
void warm_header_set_flag(st_warm_slice_body* h, uint64_t bits, bool on);

uint32_t warm_header_meta_count_nbits(const st_warm_slice_body* h);
uint32_t warm_header_meta_time_nbits(const st_warm_slice_body* h);
uint32_t warm_header_meta_nbits(const st_warm_slice_body* h);
uint32_t warm_header_seek_addr_nbits(const st_warm_slice_body* h);
uint32_t get_nbits_d(const st_warm_slice_body* h);
uint32_t warm_header_meta_type(const st_warm_slice_body* h);
uint32_t _get_plo_size(const st_warm_slice_body* h);      // 4 or 8
uint32_t warm_header_plo_tag_bits(const st_warm_slice_body* h);  // 2, 1 or 0
bool _has_reverse_lex(const st_warm_slice_body* h);

uint64_t warm_next_section(uint64_t end);  // end - end % 8 + 8
uint64_t warm_header_tsval_encoded_array_size(const st_warm_slice_body* h);
uint64_t warm_header_size_metadata(const st_warm_slice_body* h);

uint64_t _offset_values(const st_warm_slice_body* h);
uint64_t _offset_m_array(const st_warm_slice_body* h);
uint64_t _offset_s_array(const st_warm_slice_body* h);
uint64_t _offset_st_array(const st_warm_slice_body* h);
uint64_t _offset_h_array(const st_warm_slice_body* h);
uint64_t _offset_d_array(const st_warm_slice_body* h);
uint64_t _offset_pl_offs(const st_warm_slice_body* h);
uint64_t _offset_metadata(const st_warm_slice_body* h);
uint64_t _offset_fclex(const st_warm_slice_body* h);

// All nine at once, from one pass over the header.
uint64_t st_warm_header_get_offsets(const st_warm_slice_body* h, uint64_t* values, uint64_t* m, uint64_t* s, uint64_t* st,
                                    uint64_t* host, uint64_t* d, uint64_t* pl_offs, uint64_t* metadata, uint64_t* fclex);
int st_warm_slice_offsets(int fd, uint64_t* values, uint64_t* m, uint64_t* s, uint64_t* st, uint64_t* host, uint64_t* d,
                          uint64_t* pl_offs, uint64_t* metadata, uint64_t* fclex);

buffer<st_warm_slice_body> warm_header_alloc(uint32_t count, warm_rc_t* rc);
void warm_header_init(st_warm_slice_body* h, const char* magic);
int warm_header_read(int fd, st_warm_slice_body* h, warm_rc_t* rc);
int warm_header_write(int fd, const st_warm_slice_body* h, warm_rc_t* rc);
void warm_header_copy(st_warm_slice_body* dst, const st_warm_slice_body* src);

uint64_t warm_header_posting_lists_size(const st_warm_slice_body* h, int fd, warm_rc_t* rc);  // all-ones on failure
uint64_t _offset_dimsets(const st_warm_slice_body* h, int fd, uint64_t posting_lists_start, warm_rc_t* rc);

// ceil(num_values * nbits / 8) as the byte size of a companion array; -36 in rc and all-ones when it does not fit 32 bits.
uint64_t _compressed_size(uint32_t num_values, uint32_t nbits, warm_rc_t* rc);

}  // namespace veldar

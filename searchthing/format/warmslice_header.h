// Warm slice header: the bytes, what each magic and flag implies, and where every section lies.
//
// Every integer is big-endian, in memory as in the file. u = unsigned, s = signed.
//
//   offset  size  field           meaning
//   0       8     magic           7 ASCII characters and a NUL
//   8       4 u   num_values      event values
//   12      4 u   num_postings    postings in all posting lists
//   16      4 u   num_terms       lexicon terms = posting-list offset entries = metadata entries
//   20      4 u   m_size          bytes of the m array (measures)
//   24      4 u   s_size          bytes of the s array (sources)
//   28      4 u   st_size         bytes of the st array (source types)
//   32      4 u   h_size          bytes of the h array (hosts)
//   36      4 u   d_size          bytes of the d array (deleted marks)
//   40      4 u   m_nbits         bits of an m entry; 64 marks a metric slice of the first generation
//   44      4 u   s_nbits         bits of an s entry
//   48      4 u   st_nbits        bits of an st entry
//   52      4 u   h_nbits         bits of an h entry
//   56      4 u   d_nbits         always 1
//   ------------- a legacy header ends here, after 60 bytes
//   60      4 s   earliest        earliest event time, seconds
//   64      4 s   latest          latest event time, seconds
//   68      4     reserved        zero
//   72      8 u   wflags          flag word
//   ------------- a rev0 header ends here, after 80 bytes
//   80      4 u   seek_addr_min   smallest event address
//   84      4 u   seek_addr_max   largest event address
//   88      8 s   cstore_ref      above 0: the slice has a column store
//   96      4 u   num_dimsets     dimension sets, which are also the value preambles of a metric slice
//   100     20    reserved        zero
//   ------------- a rev1 header ends here, after 120 bytes
//
//   magic    header  metadata type   offset entry  reverse lexicon  flavour
//   Veldar3  legacy  1 META_FULL     4             yes              events
//   Veldar4  legacy  1               8             yes              events
//   Veldar5  legacy  1               8             yes              events
//   Veldar6  legacy  1               8             no               events
//   VelLex1  legacy  0 COUNT_ONLY    8             no               lexicon
//   Msidx_2  legacy  1               8             no               metrics with dimension sets
//   _TSIDX7  rev0    2 META_PACKED   8, PLO32: 4   no               events
//   _MSIDX3  rev0    2               8, PLO32: 4   no               metrics with dimension sets
//   _TSIDX8  rev1    2               8, PLO32: 4   no               events
//   _TSIDX9  rev1    2               8, PLO32: 4   no               events
//   _MSIDX4  rev1    2               8, PLO32: 4   no               metrics with dimension sets, column store
//
//   wflags  name           meaning
//   0x01    PLO_TAG1       an offset entry carries a 1-bit encoding tag in its low bit
//   0x02    VALUES_PACKED  the values section is bit-packed
//   0x04    PREAMBLES      the values section begins with num_dimsets preambles
//   0x08    PLO_TAG2       an offset entry carries a 2-bit encoding tag; wins over PLO_TAG1
//   0x10    PLO32          offset entries have 4 bytes
//   0x20    MS_REQUESTED   millisecond subseconds were asked for
//   0x40    MS_PRESENT     at least one value has a subsecond
//
// Sections follow in this order. No offset is stored: all are computed from the header. "next" is warm_next_section of
// the end of the section above; "here" is that end itself.
//
//   section              starts  size
//   header               0       60, 80 or 120
//   values               next    warm_header_tsval_encoded_array_size
//   m, s, st, h, d       next    m_size, s_size, st_size, h_size, d_size
//   offsets of postings  next    num_terms x 4 or 8; 0 when num_values is 0
//   term metadata        next    warm_header_size_metadata
//   reverse term table   here    num_terms x 4, only with a reverse lexicon
//   lexicon              here    told by its own body
//   reverse lexicon      here    where the magic has one, at the lexicon's size rounded up to 4
//   posting lists        here    the last offset entry without its tag
//   dimension sets       next    told by their own header; metric slices only
//   column store         the end above rounded up to 8; only when cstore_ref > 0
//
// Nothing here trusts the header: any 120 bytes give defined sizes and offsets, which the opener compares with the
// file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libzero/endian.h"
#include "libzero/resource.h"
#include "searchthing/base/st_timeval.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

struct st_tsidx_write_options;
using TSWRITEOPTS = st_tsidx_write_options;

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
    be32 earliest;  // signed; rev0 and rev1 from here on
    be32 latest;    // signed
    uint8_t reserved68[4];
    be64 wflags;
    be32 seek_addr_min;  // rev1 from here on
    be32 seek_addr_max;
    be64 cstore_ref;  // signed
    be32 num_dimsets;
    uint8_t reserved100[20];
};
static_assert(sizeof(st_warm_slice_body) == 120 && alignof(st_warm_slice_body) == 1);
static_assert(offsetof(st_warm_slice_body, earliest) == 60 && offsetof(st_warm_slice_body, wflags) == 72);
static_assert(offsetof(st_warm_slice_body, cstore_ref) == 88 && offsetof(st_warm_slice_body, num_dimsets) == 96);

static_assert(offsetof(st_warm_slice_body, m_nbits) == 40 && offsetof(st_warm_slice_body, seek_addr_min) == 80);
inline constexpr size_t WARM_HEADER_MAX_SIZE = 120;
static_assert(sizeof(st_warm_slice_body) == WARM_HEADER_MAX_SIZE);
inline constexpr uint32_t MAX_COMPANION_NBITS = 31;  // an entry of 32 bits decodes as 0, so none is made that wide
inline constexpr uint32_t MILLISECOND_NBITS = 10;    // of the second packed field where it holds 0 to 999 milliseconds
static_assert(999 >> MILLISECOND_NBITS == 0);

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

// Whether the 8 bytes are one of the eleven magics above.
bool verify_magic(const st_warm_slice_body* h);
size_t warm_header_size_on_disk(const st_warm_slice_body* h);           // 60, 80 or 120
bool warm_header_is_legacy(const st_warm_slice_body* h);                // magic[0] is not '_'
bool warm_header_is_rev1(const st_warm_slice_body* h);                  // "_TSIDX8", "_TSIDX9", "_MSIDX4"
bool st_warm_slice_is_msidx_with_dimsets(const st_warm_slice_body* h);  // "Msidx_2", "_MSIDX3", "_MSIDX4"
bool st_warm_slice_is_msidx_v1(const st_warm_slice_body* h);            // no dimension sets, m_nbits 64
bool st_warm_slice_is_msidx(const st_warm_slice_body* h);               // either of the two above
bool st_warm_slice_is_msidx_with_cstore(const st_warm_slice_body* h);   // rev1 and cstore_ref > 0, whatever the flavour
bool st_warm_slice_is_msidx_v2(const st_warm_slice_body* h);            // dimension sets without a column store
// Whether any of the flags is set; a legacy header has none.
bool warm_header_is_enabled(const st_warm_slice_body* h, uint64_t bits);
// Sets or clears the flags; does nothing to a legacy header.
void warm_header_set_flag(st_warm_slice_body* h, uint64_t bits, bool on);

// Widths of bit-packed fields. The time width exists in rev0 and rev1 headers only (asserted), so ask for it only after
// the metadata type or a flag has told that the header is one.
uint32_t warm_header_meta_count_nbits(const st_warm_slice_body* h);
uint32_t warm_header_meta_time_nbits(const st_warm_slice_body* h);
uint32_t warm_header_meta_nbits(const st_warm_slice_body* h);  // count + 2 x time, at most 96
uint32_t warm_header_seek_addr_nbits(const st_warm_slice_body* h);
// Asserts that d_nbits is 1 and returns 1; a reader tests the field of its file first.
uint32_t get_nbits_d(const st_warm_slice_body* h);
uint32_t warm_header_meta_type(const st_warm_slice_body* h);     // a warm_meta_type_t
uint32_t _get_plo_size(const st_warm_slice_body* h);             // 4 or 8
uint32_t warm_header_plo_tag_bits(const st_warm_slice_body* h);  // 2, 1 or 0
bool _has_reverse_lex(const st_warm_slice_body* h);

// Where the section after one that ends at `end` begins: end - end % 8 + 8, so that an aligned end is followed by a gap
// of 8 bytes. This is not rounding up.
constexpr uint64_t warm_next_section(uint64_t end) {
    return end - end % 8 + 8;
}
static_assert(warm_next_section(80) == 88 && warm_next_section(81) == 88);
// Bytes of the values section, a multiple of 8. The size of VALUES_PACKED is computed modulo 2^32 bits, as files that
// exist were written; every other size in 64 bits.
uint64_t warm_header_tsval_encoded_array_size(const st_warm_slice_body* h);
uint64_t warm_header_size_metadata(const st_warm_slice_body* h);

// File offsets of the nine sections that the header alone places.
struct warm_section_offsets_t {
    uint64_t values, m, s, st, host, d, pl_offs, metadata, fclex;
};
// The one computation of section offsets; everything below that names an offset calls it.
warm_section_offsets_t warm_header_section_offsets(const st_warm_slice_body* h);

uint64_t _offset_values(const st_warm_slice_body* h);
uint64_t _offset_m_array(const st_warm_slice_body* h);
uint64_t _offset_s_array(const st_warm_slice_body* h);
uint64_t _offset_st_array(const st_warm_slice_body* h);
uint64_t _offset_h_array(const st_warm_slice_body* h);
uint64_t _offset_d_array(const st_warm_slice_body* h);
uint64_t _offset_pl_offs(const st_warm_slice_body* h);
uint64_t _offset_metadata(const st_warm_slice_body* h);
uint64_t _offset_fclex(const st_warm_slice_body* h);

// Fills all nine offsets (no pointer may be null) and returns the lexicon's.
uint64_t st_warm_header_get_offsets(const st_warm_slice_body* h, uint64_t* values, uint64_t* m, uint64_t* s,
                                    uint64_t* st, uint64_t* host, uint64_t* d, uint64_t* pl_offs, uint64_t* metadata,
                                    uint64_t* fclex);
// The same after reading the header of the file; 0, or the failure of warm_header_read with the outputs untouched.
[[nodiscard]] int st_warm_slice_offsets(int fd, uint64_t* values, uint64_t* m, uint64_t* s, uint64_t* st,
                                        uint64_t* host, uint64_t* d, uint64_t* pl_offs, uint64_t* metadata,
                                        uint64_t* fclex);

// Zeroed headers; empty with WARM_RC_NO_MEMORY "warm header alloc" when memory is short.
buffer<st_warm_slice_body> warm_header_alloc(uint32_t count, warm_rc_t* rc);
// Zeroes all 120 bytes and copies the magic, which has 7 characters (asserted).
void warm_header_init(st_warm_slice_body* h, const char* magic);
// Reads 120 bytes at offset 0, whatever the header kind, and checks the magic: 0, WARM_RC_READ "reading warm header",
// WARM_RC_SHORT_READ (file shorter than 120 bytes), WARM_RC_END_OF_FILE (empty file) or WARM_RC_BAD_MAGIC "header magic
// wrong".
[[nodiscard]] int warm_header_read(int fd, st_warm_slice_body* h, warm_rc_t* rc);
// Writes the size on disk at offset 0: 0 or WARM_RC_WRITE "writing warm header".
[[nodiscard]] int warm_header_write(int fd, const st_warm_slice_body* h, warm_rc_t* rc);
// Copies the source's size on disk and not a byte more: what follows may be a section.
void warm_header_copy(st_warm_slice_body* dst, const st_warm_slice_body* src);

// Bytes of all posting lists: the last offset entry, read from the file, without its tag. All-ones on failure: the
// status of the read "reading last plo entry", WARM_RC_CORRUPT "plo last term" for a slice without terms or an entry
// that is all-ones itself.
uint64_t warm_header_posting_lists_size(const st_warm_slice_body* h, int fd, warm_rc_t* rc);
// Where the dimension sets begin, given where the posting lists do. All-ones on failure, with the status above.
uint64_t _offset_dimsets(const st_warm_slice_body* h, int fd, uint64_t posting_lists_start, warm_rc_t* rc);
// Where the column store begins, given where the dimension sets end: the one section without a gap behind an end that
// is a multiple of 8.
constexpr uint64_t _offset_cstore(uint64_t dimsets_end) {
    return (dimsets_end + 7) & ~uint64_t{7};
}
static_assert(_offset_cstore(80) == 80 && _offset_cstore(81) == 88);

// Begins the header of a merge of `count` sources (at least 1, asserted): magic, times, addresses and flags, with
// everything that the merge counts still zero. `sources` and `fds` are the sources' headers and open files. The flags
// follow the write level of the options, with `advanced_postings` the four list encodings from level 4 on; a metric
// target has its own. 0, which carries the message "write level unsupported" where a level below 4 leaves flags out;
// WARM_RC_INVALID_ARGUMENT for sources that do not go together; WARM_RC_READ when the size of a source's lists cannot
// be read, with its index. After a failure the target is filled as far as it got.
[[nodiscard]] int warm_header_init_tgt_header_for_merge_srcs(st_warm_slice_body* target,
                                                             const st_warm_slice_body* sources, const int* fds,
                                                             uint32_t count, const TSWRITEOPTS* options,
                                                             uint32_t advanced_postings, warm_rc_t* rc);

// ceil(num_values * nbits / 8), the byte size of a companion array; WARM_RC_DOES_NOT_FIT in rc and all-ones when it
// does not fit 32 bits.
uint64_t _compressed_size(uint32_t num_values, uint32_t nbits, warm_rc_t* rc);

}  // namespace veldar

// Dimension sets: the combination of dimension terms that a metric event carries, and the metric names measured under
// it. Metric slices store each combination once, and every value points to one.
//
// A set is a run of 32-bit words; its terms are ids of first appearance in a hot slice, ids of the lexicon in a file:
//
//   word           name          meaning
//   0              _num_words    words of the set, this one included; at least 5, in a file at least 6
//   1              num_columns   optional columns at the end of the set
//   2              host          term of the host dimension; all-ones = none
//   3              source        term of the source dimension; all-ones = none
//   4              source_type   term of the source-type dimension; all-ones = none
//   5 ...          optional dimensions: other dimension terms, ascending once committed
//   ... last       optional columns: metric-name terms, ascending once committed
//
// The section of a slice, little-endian words:
//
//   offset    size   field
//   0         8      magic "DSMAGIC0"
//   8         4      N, number of sets
//   12        4      W, words of all sets
//   16        4 x N  end of each set: word offset in the body, just past it
//   16 + 4N   4 x W  body: the sets back to back, ascending by ds_dimset_compare, no two equal
//
// A set's id is its position in the section. Example: the sets {host 7, column 1} and {host 8, dimension 3, column 1}
// have the ends 6 and 13 and the body  6 1 7 -1 -1 1  7 1 8 -1 -1 3 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "libzero/endian.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

// The first words of a set; its optional fields follow in the same array.
struct ds_dimset_t {
    uint32_t _num_words;
    uint32_t num_columns;
    uint32_t host;
    uint32_t source;
    uint32_t source_type;
};
inline constexpr uint32_t DS_MIN_WORDS = 5;
inline constexpr uint32_t DS_MAX_DIMSET_SIZE_WORDS = 8192;
inline constexpr uint32_t DS_NO_TERM = 0xFFFFFFFF;
static_assert(sizeof(ds_dimset_t) == DS_MIN_WORDS * sizeof(uint32_t));
static_assert(offsetof(ds_dimset_t, host) == 2 * sizeof(uint32_t), "the fields of a set begin with its host");

// The set that begins at a word, and the words of a set. The array outlives the result.
inline ds_dimset_t* ds_dimset_at(uint32_t* words) {
    return reinterpret_cast<ds_dimset_t*>(words);
}
inline const ds_dimset_t* ds_dimset_at(const uint32_t* words) {
    return reinterpret_cast<const ds_dimset_t*>(words);
}
inline uint32_t* ds_dimset_words(ds_dimset_t* ds) {
    return reinterpret_cast<uint32_t*>(ds);
}
inline const uint32_t* ds_dimset_words(const ds_dimset_t* ds) {
    return reinterpret_cast<const uint32_t*>(ds);
}
// Whether the columns lie inside a set of this many words: what makes the views of a set from a file safe to read.
inline bool ds_dimset_is_sound(const ds_dimset_t* ds, uint32_t words) {
    return words >= DS_MIN_WORDS && ds->_num_words == words && ds->num_columns <= words - DS_MIN_WORDS;
}

// Building a set in zeroed memory that has room for one word more at each call.
void ds_dimset_init(ds_dimset_t* ds, uint32_t source, uint32_t source_type, uint32_t host);
void ds_dimset_add_optdim(ds_dimset_t* ds, uint32_t term);  // before the columns, of which the first moves to the end
void ds_dimset_add_optcol(ds_dimset_t* ds, uint32_t term);

// Views of a set. All but the first are null for a set without optional fields or without columns.
std::span<const uint32_t> ds_dimset_allfields(const ds_dimset_t* ds);   // words 2 to the end
std::span<const uint32_t> ds_dimset_opt_fields(const ds_dimset_t* ds);  // words 5 to the end
std::span<const uint32_t> ds_dimset_opt_dims(const ds_dimset_t* ds);    // words 5 up to the columns
std::span<const uint32_t> ds_dimset_all_dims(const ds_dimset_t* ds);    // words 2 up to the columns
std::span<const uint32_t> ds_dimset_opt_cols(const ds_dimset_t* ds);    // the columns
uint32_t ds_dimset_allfields_count(const ds_dimset_t* ds);

// -1, 0 or 1: by the columns, word by word and then the fewer first, then by all dimensions in the same way.
int ds_dimset_compare(const ds_dimset_t* a, const ds_dimset_t* b);
// Whether fields ascend, none of them twice.
bool ds_fields_ascend(std::span<const uint32_t> fields);
// Replaces every term by map[term], and with `sort` sorts the optional dimensions and the columns ascending, each by
// themselves. WARM_RC_CORRUPT for a set without columns ("ds_translate_term_ids fail") and for a term past the map.
[[nodiscard]] int ds_translate_term_ids(ds_dimset_t* ds, std::span<const uint32_t> map, warm_rc_t* rc, bool sort);
// 0, or WARM_RC_CAPACITY when the set has more than `cap_words` words; nothing is copied then.
[[nodiscard]] int ds_copy(ds_dimset_t* dst, uint32_t cap_words, const ds_dimset_t* ds);
// How the hot slice finds equal sets: where the probe of a table of `slots` begins, and its step.
uint32_t ds_dimset_hash(const ds_dimset_t* ds);
uint32_t ds_dimset_hash_step(const ds_dimset_t* ds);

// A section's header.
struct ds_header_t {
    char magic[8];
    uint8_t num_dimsets[4];
    uint8_t num_words[4];
    uint32_t dimsets() const { return load_le32(num_dimsets); }
    uint32_t words() const { return load_le32(num_words); }
};
inline constexpr uint32_t DS_HEADER_NUM_WORDS = 4;
static_assert(sizeof(ds_header_t) == DS_HEADER_NUM_WORDS * sizeof(uint32_t));
void ds_header_init(ds_header_t* header, uint32_t num_dimsets, uint32_t num_words);
bool ds_verify_magic(const ds_header_t* header);
// Bytes of a section.
inline uint64_t st_dimsets_size(uint32_t num_dimsets, uint32_t num_words) {
    return (uint64_t{num_words} + num_dimsets + DS_HEADER_NUM_WORDS) * sizeof(uint32_t);
}
// Writes a whole section of `n` ordered sets into a buffer of `size` bytes on an 8-byte boundary (asserted): 0, or
// WARM_RC_CAPACITY when it does not fit.
[[nodiscard]] int st_dimset_create(uint8_t* buffer, uint64_t size, const ds_dimset_t* const* sets, uint32_t n);

// One line for people: the id, the words, and at a verbosity above 2 dimensions and columns apart.
void ds_dimset_print(std::FILE* stream, const ds_dimset_t* ds, uint32_t id, int verbosity);

}  // namespace veldar

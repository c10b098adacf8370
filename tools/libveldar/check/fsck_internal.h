// What the files of the checker share.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "searchthing/postings/plist.h"
#include "searchthing/values/tsval.h"
#include "tools/libveldar/check/fsck_slice.h"

namespace veldar::tool {

// The events of a slice, decoded one by one wherever the section has their bytes.
struct fsck_values {
    std::span<const uint8_t> bytes;
    bool readable = false;  // the section is whole and its size is that of num_values values
    tsval_encoding_t encoding = TSVAL_PLAIN;
    uint32_t count = 0, preambles = 0;
    uint32_t time_nbits = 0, addr_nbits = 0, time_base = 0, addr_base = 0;
};
st_time_t fsck_value_time(const fsck_values& values, uint32_t id);
uint32_t fsck_value_address(const fsck_values& values, uint32_t id);
// Where the value's bits begin, in the file.
uint64_t fsck_value_offset(const fsck_values& values, const slice_image& image, uint32_t id);

// One list as far as it was decoded.
struct fsck_list {
    uint32_t count = 0;
    uint32_t first = 0, last = 0;   // value numbers, when count is not 0; DEDUP: `first` is the term that it names
    uint64_t sum = 0, squares = 0;  // of the numbers, mod 2^64: lists that agree in these and in `count` are the same
    uint8_t type = PLO_RLE;
    bool good = false;  // decoded to its end without a fault
};

struct fsck_state {
    const slice_image* image = nullptr;
    fsck_report* report = nullptr;
    lexicon_image lexicon;
    bool has_lexicon = false;
    fsck_values values;
    std::vector<fsck_list> lists;  // by term; empty when the offsets cannot be read
    bool metric = false;
};

// Throws std::bad_alloc or a failure_t when the status tells of the machine and not of the file.
void fsck_fail_unless_damage(const fsck_state& fsck, const warm_rc_t& rc);

void fsck_add(fsck_state* fsck, slice_section_t section, uint64_t offset, const char* what, std::string detail);
// The same for a term, whose text is looked up only when the finding is kept.
void fsck_add_term(fsck_state* fsck, slice_section_t section, uint64_t offset, uint32_t term, const char* what,
                   std::string detail);
void fsck_add_text(fsck_state* fsck, slice_section_t section, uint64_t offset, uint32_t term, std::string_view text,
                   const char* what, std::string detail);

// The terms of one block, one after another.
struct lexicon_block {
    const uint8_t* at = nullptr;
    const uint8_t* end = nullptr;
    uint32_t position = 0;  // of the next term in the block
    uint32_t count = 0;     // terms of the block
    uint32_t tperb = 0;
    uint32_t shared = 0;  // bytes that the last term was said to share with the one before
    std::string term;     // the last one
};
// False when the block does not lie inside the lexicon's data.
bool lexicon_block_begin(const lexicon_image& lexicon, uint32_t block, lexicon_block* out);
// Blocks that overlap could make a walk over all of them quadratic: it ends when the blocks walked have this many bytes
// together, several times those of the lexicon.
uint64_t lexicon_walk_budget(const lexicon_image& lexicon);
uint64_t lexicon_block_bytes(const lexicon_image& lexicon, uint32_t block);  // 0 for one outside the data
// Decodes the next term; null, or what is wrong with it.
const char* lexicon_block_next(lexicon_block* block);
// The text of a term, empty when it cannot be decoded.
std::string lexicon_image_term(const lexicon_image& lexicon, uint32_t term);

void fsck_check_header(fsck_state* fsck);
void fsck_check_name(fsck_state* fsck);  // after the values
void fsck_check_layout(fsck_state* fsck);
void fsck_check_values(fsck_state* fsck);
void fsck_check_lexicon(fsck_state* fsck, const lexicon_image& lexicon, slice_section_t section);
void fsck_check_lists(fsck_state* fsck);
void fsck_check_metadata(fsck_state* fsck);

// The entry of a term in the metadata, and the byte of the section at which it begins.
struct fsck_term_record {
    uint32_t count = 0;
    st_time_t earliest = 0, latest = 0;
    bool has_times = false;
};
fsck_term_record fsck_read_record(const fsck_state& fsck, uint32_t term, uint64_t* at);

// A slice of metrics whose values begin with preambles: runs, dimension sets, and what lists, metadata and columns must
// hold because of them.
void fsck_check_metrics(fsck_state* fsck);  // after the lists
// The columns against the runs in which they must have elements: by term, ascending, the numbers of first values and
// counts.
using fsck_columns = std::map<uint32_t, std::vector<std::pair<uint32_t, uint32_t>>>;
void fsck_check_cstore(fsck_state* fsck, const fsck_columns& columns);

}  // namespace veldar::tool

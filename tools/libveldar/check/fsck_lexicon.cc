// The checker's view of a lexicon: block by block, so that a damaged block does not hide the others.
#include <algorithm>
#include <cstring>

#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/lexicon/fclex.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

constexpr uint32_t MAX_SHARED = ST_MAX_TERM_LENGTH - 1;
// What a reader needs for a block of the longest terms, and the most that it takes.
constexpr uint64_t LONGEST_CODED_TERM = 2052, MAX_BLOCK_CACHE = uint64_t{1} << 30;

bool read_number(lexicon_block* block, uint32_t* number) {
    const uint32_t used = vbe_decode_bounded(number, block->at, block->end);
    block->at += used;
    return used != 0;
}

uint32_t block_end(const lexicon_image& lexicon, uint32_t block) {
    return load_be32(lexicon.table.data() + size_t{block} * 4);
}

uint32_t common_prefix(std::string_view a, std::string_view b) {
    return static_cast<uint32_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
}

uint64_t file_offset(const lexicon_image& lexicon, const uint8_t* at) {
    return lexicon.offset + sizeof(st_fclex_body) + lexicon.table.size() +
           static_cast<uint64_t>(at - lexicon.data.data());
}

void check_head(fsck_state* fsck, const lexicon_image& lexicon, slice_section_t section) {
    const uint32_t terms = fsck->image->header.num_terms.get();
    if (lexicon.terms != terms) {
        fsck_add(fsck, section, lexicon.offset, "number of terms differs from the header's",
                 std::to_string(lexicon.terms) + ", header " + std::to_string(terms));
    }
    if (lexicon.tperb == 1 && lexicon.terms > 1) {
        fsck_add(fsck, section, lexicon.offset + 4, "one term a block", "at least 2 are needed");
    }
    if (lexicon.tperb * LONGEST_CODED_TERM > MAX_BLOCK_CACHE) {
        fsck_add(fsck, section, lexicon.offset + 4, "too many terms a block", std::to_string(lexicon.tperb));
    }
}

// What one term must be besides decodable.
void check_term(fsck_state* fsck, slice_section_t section, uint64_t offset, uint32_t id, const lexicon_block& block,
                const std::string& before, bool has_before) {
    const std::string& term = block.term;
    const auto add = [&](const char* what, std::string detail) {
        fsck_add_text(fsck, section, offset, id, term, what, std::move(detail));
    };
    if (term.size() > ST_MAX_TERM_LENGTH) add("term too long", std::to_string(term.size()) + " bytes");
    if (term.find('\0') != std::string::npos) add("term with a NUL", "at byte " + std::to_string(term.find('\0')));
    if (!has_before) return;
    if (term <= before) add("terms do not ascend", "after \"" + fsck_term_text(before) + "\"");
    const bool first = block.position == 1;
    if (!first && term > before && common_prefix(term, before) != block.shared) {
        add("shared prefix is not the longest",
            std::to_string(block.shared) + " instead of " + std::to_string(common_prefix(term, before)));
    }
}

// One block; `before` is the last term that was read, and is left at this block's last.
void check_block(fsck_state* fsck, const lexicon_image& lexicon, slice_section_t section, uint32_t number,
                 std::string* before, bool* has_before) {
    lexicon_block block;
    const uint64_t entry = lexicon.offset + sizeof(st_fclex_body) + uint64_t{number} * 4;
    if (!lexicon_block_begin(lexicon, number, &block)) {
        const uint32_t start = number == 0 ? 0 : block_end(lexicon, number - 1), end = block_end(lexicon, number);
        fsck_add(fsck, section, entry, start >= end ? "block ends do not ascend" : "block outside the lexicon",
                 "block " + std::to_string(number) + " from " + std::to_string(start) + " to " + std::to_string(end));
        return;
    }
    uint32_t id = number * lexicon.tperb;
    for (; block.position < block.count; id++) {
        const uint64_t offset = file_offset(lexicon, block.at);
        if (const char* const what = lexicon_block_next(&block); what != nullptr) {
            return fsck_add_text(fsck, section, offset, id, "", what, "in block " + std::to_string(number));
        }
        check_term(fsck, section, offset, id, block, *before, *has_before);
        if (section == IN_LEXICON) fsck->report->term_bytes += block.term.size();
        *before = block.term;
        *has_before = true;
    }
    if (block.at != block.end) {
        fsck_add(fsck, section, file_offset(lexicon, block.at), "bytes behind the last term of a block",
                 std::to_string(block.end - block.at) + " in block " + std::to_string(number));
    }
}

}  // namespace

uint64_t lexicon_walk_budget(const lexicon_image& lexicon) {
    return 4 * (uint64_t{lexicon.data.size()} + 1);
}

uint64_t lexicon_block_bytes(const lexicon_image& lexicon, uint32_t block) {
    const uint32_t start = block == 0 ? 0 : block_end(lexicon, block - 1), end = block_end(lexicon, block);
    return start < end && end <= lexicon.data.size() ? end - start : 0;
}

bool lexicon_block_begin(const lexicon_image& lexicon, uint32_t block, lexicon_block* out) {
    const uint32_t start = block == 0 ? 0 : block_end(lexicon, block - 1), end = block_end(lexicon, block);
    if (start >= end || end > lexicon.data.size()) return false;
    out->at = lexicon.data.data() + start;
    out->end = lexicon.data.data() + end;
    out->tperb = lexicon.tperb;
    out->count = std::min(lexicon.tperb, lexicon.terms - block * lexicon.tperb);
    return true;
}

const char* lexicon_block_next(lexicon_block* block) {
    const bool first = block->position == 0;
    const bool last_of_full = !first && block->position == block->tperb - 1;
    uint32_t size = 0;
    block->shared = 0;
    if (!first && !read_number(block, &block->shared)) return "shared prefix cannot be read";
    if (block->shared > block->term.size() || block->shared > MAX_SHARED) return "shared prefix out of range";
    if (last_of_full) {
        size = static_cast<uint32_t>(block->end - block->at);
    } else if (!read_number(block, &size)) {
        return "length cannot be read";
    }
    if (size > static_cast<uint64_t>(block->end - block->at)) return "term runs out of its block";
    block->term.resize(block->shared);
    block->term.append(reinterpret_cast<const char*>(block->at), size);
    block->at += size;
    block->position++;
    return nullptr;
}

std::string lexicon_image_term(const lexicon_image& lexicon, uint32_t term) {
    lexicon_block block;
    if (term >= lexicon.terms || !lexicon_block_begin(lexicon, term / lexicon.tperb, &block)) return {};
    for (uint32_t i = 0; i <= term % lexicon.tperb; i++) {
        if (lexicon_block_next(&block) != nullptr) return {};
    }
    return block.term;
}

void fsck_check_lexicon(fsck_state* fsck, const lexicon_image& lexicon, slice_section_t section) {
    check_head(fsck, lexicon, section);
    std::string before;
    bool has_before = false;
    uint64_t left = lexicon_walk_budget(lexicon);
    for (uint32_t block = 0; block < lexicon.blocks && left != 0; block++) {
        check_block(fsck, lexicon, section, block, &before, &has_before);
        left -= std::min(left, lexicon_block_bytes(lexicon, block));
    }
}

}  // namespace veldar::tool

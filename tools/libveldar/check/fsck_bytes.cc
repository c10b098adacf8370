#include "tools/libveldar/check/fsck_bytes.h"

#include <algorithm>
#include <array>
#include <functional>
#include <string_view>
#include <vector>

#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

struct list_size {
    uint64_t bytes = 0;
    bool is_single = false;  // it holds one event
};

// The lists by term; none when the offsets cannot be read.
std::vector<list_size> list_sizes(const slice_image& image, uint32_t terms) {
    const std::span<const uint8_t> entries = slice_section_bytes(image, IN_OFFSETS);
    const std::span<const uint8_t> bytes = slice_section_bytes(image, IN_LISTS);
    const uint32_t width = _get_plo_size(&image.header), tag_bits = warm_header_plo_tag_bits(&image.header);
    std::vector<list_size> sizes;
    if (!slice_section_whole(image, IN_OFFSETS) || entries.size() < uint64_t{terms} * width) return sizes;
    const auto entry = [&](uint32_t index) {
        const uint8_t* const at = entries.data() + size_t{index} * width;
        return width == 8 ? load_be64(at) : load_be32(at);
    };
    sizes.resize(terms);
    uint64_t end = std::min<uint64_t>(entry(terms - 1) >> tag_bits, bytes.size());
    for (uint32_t term = terms; term-- > 0;) {
        const uint64_t tagged = term == 0 ? 0 : entry(term - 1);
        const uint64_t type = tagged & ((uint64_t{1} << tag_bits) - 1), begin = tagged >> tag_bits;
        sizes[term].is_single = type == PLO_SPO;
        if (type == PLO_SPO || type == PLO_DEDUP || begin > end) continue;
        sizes[term].bytes = end - begin;
        uint32_t first = 0;
        const uint8_t* const list = bytes.data() + begin;
        sizes[term].is_single =
            type == PLO_RLE && end > begin && vbe_decode_bounded(&first, list, bytes.data() + end) == end - begin;
        end = begin;
    }
    return sizes;
}

// Calls `visit(number, term, bytes)` for every term; false when one cannot be decoded.
bool walk_lexicon(const lexicon_image& lexicon,
                  const std::function<void(uint32_t, std::string_view, uint64_t)>& visit) {
    uint64_t budget = lexicon_walk_budget(lexicon);
    for (uint32_t number = 0; number < lexicon.blocks; number++) {
        lexicon_block block;
        const uint64_t size = lexicon_block_bytes(lexicon, number);
        if (size > budget || !lexicon_block_begin(lexicon, number, &block)) return false;
        budget -= size;
        uint32_t term = number * lexicon.tperb;
        while (block.position < block.count && term < lexicon.terms) {
            const uint8_t* const before = block.at;
            if (lexicon_block_next(&block) != nullptr) return false;
            visit(term++, block.term, static_cast<uint64_t>(block.at - before));
        }
    }
    return true;
}

uint64_t section_size(const slice_image& image, slice_section_t section) {
    return slice_section_bytes(image, section).size();
}

part_bytes* part_of(byte_account* account, std::string_view term, bool is_single, const std::vector<size_t>& values) {
    const size_t colons = term.find("::");
    if (colons != std::string_view::npos) return &account->fields[std::string(term.substr(0, colons))];
    const bool is_value = std::binary_search(values.begin(), values.end(), std::hash<std::string_view>()(term));
    return is_value ? &account->value_words : is_single ? &account->single_words : &account->words;
}

}  // namespace

void account_slice(const slice_image& image, byte_account* account) {
    uint64_t told = 0;
    for (const slice_section_t section : {IN_VALUES, IN_M, IN_S, IN_ST, IN_H, IN_D})
        told += section_size(image, section);
    account->values += told;
    lexicon_image lexicon;
    const section_place& at = image.sections[IN_LEXICON];
    const bool has_terms = image.has_header && !image.mini && at.state == SECTION_WHOLE &&
                           lexicon_image_read(image.bytes, at.offset, &lexicon);
    const std::vector<list_size> lists = has_terms ? list_sizes(image, lexicon.terms) : std::vector<list_size>();
    if (!lists.empty()) {
        const uint64_t records = section_size(image, IN_OFFSETS) + section_size(image, IN_METADATA);
        std::vector<size_t> values;
        const auto note_value = [&](uint32_t, std::string_view term, uint64_t) {
            const size_t colons = term.find("::");
            if (colons != std::string_view::npos)
                values.push_back(std::hash<std::string_view>()(term.substr(colons + 2)));
        };
        const auto add = [&](uint32_t number, std::string_view term, uint64_t bytes) {
            part_bytes* const part = part_of(account, term, lists[number].is_single, values);
            part->terms++;
            part->lexicon += bytes;
            part->lists += lists[number].bytes;
            const uint64_t record = records * (number + 1) / lexicon.terms - records * number / lexicon.terms;
            part->records += record;
            told += bytes + lists[number].bytes + record;
        };
        if (walk_lexicon(lexicon, note_value)) {
            std::sort(values.begin(), values.end());
            walk_lexicon(lexicon, add);
        }
    }
    account->rest += image.bytes.size() - std::min<uint64_t>(told, image.bytes.size());
}

}  // namespace veldar::tool

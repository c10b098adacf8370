#include "tools/libveldar/check/slice_place.h"

#include <fmt/format.h>

#include <algorithm>

#include "libzero/endian.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

// Which entries of `nbits` each, `count` of them from `begin` on, lie in the bytes.
number_range entries_in(const seal_fault_t& fault, uint64_t begin, uint64_t nbits, uint32_t count) {
    number_range out;
    const uint64_t end = fault.offset + fault.size;
    if (nbits == 0 || count == 0 || end <= begin) return out;
    const uint64_t from = fault.offset > begin ? (fault.offset - begin) * 8 / nbits : 0;
    if (from >= count) return out;
    out.add(static_cast<uint32_t>(from));
    out.add(static_cast<uint32_t>(std::min<uint64_t>(count - 1, ((end - begin) * 8 - 1) / nbits)));
    return out;
}

std::string numbers_text(const char* what, const number_range& range) {
    if (range.first == NO_NUMBER) return {};
    return range.first == range.last ? fmt::format("{} {}", what, range.first)
                                     : fmt::format("{}s {} to {}", what, range.first, range.last);
}

std::string terms_text(const slice_image& image, const number_range& terms) {
    if (terms.first == NO_NUMBER) return {};
    lexicon_image lexicon;
    std::string names[2];
    if (lexicon_image_read(image.bytes, image.sections[IN_LEXICON].offset, &lexicon)) {
        names[0] = lexicon_image_term(lexicon, terms.first);
        names[1] = lexicon_image_term(lexicon, terms.last);
    }
    const auto named = [](uint32_t number, const std::string& name) {
        return name.empty() ? std::to_string(number) : fmt::format("{} \"{}\"", number, fsck_term_text(name));
    };
    if (terms.first == terms.last) return "term " + named(terms.first, names[0]);
    return fmt::format("terms {} to {}", named(terms.first, names[0]), named(terms.last, names[1]));
}

// The blocks of the lexicon that the bytes touch.
number_range lexicon_place(const slice_image& image, const seal_fault_t& fault) {
    number_range terms;
    lexicon_image lexicon;
    if (!lexicon_image_read(image.bytes, image.sections[IN_LEXICON].offset, &lexicon)) return terms;
    const auto data = static_cast<uint64_t>(lexicon.data.data() - image.bytes.data());
    // Head and table say where every term is.
    if (fault.offset < data) return {0, lexicon.terms == 0 ? 0 : lexicon.terms - 1};
    uint64_t begin = data;
    for (uint32_t block = 0; block < lexicon.blocks; block++) {
        const uint64_t end = begin + lexicon_block_bytes(lexicon, block);
        if (begin < fault.offset + fault.size && end > fault.offset) {
            terms.add(block * lexicon.tperb);
            terms.last = std::min((block + 1) * lexicon.tperb, lexicon.terms) - 1;
        }
        begin = end;
    }
    return terms;
}

// The terms whose lists lie in the bytes.
number_range lists_place(const slice_image& image, const seal_fault_t& fault) {
    if (!slice_section_whole(image, IN_OFFSETS)) return {};
    const std::span<const uint8_t> entries = slice_section_bytes(image, IN_OFFSETS);
    const uint32_t width = _get_plo_size(&image.header), tag_bits = warm_header_plo_tag_bits(&image.header);
    const uint64_t base = image.sections[IN_LISTS].offset, end = fault.offset + fault.size;
    number_range terms;
    uint64_t begin = 0;  // of the list that is open
    uint32_t open = 0;
    for (uint32_t term = 1; term <= entries.size() / width; term++) {
        const uint8_t* const at = entries.data() + size_t{term - 1} * width;
        const uint64_t entry = width == 8 ? load_be64(at) : load_be32(at);
        const uint64_t type = entry & ((1u << tag_bits) - 1);
        if (type != PLO_RLE && type != PLO_BMAP) continue;  // the term has no bytes of its own
        const uint64_t next = entry >> tag_bits;
        if (base + begin < end && base + next > fault.offset) terms.add(open);
        begin = next;
        open = term;
    }
    return terms;
}

number_range column_place(const slice_image& image, const seal_fault_t& fault) {
    const section_place& at = image.sections[IN_CSTORE];
    const uint64_t footer = at.offset + image.header.cstore_ref.get(), file = image.bytes.size();
    if (at.state != SECTION_WHOLE || footer + 16 > file) return {};
    const uint64_t columns = std::min<uint64_t>(load_le32(image.bytes.data() + footer), (file - footer - 16) / 8);
    number_range terms;
    for (uint64_t i = 0; i < columns; i++) {
        const uint8_t* const entry = image.bytes.data() + footer + 16 + 8 * i;
        const uint64_t begin = at.offset + uint64_t{load_le32(entry + 4)} * 8;
        const uint64_t end = i + 1 < columns ? at.offset + uint64_t{load_le32(entry + 12)} * 8 : footer;
        if (begin < fault.offset + fault.size && end > fault.offset) terms.add(load_le32(entry));
    }
    return terms;
}

number_range values_place(const slice_image& image, const seal_fault_t& fault) {
    const st_warm_slice_body& h = image.header;
    const uint64_t begin = image.sections[IN_VALUES].offset;
    const uint32_t values = h.num_values.get();
    if (tsval_encoding(&h) == TSVAL_PLAIN) return entries_in(fault, begin, 64, values);
    const uint64_t preambles = tsval_encoding(&h) == TSVAL_WITH_PREAMBLES ? h.num_dimsets.get() : 0;
    const uint32_t nbits = warm_header_meta_time_nbits(&h) + warm_header_seek_addr_nbits(&h);
    // A preamble says how many values a set has, and so which all that follow are.
    if (fault.offset < begin + 8 * preambles) return {0, values == 0 ? 0 : values - 1};
    return entries_in(fault, begin + 8 * preambles, nbits, values);
}

number_range metadata_place(const slice_image& image, const seal_fault_t& fault) {
    const st_warm_slice_body& h = image.header;
    const uint32_t type = warm_header_meta_type(&h);
    const uint64_t nbits = type == META_PACKED ? warm_header_meta_nbits(&h) : type == META_FULL ? 96 : 32;
    return entries_in(fault, image.sections[IN_METADATA].offset, nbits, h.num_terms.get());
}

bool holds_values(seal_section_t section) {
    return section >= SEALED_VALUES && section <= SEALED_D;
}

}  // namespace

number_range slice_place_numbers(const slice_image& image, const seal_fault_t& fault) {
    const st_warm_slice_body& h = image.header;
    const uint32_t values = h.num_values.get(), terms = h.num_terms.get();
    const auto companion = [&](slice_section_t section, uint32_t nbits) {
        return entries_in(fault, image.sections[section].offset, nbits, values);
    };
    if (!image.has_header) return {};
    switch (fault.section) {
        case SEALED_VALUES:
            return values_place(image, fault);
        case SEALED_M:
            return companion(IN_M, h.m_nbits.get());
        case SEALED_S:
            return companion(IN_S, h.s_nbits.get());
        case SEALED_ST:
            return companion(IN_ST, h.st_nbits.get());
        case SEALED_H:
            return companion(IN_H, h.h_nbits.get());
        case SEALED_D:
            return companion(IN_D, 1);
        case SEALED_OFFSETS:
            return entries_in(fault, image.sections[IN_OFFSETS].offset, 8 * _get_plo_size(&h), terms);
        case SEALED_METADATA:
            return metadata_place(image, fault);
        case SEALED_LEXICON:
            return lexicon_place(image, fault);
        case SEALED_LISTS:
            return lists_place(image, fault);
        case SEALED_CSTORE:
            return column_place(image, fault);
        default:
            return {};
    }
}

std::string slice_place_text(const slice_image& image, const seal_fault_t& fault) {
    const number_range range = slice_place_numbers(image, fault);
    return holds_values(fault.section) ? numbers_text("value", range) : terms_text(image, range);
}

}  // namespace veldar::tool

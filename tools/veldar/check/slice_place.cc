#include "tools/veldar/check/slice_place.h"

#include <fmt/format.h>

#include <algorithm>

#include "libzero/endian.h"
#include "tools/veldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

constexpr uint32_t NONE = UINT32_MAX;

// Numbers from the first to the last, `first` NONE for none.
struct number_range {
    uint32_t first = NONE, last = 0;
    void add(uint32_t number) {
        if (first == NONE) first = number;
        last = number;
    }
};

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
    if (range.first == NONE) return {};
    return range.first == range.last ? fmt::format("{} {}", what, range.first)
                                     : fmt::format("{}s {} to {}", what, range.first, range.last);
}

std::string terms_text(const slice_image& image, const number_range& terms) {
    if (terms.first == NONE) return {};
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
std::string lexicon_place(const slice_image& image, const seal_fault_t& fault) {
    lexicon_image lexicon;
    if (!lexicon_image_read(image.bytes, image.sections[IN_LEXICON].offset, &lexicon)) return "its head";
    const auto data = static_cast<uint64_t>(lexicon.data.data() - image.bytes.data());
    if (fault.offset + fault.size <= data) return "its block table";
    number_range terms;
    uint64_t begin = data;
    for (uint32_t block = 0; block < lexicon.blocks; block++) {
        const uint64_t end = begin + lexicon_block_bytes(lexicon, block);
        if (begin < fault.offset + fault.size && end > fault.offset) {
            terms.add(block * lexicon.tperb);
            terms.last = std::min((block + 1) * lexicon.tperb, lexicon.terms) - 1;
        }
        begin = end;
    }
    return terms_text(image, terms);
}

// The terms whose lists lie in the bytes.
std::string lists_place(const slice_image& image, const seal_fault_t& fault) {
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
    return terms_text(image, terms);
}

std::string column_place(const slice_image& image, const seal_fault_t& fault) {
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
    return terms_text(image, terms);
}

std::string values_place(const slice_image& image, const seal_fault_t& fault) {
    const section_place& at = image.sections[IN_VALUES];
    const uint32_t values = image.header.num_values.get();
    // Preambles lie before the values; then the section's size tells no width.
    if (values == 0 || tsval_encoding(&image.header) == TSVAL_WITH_PREAMBLES) return {};
    return numbers_text("value", entries_in(fault, at.offset, std::max<uint64_t>(1, at.size * 8 / values), values));
}

}  // namespace

std::string slice_place_text(const slice_image& image, const seal_fault_t& fault) {
    const st_warm_slice_body& h = image.header;
    const uint32_t values = h.num_values.get(), terms = h.num_terms.get();
    const auto companion = [&](slice_section_t section, uint32_t nbits) {
        return numbers_text("value", entries_in(fault, image.sections[section].offset, nbits, values));
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
            return terms_text(image,
                              entries_in(fault, image.sections[IN_OFFSETS].offset, 8 * _get_plo_size(&h), terms));
        case SEALED_METADATA: {
            const section_place& at = image.sections[IN_METADATA];
            return terms_text(image, entries_in(fault, at.offset, terms == 0 ? 0 : at.size * 8 / terms, terms));
        }
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

}  // namespace veldar::tool

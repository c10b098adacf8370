// The checker: the sections lie in the file, nothing but zeros lies between and behind them, and what pads the packed
// ones is zero too.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "libzero/endian.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

constexpr uint64_t DIMSET_HEAD = 16;
constexpr uint32_t SMALLEST_DIMSET = 6;  // words

// The first byte of [from, to) that is not zero, or `to`.
uint64_t first_set_byte(std::span<const uint8_t> bytes, uint64_t from, uint64_t to) {
    const auto begin = bytes.begin() + static_cast<ptrdiff_t>(from), end = bytes.begin() + static_cast<ptrdiff_t>(to);
    return static_cast<uint64_t>(std::find_if(begin, end, [](uint8_t byte) { return byte != 0; }) - bytes.begin());
}

void check_gap(fsck_state* fsck, slice_section_t before, uint64_t from, uint64_t to, const char* what) {
    const std::span<const uint8_t> bytes = fsck->image->bytes;
    const uint64_t set = first_set_byte(bytes, from, to);
    if (set == to) return;
    fsck_add(fsck, before, set, what, fmt::format("{:02X}", bytes[static_cast<size_t>(set)]));
}

// A section that is not whole is reported once: those behind it follow from it.
void report_missing(fsck_state* fsck, slice_section_t section) {
    const section_place& at = fsck->image->sections[section];
    const uint64_t file_size = fsck->image->bytes.size();
    if (at.state == SECTION_CUT) {
        fsck_add(fsck, section, std::min(at.offset, file_size), "cut off",
                 fmt::format("{} bytes from byte {} on, but the file has {}", at.size, at.offset, file_size));
    } else {
        fsck_add(fsck, section, std::min(at.offset, file_size), "cannot be placed",
                 fmt::format("its head at byte {} is damaged or missing", at.offset));
    }
}

void check_places(fsck_state* fsck) {
    const slice_image& image = *fsck->image;
    uint64_t end = 0;
    slice_section_t before = IN_HEADER;
    for (uint32_t i = 0; i < SLICE_SECTIONS; i++) {
        const auto section = static_cast<slice_section_t>(i);
        const section_place& at = image.sections[section];
        if (at.state == SECTION_ABSENT) continue;
        if (at.state != SECTION_WHOLE) return report_missing(fsck, section);
        check_gap(fsck, before, end, at.offset, "byte behind the section is not zero");
        end = at.offset + at.size;
        before = section;
    }
    if (image.mini) check_gap(fsck, before, end, image.bytes.size(), "byte behind the section is not zero");
    if (before == IN_REST)
        check_gap(fsck, IN_REST, image.sections[IN_REST].offset, end, "bytes behind the last section");
}

// Bits of a section from `used` on are zero.
void check_padding(fsck_state* fsck, slice_section_t section, uint64_t used) {
    if (!slice_section_whole(*fsck->image, section)) return;
    const section_place& at = fsck->image->sections[section];
    const std::span<const uint8_t> bytes = slice_section_bytes(*fsck->image, section);
    if (used >= at.size * 8) return;
    uint64_t set = first_set_byte(bytes, (used + 7) / 8, at.size);
    if (used % 8 != 0 && bytes[static_cast<size_t>(used / 8)] >> (used % 8) != 0) set = used / 8;
    if (set < at.size) fsck_add(fsck, section, at.offset + set, "padding is not zero", "");
}

void check_paddings(fsck_state* fsck) {
    const st_warm_slice_body& h = fsck->image->header;
    const uint64_t values = h.num_values.get(), terms = h.num_terms.get();
    check_padding(fsck, IN_M, values * h.m_nbits.get());
    check_padding(fsck, IN_S, values * h.s_nbits.get());
    check_padding(fsck, IN_ST, values * h.st_nbits.get());
    check_padding(fsck, IN_H, values * h.h_nbits.get());
    check_padding(fsck, IN_D, values * h.d_nbits.get());
    const uint32_t type = warm_header_meta_type(&h);
    const uint32_t entry = type == META_PACKED ? warm_header_meta_nbits(&h) : type == META_FULL ? 96 : 32;
    check_padding(fsck, IN_METADATA, terms * entry);
    const tsval_encoding_t encoding = tsval_encoding(&h);
    if (encoding == TSVAL_PLAIN || !tsval_counts_agree(&h)) return;
    const uint64_t width = warm_header_meta_time_nbits(&h) + warm_header_seek_addr_nbits(&h);
    const uint64_t preambles = encoding == TSVAL_WITH_PREAMBLES ? h.num_dimsets.get() : 0;
    check_padding(fsck, IN_VALUES, preambles * 64 + (values - preambles) * width);
}

void check_dimsets(fsck_state* fsck) {
    if (!slice_section_whole(*fsck->image, IN_DIMSETS)) return;
    const uint64_t offset = fsck->image->sections[IN_DIMSETS].offset;
    const std::span<const uint8_t> bytes = slice_section_bytes(*fsck->image, IN_DIMSETS);
    if (std::memcmp(bytes.data(), "DSMAGIC0", 8) != 0) {
        fsck_add(fsck, IN_DIMSETS, offset, "unknown magic",
                 "\"" + fsck_term_text({reinterpret_cast<const char*>(bytes.data()), 8}) + "\"");
    }
    const uint32_t sets = load_le32(bytes.data() + 8), words = load_le32(bytes.data() + 12);
    const st_warm_slice_body& h = fsck->image->header;
    if (warm_header_is_rev1(&h) && sets != h.num_dimsets.get()) {
        fsck_add(fsck, IN_DIMSETS, offset + 8, "number of sets differs from the header's",
                 fmt::format("{}, header {}", sets, h.num_dimsets.get()));
    }
    uint32_t before = 0;
    for (uint32_t i = 0; i < sets; i++) {
        const uint64_t at = DIMSET_HEAD + uint64_t{i} * 4;
        const uint32_t end = load_le32(bytes.data() + at);
        if (end > words || end < before || end - before < SMALLEST_DIMSET) {
            fsck_add(fsck, IN_DIMSETS, offset + at, "ends of the sets",
                     fmt::format("set {}: {} to {}", i, before, end));
        }
        before = end;
    }
    if (before != words) {
        fsck_add(fsck, IN_DIMSETS, offset + 12, "the last set ends elsewhere",
                 fmt::format("{}, not {}", before, words));
    }
}

}  // namespace

void fsck_check_layout(fsck_state* fsck) {
    check_places(fsck);
    check_paddings(fsck);
    check_dimsets(fsck);
}

}  // namespace veldar::tool

// The checker: the header's own numbers, and the file's name.
#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "searchthing/format/tsidx_names.h"
#include "tools/libveldar/check/fsck_internal.h"

namespace veldar::tool {

namespace {

constexpr uint64_t KNOWN_FLAGS = 0x7F;
constexpr uint32_t RAW_DOUBLE_NBITS = 64;

struct companion_fields {
    slice_section_t section;
    const be32 st_warm_slice_body::*size;
    const be32 st_warm_slice_body::*nbits;
};
constexpr companion_fields COMPANIONS[] = {
    {IN_M, &st_warm_slice_body::m_size, &st_warm_slice_body::m_nbits},
    {IN_S, &st_warm_slice_body::s_size, &st_warm_slice_body::s_nbits},
    {IN_ST, &st_warm_slice_body::st_size, &st_warm_slice_body::st_nbits},
    {IN_H, &st_warm_slice_body::h_size, &st_warm_slice_body::h_nbits},
    {IN_D, &st_warm_slice_body::d_size, &st_warm_slice_body::d_nbits},
};

uint64_t field_offset(const slice_image& image, const be32& field) {
    return static_cast<uint64_t>(field.bytes - reinterpret_cast<const uint8_t*>(&image.header));
}

void check_companion(fsck_state* fsck, const companion_fields& fields) {
    const st_warm_slice_body& h = fsck->image->header;
    const uint32_t size = (h.*fields.size).get(), nbits = (h.*fields.nbits).get();
    const uint64_t nbits_at = field_offset(*fsck->image, h.*fields.nbits);
    const char* const name = slice_section_name(fields.section);
    const bool raw = fields.section == IN_M && nbits == RAW_DOUBLE_NBITS;
    if (fields.section == IN_D && nbits != 1) {
        return fsck_add(fsck, IN_HEADER, nbits_at, "d_nbits is not 1", fmt::to_string(nbits));
    }
    if (nbits > MAX_COMPANION_NBITS && !raw) {
        return fsck_add(fsck, IN_HEADER, nbits_at, "companion wider than 31 bits", fmt::format("{}: {}", name, nbits));
    }
    const uint64_t bits = uint64_t{h.num_values.get()} * nbits, need = (bits + 7) / 8;
    if (size != 0 && size != need) {
        fsck_add(fsck, IN_HEADER, field_offset(*fsck->image, h.*fields.size), "size of a companion array",
                 fmt::format("{}: {}, {} values of {} bits need {}", name, size, h.num_values.get(), nbits, need));
    }
    if (size != 0 && !raw && bits > uint64_t{1} << 32) {
        fsck_add(fsck, IN_HEADER, nbits_at, "companion array beyond 2^32 bits", name);
    }
}

void check_zero_reserve(fsck_state* fsck, std::span<const uint8_t> reserve, uint64_t offset) {
    const auto set = std::find_if(reserve.begin(), reserve.end(), [](uint8_t byte) { return byte != 0; });
    if (set == reserve.end()) return;
    fsck_add(fsck, IN_HEADER, offset + static_cast<uint64_t>(set - reserve.begin()), "reserved byte is not zero",
             fmt::format("{:02X}", *set));
}

void check_flags_and_times(fsck_state* fsck) {
    const st_warm_slice_body& h = fsck->image->header;
    check_zero_reserve(fsck, h.reserved68, offsetof(st_warm_slice_body, reserved68));
    if ((h.wflags.get() & ~KNOWN_FLAGS) != 0) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, wflags), "unknown flags",
                 fmt::format("{:#x}", h.wflags.get() & ~KNOWN_FLAGS));
    }
    const auto earliest = static_cast<st_time_t>(h.earliest.get()), latest = static_cast<st_time_t>(h.latest.get());
    if (earliest > latest) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, earliest), "earliest is after latest",
                 fmt::format("{}, {}", earliest, latest));
    }
}

void check_rev1_fields(fsck_state* fsck) {
    const st_warm_slice_body& h = fsck->image->header;
    check_zero_reserve(fsck, h.reserved100, offsetof(st_warm_slice_body, reserved100));
    if (!fsck->metric && h.num_values.get() != 0 && h.seek_addr_min.get() > h.seek_addr_max.get()) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, seek_addr_min), "smallest address above the largest",
                 fmt::format("{}, {}", h.seek_addr_min.get(), h.seek_addr_max.get()));
    }
    if (!tsval_counts_agree(&h)) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, num_dimsets), "more preambles than values",
                 fmt::format("{}, {}", h.num_dimsets.get(), h.num_values.get()));
    }
    if (st_warm_slice_is_msidx_with_dimsets(&h)) return;
    if (h.num_dimsets.get() != 0) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, num_dimsets), "dimension sets in a slice of events",
                 fmt::to_string(h.num_dimsets.get()));
    }
    if (h.cstore_ref.get() != 0) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, cstore_ref), "column store in a slice of events",
                 fmt::to_string(static_cast<int64_t>(h.cstore_ref.get())));
    }
}

}  // namespace

void fsck_check_header(fsck_state* fsck) {
    const slice_image& image = *fsck->image;
    if (image.bytes.size() < WARM_HEADER_MAX_SIZE) {
        return fsck_add(
            fsck, IN_HEADER, image.bytes.size(), "cut off",
            fmt::format("a slice has at least {} bytes, the file {}", WARM_HEADER_MAX_SIZE, image.bytes.size()));
    }
    const st_warm_slice_body& h = image.header;
    if (!image.has_header) {
        const std::string magic = fsck_term_text(std::string_view(h.magic, sizeof h.magic));
        return fsck_add(fsck, IN_HEADER, 0, "unknown magic", "\"" + magic + "\"");
    }
    for (const companion_fields& fields : COMPANIONS) check_companion(fsck, fields);
    if (!warm_header_is_legacy(&h)) check_flags_and_times(fsck);
    if (warm_header_is_rev1(&h)) check_rev1_fields(fsck);
    if (h.num_terms.get() == 0 && !image.mini) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, num_terms), "no terms", "");
    }
    if (h.num_values.get() == 0 && h.num_postings.get() != 0) {
        fsck_add(fsck, IN_HEADER, offsetof(st_warm_slice_body, num_postings), "postings without values",
                 fmt::to_string(h.num_postings.get()));
    }
}

void fsck_check_name(fsck_state* fsck) {
    const slice_image& image = *fsck->image;
    const std::string_view path = image.path;
    st_filename_metadata_t name;
    if (!path.ends_with(TSIDX_SUFFIX)) return;
    if (st_tsidx_file_parse(image.path.c_str(), &name) == 0) {
        return fsck_add(fsck, IN_NAME, 0, "not <latest>-<earliest>-<id>.tsidx", "");
    }
    if (path.ends_with(TSIDX_MINI_SUFFIX) != image.mini) {
        fsck_add(fsck, IN_NAME, 0,
                 image.mini ? "an ordinary name, but only the values are there"
                            : "the name of a mini slice, but there is more than the values",
                 fmt::format("{} bytes", image.bytes.size()));
    }
    const bool legacy = warm_header_is_legacy(&image.header);
    if (image.header.num_values.get() == 0 || (legacy && !fsck->report->has_times)) return;
    const auto earliest = legacy ? fsck->report->earliest : static_cast<st_time_t>(image.header.earliest.get());
    const auto latest = legacy ? fsck->report->latest : static_cast<st_time_t>(image.header.latest.get());
    if (name.earliest == earliest && name.latest == latest) return;
    fsck_add(fsck, IN_NAME, 0, legacy ? "times differ from the values'" : "times differ from the header's",
             fmt::format("{} to {}, not {} to {}", name.earliest, name.latest, earliest, latest));
}

}  // namespace veldar::tool

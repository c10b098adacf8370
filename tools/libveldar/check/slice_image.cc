#include "tools/libveldar/check/slice_image.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "libzero/endian.h"
#include "searchthing/lexicon/fclex.h"
#include "tools/libveldar/store/disk_file.h"

namespace veldar::tool {

namespace {

constexpr size_t PIECE = size_t{1} << 20;
constexpr uint64_t DIMSETS_HEAD = 16;   // magic, number of sets, words of their bodies
constexpr uint64_t CSTORE_FOOTER = 16;  // number of columns, checksum, size; the entries follow

constexpr const char* NAMES[] = {"header",
                                 "values",
                                 "m",
                                 "s",
                                 "st",
                                 "h",
                                 "d",
                                 "offsets",
                                 "metadata",
                                 "reverse table",
                                 "lexicon",
                                 "reverse lexicon",
                                 "lists",
                                 "dimension sets",
                                 "column store",
                                 "rest",
                                 "name"};
static_assert(std::size(NAMES) == SLICE_SECTIONS + 1);

// Reads up to `size` bytes and throws them away; the offset of a failure, or `size`.
uint64_t read_through(int fd, uint64_t size) {
    std::vector<char> piece(static_cast<size_t>(std::min<uint64_t>(size, PIECE)));
    uint64_t at = 0;
    while (at < size) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(size - at, PIECE));
        const int64_t got = disk_read_at(fd, piece.data(), want, at);
        if (got <= 0) break;
        at += static_cast<uint64_t>(got);
    }
    return at;
}

uint64_t round_up(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

void place(slice_image* image, slice_section_t section, uint64_t offset, uint64_t size) {
    const uint64_t end = image->bytes.size();
    const bool whole = offset <= end && size <= end - offset;
    image->sections[section] = {offset, size, whole ? SECTION_WHOLE : SECTION_CUT};
}

// The sections that the header alone places.
void place_fixed(slice_image* image, const warm_section_offsets_t& at) {
    const st_warm_slice_body& h = image->header;
    place(image, IN_HEADER, 0, warm_header_size_on_disk(&h));
    place(image, IN_VALUES, at.values, warm_header_tsval_encoded_array_size(&h));
    place(image, IN_M, at.m, h.m_size.get());
    place(image, IN_S, at.s, h.s_size.get());
    place(image, IN_ST, at.st, h.st_size.get());
    place(image, IN_H, at.host, h.h_size.get());
    place(image, IN_D, at.d, h.d_size.get());
    if (image->mini) return;
    const uint64_t terms = h.num_terms.get();
    place(image, IN_OFFSETS, at.pl_offs, h.num_values.get() == 0 ? 0 : terms * _get_plo_size(&h));
    place(image, IN_METADATA, at.metadata, warm_header_size_metadata(&h));
    if (_has_reverse_lex(&h)) place(image, IN_REVERSE_TABLE, at.fclex - terms * 4, terms * 4);
}

void unknown_from(slice_image* image, slice_section_t first, uint64_t offset) {
    for (uint32_t i = first; i < SLICE_SECTIONS; i++) image->sections[i] = {offset, 0, SECTION_UNKNOWN};
    if (!_has_reverse_lex(&image->header)) image->sections[IN_REVERSE_LEXICON] = {};
    if (!st_warm_slice_is_msidx_with_dimsets(&image->header)) image->sections[IN_DIMSETS] = {};
    if (!st_warm_slice_is_msidx_with_cstore(&image->header)) image->sections[IN_CSTORE] = {};
}

// Places a lexicon and tells where it ends.
bool place_lexicon(slice_image* image, slice_section_t section, uint64_t offset, uint64_t* end) {
    lexicon_image lexicon;
    if (!lexicon_image_read(image->bytes, offset, &lexicon)) {
        unknown_from(image, section, offset);
        return false;
    }
    place(image, section, offset, lexicon.size);
    *end = offset + lexicon.size;
    if (slice_section_whole(*image, section)) return true;
    unknown_from(image, static_cast<slice_section_t>(section + 1), *end);
    return false;
}

// The size of all lists: the last offset entry without its tag.
bool lists_size(const slice_image& image, uint64_t* size) {
    *size = 0;
    const std::span<const uint8_t> entries = slice_section_bytes(image, IN_OFFSETS);
    if (!slice_section_whole(image, IN_OFFSETS)) return false;
    const uint32_t width = _get_plo_size(&image.header);
    if (entries.size() < width) return image.header.num_values.get() == 0;
    const uint8_t* const last = entries.data() + entries.size() - width;
    *size = (width == 8 ? load_be64(last) : load_be32(last)) >> warm_header_plo_tag_bits(&image.header);
    return true;
}

bool place_dimsets(slice_image* image, uint64_t* end) {
    const uint64_t offset = warm_next_section(*end);
    if (offset > image->bytes.size() || image->bytes.size() - offset < DIMSETS_HEAD) {
        unknown_from(image, IN_DIMSETS, offset);
        return false;
    }
    const uint64_t sets = load_le32(image->bytes.data() + offset + 8);
    const uint64_t words = load_le32(image->bytes.data() + offset + 12);
    place(image, IN_DIMSETS, offset, (words + sets + 4) * 4);
    *end = offset + image->sections[IN_DIMSETS].size;
    if (slice_section_whole(*image, IN_DIMSETS)) return true;
    unknown_from(image, IN_CSTORE, *end);
    return false;
}

// The column store ends with a footer whose place the header tells, and that with the entries that it counts.
bool place_cstore(slice_image* image, uint64_t* end) {
    const uint64_t offset = round_up(*end, 8), footer = image->header.cstore_ref.get();
    const uint64_t file_size = image->bytes.size();
    if (offset > file_size || footer > file_size - offset || file_size - offset - footer < CSTORE_FOOTER) {
        unknown_from(image, IN_CSTORE, offset);
        return false;
    }
    const uint64_t sets = load_le32(image->bytes.data() + offset + footer);
    place(image, IN_CSTORE, offset, footer + CSTORE_FOOTER + sets * 8);
    *end = offset + image->sections[IN_CSTORE].size;
    if (slice_section_whole(*image, IN_CSTORE)) return true;
    unknown_from(image, IN_REST, *end);
    return false;
}

// The sections whose sizes stand in the file itself, each behind the one before.
void place_variable(slice_image* image, uint64_t lexicon_offset) {
    uint64_t end = 0, size = 0;
    if (!place_lexicon(image, IN_LEXICON, lexicon_offset, &end)) return;
    if (_has_reverse_lex(&image->header)) {
        const uint64_t reverse = lexicon_offset + round_up(end - lexicon_offset, 4);
        if (!place_lexicon(image, IN_REVERSE_LEXICON, reverse, &end)) return;
    }
    if (!lists_size(*image, &size)) return unknown_from(image, IN_LISTS, end);
    place(image, IN_LISTS, end, size);
    if (!slice_section_whole(*image, IN_LISTS)) {
        return unknown_from(image, static_cast<slice_section_t>(IN_LISTS + 1), end);
    }
    end += size;
    if (st_warm_slice_is_msidx_with_dimsets(&image->header) && !place_dimsets(image, &end)) return;
    const uint64_t file_size = image->bytes.size();
    if (st_warm_slice_is_msidx_with_cstore(&image->header)) {
        if (!place_cstore(image, &end)) return;
    }
    place(image, IN_REST, end, file_size - end);
}

void read_layout(slice_image* image) {
    if (image->bytes.empty()) return;
    std::memcpy(&image->header, image->bytes.data(), std::min(image->bytes.size(), sizeof image->header));
    image->has_header = image->bytes.size() >= sizeof image->header && verify_magic(&image->header);
    if (!image->has_header) return;
    const warm_section_offsets_t at = warm_header_section_offsets(&image->header);
    image->mini = at.pl_offs == image->bytes.size();
    place_fixed(image, at);
    if (!image->mini) place_variable(image, at.fclex);
}

}  // namespace

const char* slice_section_name(slice_section_t section) {
    return NAMES[section];
}

bool lexicon_image_read(std::span<const uint8_t> file, uint64_t offset, lexicon_image* out) {
    if (offset > file.size()) return false;
    const std::span<const uint8_t> body = file.subspan(static_cast<size_t>(offset));
    if (body.size() < sizeof(st_fclex_body)) return false;
    *out = {};
    out->offset = offset;
    out->terms = be32_at(body, 0);
    out->tperb = be32_at(body, 4);
    out->uncompressed_size = be32_at(body, 8);
    if (out->terms == 0 || out->tperb == 0) return false;
    out->blocks = static_cast<uint32_t>((uint64_t{out->terms} + out->tperb - 1) / out->tperb);
    const uint64_t table_end = sizeof(st_fclex_body) + uint64_t{out->blocks} * 4;
    if (table_end > body.size()) return false;
    out->table = body.subspan(sizeof(st_fclex_body), size_t{out->blocks} * 4);
    const uint64_t data_size = be32_at(out->table, out->table.size() - 4);
    out->data = body.subspan(static_cast<size_t>(table_end));
    out->data = out->data.first(static_cast<size_t>(std::min<uint64_t>(data_size, out->data.size())));
    out->size = table_end + data_size;
    return true;
}

image_state_t slice_image_open(const std::string& path, slice_image* image, std::string* error) {
    const unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid() && errno == ENOENT) return IMAGE_VANISHED;
    struct stat st;
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
        *error = path + ": " + std::strerror(errno);
        return IMAGE_UNREADABLE;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = path + ": not a regular file";
        return IMAGE_UNREADABLE;
    }
    const auto size = static_cast<uint64_t>(st.st_size);
    errno = 0;
    const uint64_t read = read_through(fd.get(), size);
    if (read < size) {
        *error = path + ": cannot be read from byte " + std::to_string(read) +
                 " on: " + (errno != 0 ? std::strerror(errno) : "the file became shorter");
        return IMAGE_UNREADABLE;
    }
    file_map map;
    if (size != 0 && !map.map(fd.get(), static_cast<size_t>(size), false)) {
        *error = path + ": cannot be mapped: " + std::strerror(errno);
        return IMAGE_UNREADABLE;
    }
    slice_image_from_bytes(map.bytes(), path, image);
    image->map = std::move(map);
    return IMAGE_OPEN;
}

void slice_image_from_bytes(std::span<const uint8_t> bytes, const std::string& path, slice_image* image) {
    *image = {};
    image->path = path;
    image->bytes = bytes;
    read_layout(image);
}

std::span<const uint8_t> slice_section_bytes(const slice_image& image, slice_section_t section) {
    const section_place& at = image.sections[section];
    if (at.state != SECTION_WHOLE && at.state != SECTION_CUT) return {};
    if (at.offset >= image.bytes.size()) return {};
    const uint64_t left = image.bytes.size() - at.offset;
    return image.bytes.subspan(static_cast<size_t>(at.offset), static_cast<size_t>(std::min(at.size, left)));
}

uint32_t packed_bits(std::span<const uint8_t> bytes, uint64_t bit, uint32_t nbits) {
    const uint64_t mask = (uint64_t{1} << nbits) - 1;
    const uint64_t byte = bit / 8;
    uint64_t word = 0;
    if (byte < bytes.size()) {
        std::memcpy(&word, bytes.data() + byte, static_cast<size_t>(std::min<uint64_t>(8, bytes.size() - byte)));
    }
    return static_cast<uint32_t>((word >> (bit % 8)) & mask);
}

}  // namespace veldar::tool

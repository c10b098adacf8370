#include "searchthing/format/warmslice_header.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/vbe.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/format/write_options.h"

namespace veldar {

namespace {

constexpr uint64_t NO_OFFSET = std::numeric_limits<uint64_t>::max();

bool has_magic(const st_warm_slice_body* h, const char (&magic)[8]) {
    return std::memcmp(h->magic, magic, 8) == 0;
}

uint64_t packed_words(uint64_t bits) {
    return (bits + 63) / 64;
}

}  // namespace

bool verify_magic(const st_warm_slice_body* h) {
    return has_magic(h, "Veldar3") || has_magic(h, "Veldar4") || has_magic(h, "Veldar5") || has_magic(h, "Veldar6") ||
           has_magic(h, "_TSIDX7") || has_magic(h, "_TSIDX8") || has_magic(h, "_TSIDX9") || has_magic(h, "VelLex1") ||
           has_magic(h, "Msidx_2") || has_magic(h, "_MSIDX3") || has_magic(h, "_MSIDX4");
}

size_t warm_header_size_on_disk(const st_warm_slice_body* h) {
    if (warm_header_is_legacy(h)) return 60;
    return warm_header_is_rev1(h) ? 120 : 80;
}

bool warm_header_is_legacy(const st_warm_slice_body* h) {
    return h->magic[0] != '_';
}

bool warm_header_is_rev1(const st_warm_slice_body* h) {
    return has_magic(h, "_TSIDX8") || has_magic(h, "_TSIDX9") || has_magic(h, "_MSIDX4");
}

bool st_warm_slice_is_msidx_with_dimsets(const st_warm_slice_body* h) {
    return has_magic(h, "Msidx_2") || has_magic(h, "_MSIDX3") || has_magic(h, "_MSIDX4");
}

bool st_warm_slice_is_msidx_v1(const st_warm_slice_body* h) {
    return !st_warm_slice_is_msidx_with_dimsets(h) && h->m_nbits.get() == 64;
}

bool st_warm_slice_is_msidx(const st_warm_slice_body* h) {
    return st_warm_slice_is_msidx_v1(h) || st_warm_slice_is_msidx_with_dimsets(h);
}

bool st_warm_slice_is_msidx_with_cstore(const st_warm_slice_body* h) {
    return warm_header_is_rev1(h) && static_cast<int64_t>(h->cstore_ref.get()) > 0;
}

bool st_warm_slice_is_msidx_v2(const st_warm_slice_body* h) {
    return st_warm_slice_is_msidx_with_dimsets(h) && !st_warm_slice_is_msidx_with_cstore(h);
}

bool warm_header_is_enabled(const st_warm_slice_body* h, uint64_t bits) {
    return !warm_header_is_legacy(h) && (h->wflags.get() & bits) != 0;
}

void warm_header_set_flag(st_warm_slice_body* h, uint64_t bits, bool on) {
    if (warm_header_is_legacy(h)) return;
    const uint64_t flags = h->wflags.get();
    h->wflags.set(on ? flags | bits : flags & ~bits);
}

uint32_t warm_header_meta_count_nbits(const st_warm_slice_body* h) {
    return bit_length(h->num_values.get());
}

uint32_t warm_header_meta_time_nbits(const st_warm_slice_body* whdr) {
    ST_ASSERT(!((whdr)->magic[0] != '_'));
    return bit_length(whdr->latest.get() - whdr->earliest.get());
}

uint32_t warm_header_meta_nbits(const st_warm_slice_body* h) {
    return warm_header_meta_count_nbits(h) + 2 * warm_header_meta_time_nbits(h);
}

uint32_t warm_header_seek_addr_nbits(const st_warm_slice_body* h) {
    if (warm_header_is_enabled(h, WARM_FLAG_PREAMBLES)) {
        const bool subseconds =
            warm_header_is_enabled(h, WARM_FLAG_MS_REQUESTED) && warm_header_is_enabled(h, WARM_FLAG_MS_PRESENT);
        return subseconds ? MILLISECOND_NBITS : 0;
    }
    if (!warm_header_is_rev1(h)) return 32;
    const uint32_t lowest = h->seek_addr_min.get();
    const uint32_t highest = h->seek_addr_max.get();
    return lowest > highest ? 32 : bit_length(highest - lowest);
}

uint32_t get_nbits_d(const st_warm_slice_body* h) {
    ST_ASSERT(h->d_nbits.get() == 1);
    return 1;
}

uint32_t warm_header_meta_type(const st_warm_slice_body* h) {
    if (!warm_header_is_legacy(h)) return META_PACKED;
    return has_magic(h, "VelLex1") ? META_COUNT_ONLY : META_FULL;
}

uint32_t _get_plo_size(const st_warm_slice_body* h) {
    return has_magic(h, "Veldar3") || warm_header_is_enabled(h, WARM_FLAG_PLO32) ? 4 : 8;
}

uint32_t warm_header_plo_tag_bits(const st_warm_slice_body* h) {
    if (warm_header_is_enabled(h, WARM_FLAG_PLO_TAG2)) return 2;
    return warm_header_is_enabled(h, WARM_FLAG_PLO_TAG1) ? 1 : 0;
}

bool _has_reverse_lex(const st_warm_slice_body* h) {
    return has_magic(h, "Veldar3") || has_magic(h, "Veldar4") || has_magic(h, "Veldar5");
}

uint64_t warm_header_tsval_encoded_array_size(const st_warm_slice_body* h) {
    const uint32_t values = h->num_values.get();
    const bool packed = warm_header_is_enabled(h, WARM_FLAG_VALUES_PACKED);
    if (!packed && !warm_header_is_enabled(h, WARM_FLAG_PREAMBLES)) return uint64_t{values} * 8;
    const uint32_t nbits = warm_header_meta_time_nbits(h) + warm_header_seek_addr_nbits(h);
    if (packed) {
        const uint32_t wrapped_bits = nbits * values + 63;
        return uint64_t{wrapped_bits / 64} * 8;
    }
    if (!warm_header_is_rev1(h)) return packed_words(uint64_t{values} * nbits) * 8;
    const uint32_t preambles = h->num_dimsets.get();
    const uint64_t packed_values = values - std::min(values, preambles);
    return (packed_words(packed_values * nbits) + preambles) * 8;
}

uint64_t warm_header_size_metadata(const st_warm_slice_body* h) {
    const uint64_t terms = h->num_terms.get();
    const uint32_t type = warm_header_meta_type(h);
    if (type == META_PACKED) return packed_words(terms * warm_header_meta_nbits(h)) * 8;
    return warm_next_section(terms * (type == META_FULL ? 12 : 4));
}

warm_section_offsets_t warm_header_section_offsets(const st_warm_slice_body* h) {
    const uint64_t terms = h->num_terms.get();
    const uint64_t plo_bytes = h->num_values.get() == 0 ? 0 : terms * _get_plo_size(h);
    const uint64_t reverse_terms_bytes = _has_reverse_lex(h) ? terms * 4 : 0;
    warm_section_offsets_t at;
    at.values = warm_next_section(warm_header_size_on_disk(h));
    at.m = warm_next_section(at.values + warm_header_tsval_encoded_array_size(h));
    at.s = warm_next_section(at.m + h->m_size.get());
    at.st = warm_next_section(at.s + h->s_size.get());
    at.host = warm_next_section(at.st + h->st_size.get());
    at.d = warm_next_section(at.host + h->h_size.get());
    at.pl_offs = warm_next_section(at.d + h->d_size.get());
    at.metadata = warm_next_section(at.pl_offs + plo_bytes);
    at.fclex = at.metadata + warm_header_size_metadata(h) + reverse_terms_bytes;
    // A field has 32 bits and the widest entry 96, so no header makes a sum wrap.
    ST_ASSERT(at.values < at.m && at.m < at.d && at.d < at.pl_offs && at.pl_offs < at.metadata);
    ST_ASSERT(at.metadata % 8 == 0 && at.metadata <= at.fclex && at.fclex % 4 == 0);
    return at;
}

uint64_t _offset_values(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).values;
}
uint64_t _offset_m_array(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).m;
}
uint64_t _offset_s_array(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).s;
}
uint64_t _offset_st_array(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).st;
}
uint64_t _offset_h_array(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).host;
}
uint64_t _offset_d_array(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).d;
}
uint64_t _offset_pl_offs(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).pl_offs;
}
uint64_t _offset_metadata(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).metadata;
}
uint64_t _offset_fclex(const st_warm_slice_body* h) {
    return warm_header_section_offsets(h).fclex;
}

uint64_t st_warm_header_get_offsets(const st_warm_slice_body* h, uint64_t* values, uint64_t* m, uint64_t* s,
                                    uint64_t* st, uint64_t* host, uint64_t* d, uint64_t* pl_offs, uint64_t* metadata,
                                    uint64_t* fclex) {
    const warm_section_offsets_t at = warm_header_section_offsets(h);
    *values = at.values;
    *m = at.m;
    *s = at.s;
    *st = at.st;
    *host = at.host;
    *d = at.d;
    *pl_offs = at.pl_offs;
    *metadata = at.metadata;
    *fclex = at.fclex;
    return at.fclex;
}

int st_warm_slice_offsets(int fd, uint64_t* values, uint64_t* m, uint64_t* s, uint64_t* st, uint64_t* host, uint64_t* d,
                          uint64_t* pl_offs, uint64_t* metadata, uint64_t* fclex) {
    st_warm_slice_body header;
    warm_rc_t rc;
    ST_TRY(warm_header_read(fd, &header, &rc));
    st_warm_header_get_offsets(&header, values, m, s, st, host, d, pl_offs, metadata, fclex);
    return 0;
}

buffer<st_warm_slice_body> warm_header_alloc(uint32_t count, warm_rc_t* rc) {
    buffer<st_warm_slice_body> headers;
    if (!headers.alloc(count)) {
        _set_rc_msg(rc, WARM_RC_NO_MEMORY, "warm header alloc");
        return headers;
    }
    _set_rc(rc, WARM_RC_OK);
    return headers;
}

void warm_header_init(st_warm_slice_body* h, const char* magic) {
    ST_ASSERT(strlen(magic) == 8 - 1);
    *h = {};
    std::memcpy(h->magic, magic, sizeof h->magic);
}

int warm_header_read(int fd, st_warm_slice_body* h, warm_rc_t* rc) {
    const int64_t got = st_pread(fd, h, sizeof *h, 0);
    if (got != static_cast<int64_t>(sizeof *h)) return _set_rc_msg(rc, read_status(got), "reading warm header");
    if (!verify_magic(h)) return _set_rc_msg(rc, WARM_RC_BAD_MAGIC, "header magic wrong");
    return _set_rc(rc, WARM_RC_OK);
}

int warm_header_write(int fd, const st_warm_slice_body* h, warm_rc_t* rc) {
    const size_t size = warm_header_size_on_disk(h);
    if (st_pwrite(fd, h, size, 0) != static_cast<int64_t>(size)) {
        return _set_rc_msg(rc, WARM_RC_WRITE, "writing warm header");
    }
    return _set_rc(rc, WARM_RC_OK);
}

void warm_header_copy(st_warm_slice_body* dst, const st_warm_slice_body* src) {
    std::memcpy(static_cast<void*>(dst), src, warm_header_size_on_disk(src));
}

uint64_t warm_header_posting_lists_size(const st_warm_slice_body* h, int fd, warm_rc_t* rc) {
    _set_rc(rc, WARM_RC_OK);
    const uint32_t terms = h->num_terms.get();
    if (terms == 0) {
        _set_rc_msg(rc, WARM_RC_CORRUPT, "plo last term");
        return NO_OFFSET;
    }
    const uint32_t width = _get_plo_size(h);
    std::array<uint8_t, 8> entry;
    const int64_t got = st_pread(fd, entry.data(), width, _offset_pl_offs(h) + uint64_t{terms - 1} * width);
    if (got != width) {
        _set_rc_msg(rc, read_status(got), "reading last plo entry");
        return NO_OFFSET;
    }
    const uint64_t tagged = width == 8 ? load_be64(entry.data()) : load_be32(entry.data());
    const uint64_t size = tagged >> warm_header_plo_tag_bits(h);
    if (size == NO_OFFSET) _set_rc_msg(rc, WARM_RC_CORRUPT, "plo last term");
    return size;
}

uint64_t _offset_dimsets(const st_warm_slice_body* h, int fd, uint64_t posting_lists_start, warm_rc_t* wrc_o) {
    const uint64_t size = warm_header_posting_lists_size(h, fd, wrc_o);
    if (size == NO_OFFSET) {
        ST_ASSERT(wrc_o->warm_rc != 0);
        return NO_OFFSET;
    }
    uint64_t end = 0;
    if (__builtin_add_overflow(posting_lists_start, size, &end) || end > NO_OFFSET - 8) {
        _set_rc_msg(wrc_o, WARM_RC_CORRUPT, "plo last term");
        return NO_OFFSET;
    }
    return warm_next_section(end);
}

namespace {

// Bytes of all lists below which every offset of a merge is taken to fit 4 bytes with its tag; the merge checks.
constexpr uint64_t PLO32_LISTS_LIMIT = 0x20000000;
static_assert(PLO32_LISTS_LIMIT << 2 <= std::numeric_limits<uint32_t>::max(), "the widest tag has two bits");

int check_merge_source(const st_warm_slice_body* target, const st_warm_slice_body* source, warm_rc_t* rc) {
    if (st_warm_slice_is_msidx(target) && !st_warm_slice_is_msidx_with_cstore(source)) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "cannot merge sources that have versions lower than 8.0.0");
    }
    if (warm_header_is_legacy(source) != warm_header_is_legacy(target)) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "headers inconsistent across srcs legacy");
    }
    if (warm_header_is_rev1(source) != warm_header_is_rev1(target)) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "headers inconsistent across srcs rev1");
    }
    return 0;
}

// Widens the target's ranges, which start empty, to the source's.
void widen_ranges(st_warm_slice_body* target, const st_warm_slice_body* source) {
    if (warm_header_is_legacy(target)) return;
    const auto as_signed = [](const be32& field) { return static_cast<int32_t>(field.get()); };
    target->earliest.set(static_cast<uint32_t>(std::min(as_signed(target->earliest), as_signed(source->earliest))));
    target->latest.set(static_cast<uint32_t>(std::max(as_signed(target->latest), as_signed(source->latest))));
    if (!warm_header_is_rev1(target)) return;
    target->seek_addr_min.set(std::min(target->seek_addr_min.get(), source->seek_addr_min.get()));
    target->seek_addr_max.set(std::max(target->seek_addr_max.get(), source->seek_addr_max.get()));
}

void start_ranges(st_warm_slice_body* target) {
    if (warm_header_is_legacy(target)) return;
    target->earliest.set(static_cast<uint32_t>(std::numeric_limits<int32_t>::max()));
    target->latest.set(static_cast<uint32_t>(std::numeric_limits<int32_t>::min()));
    if (!warm_header_is_rev1(target)) return;
    target->seek_addr_min.set(std::numeric_limits<uint32_t>::max());
    target->seek_addr_max.set(0);
}

int set_list_flags(st_warm_slice_body* target, const st_warm_slice_body* sources, const int* fds, uint32_t count,
                   uint32_t advanced_postings, warm_rc_t* rc) {
    uint64_t lists_size = 0;
    for (uint32_t i = 0; i < count; i++) {
        const uint64_t size = warm_header_posting_lists_size(&sources[i], fds[i], rc);
        if (size == NO_OFFSET) {
            return _set_rc_verbose(rc, WARM_RC_READ, i, "error in warm_header_init_tgt_header_for_adv_postings_comp");
        }
        if (__builtin_add_overflow(lists_size, size, &lists_size)) lists_size = NO_OFFSET;
    }
    const bool rev1 = warm_header_is_rev1(target);
    if (lists_size < PLO32_LISTS_LIMIT) warm_header_set_flag(target, WARM_FLAG_PLO32, rev1);
    if (advanced_postings != 0) warm_header_set_flag(target, WARM_FLAG_PLO_TAG2, rev1);
    return _set_rc(rc, WARM_RC_OK);
}

}  // namespace

int warm_header_init_tgt_header_for_merge_srcs(st_warm_slice_body* target, const st_warm_slice_body* sources,
                                               const int* fds, uint32_t src_sz, const TSWRITEOPTS* options,
                                               uint32_t advanced_postings, warm_rc_t* rc) {
    ST_ASSERT(src_sz > 0);
    warm_header_init(target, _has_reverse_lex(&sources[0]) ? "Veldar6" : sources[0].magic);
    start_ranges(target);
    bool milliseconds = false;
    for (uint32_t i = 0; i < src_sz; i++) {
        ST_TRY(check_merge_source(target, &sources[i], rc));
        widen_ranges(target, &sources[i]);
        milliseconds |= warm_header_is_enabled(&sources[i], WARM_FLAG_MS_PRESENT);
    }
    const uint32_t level = options->write_level;
    const bool is_msidx4 = has_magic(target, "_MSIDX4");
    warm_header_set_flag(target, WARM_FLAG_PLO_TAG1, is_msidx4 ? level != 0 : level >= 2);
    if (st_warm_slice_is_msidx(target)) {
        const bool supported = is_msidx4 ? level != 0 : level >= 4;
        const bool requested = supported && options->millisecond_mode == 1;
        warm_header_set_flag(target, WARM_FLAG_PREAMBLES, is_msidx4);
        warm_header_set_flag(target, WARM_FLAG_MS_REQUESTED, requested);
        warm_header_set_flag(target, WARM_FLAG_MS_PRESENT, requested && milliseconds);
        return _set_rc(rc, WARM_RC_OK);
    }
    warm_header_set_flag(target, WARM_FLAG_VALUES_PACKED, level >= 3 && warm_header_is_rev1(target));
    if (level < 4) return _set_rc_msg(rc, WARM_RC_OK, "write level unsupported");
    return set_list_flags(target, sources, fds, src_sz, advanced_postings, rc);
}

uint64_t _compressed_size(uint32_t num_values, uint32_t nbits, warm_rc_t* rc) {
    const uint64_t size = (uint64_t{num_values} * nbits + 7) / 8;
    if (size > std::numeric_limits<uint32_t>::max()) {
        _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "companion array size");
        return NO_OFFSET;
    }
    _set_rc(rc, WARM_RC_OK);
    return size;
}

}  // namespace veldar

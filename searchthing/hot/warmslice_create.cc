#include "searchthing/hot/warmslice_create.h"

#include <fcntl.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <new>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/osfile.h"
#include "libzero/vbe.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/hot/warmslice_create_internal.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/values/values_writer.h"

namespace veldar {

namespace {

constexpr uint32_t TERMS_PER_BLOCK = 8;

// A posting's number takes at most 5 bytes; one more is kept free.
constexpr uint64_t POSTING_ROOM = 6;

const char* magic_of_level(uint32_t level) {
    switch (level) {
        case 1:
            return "Veldar6";
        case 2:
            return "_TSIDX7";
        case 3:
            return "_TSIDX8";
        default:
            return "_TSIDX9";
    }
}

// Fills what the header has on disk: in the shorter headers, values begin where the later fields would be.
int fill_header(st_warm_slice_body* header, const HOT* hot, const TSWRITEOPTS* opts, warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    const bool is_msidx = hot_slice_is_msidx(hot);
    warm_header_init(header, is_msidx ? "_MSIDX4" : magic_of_level(opts->write_level));
    header->num_postings.set(prepared.num_postings);
    header->num_terms.set(prepared.num_terms);
    companion_widths_t widths = values_companion_widths(hot_slice_value_ranges(hot));
    if (is_msidx) widths.m = 0;
    ST_TRY(values_set_header(header, prepared.num_dimsets + prepared.num_values, widths, rc));
    if (warm_header_is_legacy(header)) return 0;
    header->earliest.set(static_cast<uint32_t>(prepared.earliest));
    header->latest.set(static_cast<uint32_t>(prepared.latest));
    const bool milliseconds = !is_msidx || prepared.milliseconds == HOT_MS_DECODED;
    warm_header_set_flag(header, WARM_FLAG_MS_REQUESTED, milliseconds && st_tswriteopts_support_millisecond(opts));
    if (!warm_header_is_rev1(header)) return 0;
    header->seek_addr_min.set(prepared.address_min);
    header->seek_addr_max.set(prepared.address_max);
    return 0;
}

// The exact bytes of all lists: a list's first number stands for itself, each later one for its gap.
uint64_t count_posting_bytes(const create_lists_t& lists) {
    uint64_t total = 0;
    const uint32_t* list = lists.postings.data();
    for (const uint32_t count : lists.counts) {
        ST_ASSERT(count != 0);
        uint64_t bytes = vbe_length(list[0]);
        for (uint32_t i = 1; i < count; i++) {
            const uint32_t gap = list[i] - list[i - 1];
            bytes += 1u + (gap >= 0x80) + (gap >= 0x4000) + (gap >= 0x200000) + (gap >= 0x10000000);
        }
        total += bytes;
        list += count;
    }
    return total;
}

// Allocates the whole slice and points the handle at it. The header has been filled in `header`.
int allocate_slice(WARM* warm, const st_warm_slice_body* header, const HOT* hot, const create_lists_t& lists,
                   warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    const uint64_t dimsets = hot_slice_is_msidx(hot) ? create_metrics_dimsets_size(hot) + 2 * sizeof(uint64_t) : 0;
    const uint64_t lexicon_bound = fclex_body_bound(prepared.num_terms, prepared.lexicon_bytes, TERMS_PER_BLOCK);
    const uint64_t size =
        _offset_fclex(header) + lexicon_bound + count_posting_bytes(lists) + POSTING_ROOM + sizeof(uint64_t) + dimsets;
    // The handle's header may be read as a whole record, whatever its size on disk.
    if (!warm->owned.alloc(std::max<uint64_t>(size, WARM_HEADER_MAX_SIZE))) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "slice buffer");
    }
    warm_header_copy(reinterpret_cast<st_warm_slice_body*>(warm->owned.data()), header);
    return _populate_warm_handle_common(warm, warm->owned.data(), rc);
}

// Values in their final order, and their times apart, for the terms' metadata.
int store_values(WARM* warm, const HOT* hot, buffer<uint32_t>* times, warm_rc_t* rc) {
    const uint32_t count = hot_slice_prepared(hot)->num_values;
    if (!times->alloc(count)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "value times");
    values_writer_t writer;
    ST_TRY(values_writer_open(&writer, warm->body, -1, warm->owned.data(), rc));
    for (uint32_t number = 0; number < count; number++) {
        const st_tsval* value = hot_slice_prepared_value(hot, number);
        ST_ASSERT(number == 0 || static_cast<st_time_t>((*times)[number - 1]) >= value->time);
        (*times)[number] = static_cast<uint32_t>(value->time);
        ST_TRY(values_writer_put(&writer, *value, rc));
    }
    return values_writer_close(&writer, rc);
}

int store_lexicon(WARM* warm, const hot_prepared_t& prepared, warm_rc_t* rc) {
    const uint64_t offset = _offset_fclex(warm->body);
    const uint64_t room = fclex_body_bound(prepared.num_terms, prepared.lexicon_bytes, TERMS_PER_BLOCK);
    warm->lexicon = st_fclex_create(warm->owned.data() + offset, room, prepared.terms.data(), prepared.num_terms,
                                    TERMS_PER_BLOCK, static_cast<uint32_t>(prepared.lexicon_bytes));
    if (warm->lexicon == nullptr) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "st_fclex_create");
    warm->lexicon_size = st_fclex_size(warm->lexicon);
    ST_ASSERT(warm->lexicon_size <= room);
    warm->postings_base = offset + warm->lexicon_size;
    return 0;
}

int posting_overrun(uint32_t number, warm_rc_t* rc) {
    std::fprintf(stderr, "%d overrun writing posting list: %" PRIu32 "\n", static_cast<int>(std::time(nullptr)),
                 number);
    return _set_rc_msg(rc, WARM_RC_CAPACITY, "overrun writing posting");
}

// A list of preambles does not tell how many values it stands for.
st_term_metadata metric_record(const HOT* hot, uint32_t rank) {
    const hot_term_counts_t counts = hot_slice_prepared_counts(hot, rank);
    return {.count = counts.count,
            .earliest = static_cast<uint32_t>(counts.earliest),
            .latest = static_cast<uint32_t>(counts.latest)};
}

// Writes the lists, their end offsets and the terms' metadata; `used` receives the bytes of the whole slice.
int store_postings(WARM* warm, const HOT* hot, const create_lists_t& lists, const buffer<uint32_t>& times,
                   uint64_t* used, warm_rc_t* rc) {
    uint8_t* const slice = warm->owned.data();
    uint8_t* const end = slice + warm->owned.size();
    uint8_t* const base = slice + warm->postings_base;
    uint8_t* offsets = slice + _offset_pl_offs(warm->body);
    term_meta_writer_t metadata;
    // In buffer mode the byte-coded types count 8 bytes for an entry of 12.
    const uint64_t metadata_size = warm_header_meta_type(warm->body) == META_PACKED
                                       ? warm_header_size_metadata(warm->body)
                                       : uint64_t{lists.counts.size()} * 8;
    term_meta_writer_open_buffer_mode(&metadata, warm->body, slice + _offset_metadata(warm->body), metadata_size);

    uint8_t* out = base;
    const uint32_t* list = lists.postings.data();
    for (uint32_t rank = 0; rank < lists.counts.size(); rank++) {
        const uint32_t count = lists.counts[rank];
        uint32_t previous = 0;
        for (uint32_t i = 0; i < count; i++) {
            const uint32_t number = list[i];
            ST_ASSERT(i == 0 || number > previous);
            if (static_cast<uint64_t>(end - out) < POSTING_ROOM) return posting_overrun(number, rc);
            const uint32_t gap = number - previous;
            if (gap < 0x80) {
                *out++ = static_cast<uint8_t>(gap);
            } else {
                out += st_encode_to_vbe(out, gap);
            }
            previous = number;
        }
        store_be64(offsets, static_cast<uint64_t>(out - base));
        offsets += sizeof(uint64_t);
        const st_term_metadata record =
            hot_slice_is_msidx(hot)
                ? metric_record(hot, rank)
                : st_term_metadata{.count = count, .earliest = times[previous], .latest = times[list[0]]};
        ST_TRY(term_meta_writer_append(&metadata, &record, rc));
        list += count;
    }
    ST_ASSERT(out <= end);
    *used = static_cast<uint64_t>(out - slice);
    return term_meta_writer_close(&metadata, rc);
}

// Writes the buffer, padded to a multiple of 8, and the column store behind it; the handle learns the file's size.
int write_file(WARM* warm, uint64_t used, create_metrics_t* metrics, const char* path, bool durable,
               ospath_buf* filename, warm_rc_t* rc) {
    const uint64_t size = _offset_cstore(used);
    unique_fd fd(os_retry([&] { return ::open(path, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600); }));
    if (!fd.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, path);
    static_cast<void>(ospath_buf_set(filename, path));  // it comes from such a buffer
    if (st_file_write(fd.get(), warm->owned.data(), static_cast<int64_t>(size)) != 0) {
        return _set_rc_msg(rc, WARM_RC_WRITE, path);
    }
    warm->file_size = size;
    if (metrics != nullptr) {
        ST_TRY(cs_sync_cstore(&metrics->cstore, fd.get(), size, rc));
        warm->file_size += cs_builder_size(&metrics->cstore);
    }
    if (durable && osfile_flush(fd.get()) != 0) return _set_rc_msg(rc, WARM_RC_WRITE, path);
    return fd.close_checked() == 0 ? 0 : _set_rc_msg(rc, WARM_RC_CLOSE, path);
}

// Fills the handle's buffer with the whole slice but its column store, up to `used`.
int build_slice(WARM* warm, const HOT* hot, const TSWRITEOPTS* opts, create_metrics_t* metrics, uint64_t* used,
                warm_rc_t* rc) {
    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    st_warm_slice_body header;
    buffer<uint32_t> times;
    create_lists_t lists = {.counts = prepared.term_postings, .postings = prepared.postings};
    ST_TRY(fill_header(&header, hot, opts, rc));
    if (metrics != nullptr) {
        ST_TRY(create_metrics_open(metrics, hot, &header, rc));
        lists.postings = metrics->postings.span();
    }
    ST_TRY(allocate_slice(warm, &header, hot, lists, rc));
    ST_TRY(metrics != nullptr ? ds_store_values_from_prepared_hot(warm, hot, rc) : store_values(warm, hot, &times, rc));
    ST_TRY(store_lexicon(warm, prepared, rc));
    ST_TRY(store_postings(warm, hot, lists, times, used, rc));
    if (metrics != nullptr) create_metrics_dimsets(warm, hot, used);
    return 0;
}

WARM* _warm_slice_create(HOT* hot, ospath_buf* filename, const ospath_char_t* prefix, const ospath_char_t* suffix,
                         const TSWRITEOPTS* opts, bool durable, warm_rc_t* rc) {
    ST_ASSERT(hot != nullptr && filename != nullptr && prefix != nullptr && suffix != nullptr && opts != nullptr);
    ST_ASSERT(*prefix != '\0');
    filename->val[0] = '\0';
    uint32_t num_values, num_terms, num_postings, num_dimsets, max_measure_rank;
    if (st_hot_slice_prepare(hot, &num_values, &num_terms, &num_postings, &num_dimsets, &max_measure_rank, rc) != 0) {
        return nullptr;
    }
    ST_ASSERT(num_dimsets == 0 || hot_slice_is_msidx(hot));
    if (num_terms == 0) {
        _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "hot slice holds no terms");
        return nullptr;
    }
    warm_ptr warm(new (std::nothrow) WARM);
    if (warm == nullptr) {
        _set_rc_msg(rc, WARM_RC_NO_MEMORY, "warm slice handle");
        return nullptr;
    }
    xorshift128plus_init(&warm->rng);
    warm->writable = true;
    create_metrics_t metric_parts;
    create_metrics_t* const metrics = hot_slice_is_msidx(hot) ? &metric_parts : nullptr;
    uint64_t used = 0;
    if (build_slice(warm.get(), hot, opts, metrics, &used, rc) != 0) return nullptr;

    const hot_prepared_t& prepared = *hot_slice_prepared(hot);
    const uint64_t id = st_warm_slice_unique_id(&warm->rng);
    ospath_buf path;
    const int named = st_warm_slice_filename(&path, prefix, suffix, prepared.earliest, prepared.latest, id);
    if (named != 0) {
        _set_rc_msg(rc, named, "slice file name");
        return nullptr;
    }
    if (write_file(warm.get(), used, metrics, path.val, durable, filename, rc) != 0) return nullptr;
    warm->fname_meta = {.earliest = prepared.earliest, .latest = prepared.latest, .id = id, .kind = 1};
    _set_rc(rc, 0);
    return warm.release();
}

}  // namespace

WARM* st_warm_slice_create(HOT* hot, ospath_buf* filename, const ospath_char_t* prefix, const ospath_char_t* suffix,
                           const TSWRITEOPTS* opts, warm_rc_t* rc) {
    return _warm_slice_create(hot, filename, prefix, suffix, opts, false, rc);
}

WARM* warm_slice_create_durable(HOT* hot, ospath_buf* filename, const ospath_char_t* prefix,
                                const ospath_char_t* suffix, const TSWRITEOPTS* opts, warm_rc_t* rc) {
    return _warm_slice_create(hot, filename, prefix, suffix, opts, true, rc);
}

}  // namespace veldar

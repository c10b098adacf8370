// Reading posting lists.
#include <algorithm>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/vbe.h"
#include "searchthing/postings/plist_internal.h"

namespace veldar {

namespace {

constexpr uint64_t MIN_OFFSET_SPAN = 1024;

bool has_bytes(uint32_t type) {
    return type == PLO_RLE || type == PLO_BMAP;
}

// The first event of a list becomes a pending run of one event, so that nothing else has to know about first events.
int start_at(plist_reader* reader, uint64_t first, warm_rc_t* rc) {
    if (first >= reader->num_values) return plist_bad_event(rc, first);
    reader->last = static_cast<uint32_t>(first) - 1;
    reader->run = 1;
    return 0;
}

int start_rle(plist_reader* reader, const plo_term_context_t& context, warm_rc_t* rc) {
    const uint64_t start = static_cast<uint64_t>(context.start);
    const bool follows = start == reader->list_end;
    reader->position = reader->list_begin = start;
    reader->list_end = static_cast<uint64_t>(context.end);
    if (start == reader->list_end) return 0;
    const uint64_t buf_end = reader->buf_start + reader->buf_fill;
    const uint64_t needed = std::min(start + RLE_MAX_ITEM, reader->list_end);
    if (start < reader->buf_start || needed > buf_end) {
        // A list that follows the one before is probably one of many that are walked: those behind it are read with it.
        ST_TRY(rle_refill(reader, follows ? reader->plo_last : reader->list_end, rc));
    }
    rle_window window;
    ST_TRY(rle_open_window(reader, &window, rc));
    uint32_t first = 0;
    const uint32_t used = vbe_decode_bounded(&first, window.at, window.end);
    if (used == 0) return plist_corrupt(rc, "posting list does not decode");
    rle_close_window(reader, window.at + used);
    return start_at(reader, first, rc);
}

int start_bmap(plist_reader* reader, const plo_term_context_t& context, warm_rc_t* rc) {
    ST_ASSERT(context.start <= context.end);
    const uint64_t size = static_cast<uint64_t>(context.end - context.start);
    reader->position = reader->list_begin = reader->list_end = static_cast<uint64_t>(context.end);
    if (size == 0) return 0;
    const uint64_t offset = reader->postings_base + static_cast<uint64_t>(context.start);
    reader->bitmap.stats = reader->stats;
    // In memory a bitmap has to fit one chunk.
    const bool in_memory = !reader->memory.empty() && size <= BITMAP_CHUNK;
    const uint8_t* const src = in_memory ? reader->memory.data() + context.memory_position : nullptr;
    ST_TRY(bitmap_reader_init(&reader->bitmap, in_memory ? -1 : reader->fd, offset, size, src, rc));
    reader->plo_type = PLO_BMAP;
    return 0;
}

// An empty list of any type reads as an RLE list whose bytes are used up.
void set_empty(plist_reader* reader) {
    reader->plo_type = PLO_RLE;
    reader->marks = nullptr;
    reader->run = 0;
    reader->last = 0;
    reader->position = reader->list_begin = reader->list_end;
}

int start_list(plist_reader* reader, const plo_term_context_t& context, warm_rc_t* rc) {
    switch (context.type) {
        case PLO_RLE:
            return start_rle(reader, context, rc);
        case PLO_BMAP:
            return start_bmap(reader, context, rc);
        case PLO_SPO:
            reader->plo_type = PLO_SPO;
            return start_at(reader, static_cast<uint64_t>(context.start), rc);
        default:
            return _set_rc(rc, WARM_RC_INVALID_ARGUMENT);
    }
}

int find_list(plist_reader* reader, uint32_t term, plo_term_context_t* context, warm_rc_t* rc) {
    ST_TRY(plist_term_offset_reader(reader, context, term, rc));
    if (context->type != PLO_DEDUP) return 0;
    const uint64_t term_id = static_cast<uint64_t>(context->start);
    if (term_id >= reader->whdr->num_terms.get()) {
        return plist_corrupt(rc, "term_id < ((uint32_t) __builtin_bswap32((uint32_t) (reader->whdr->num_terms)))");
    }
    ST_TRY(plist_term_offset_reader(reader, context, static_cast<uint32_t>(term_id), rc));
    return context->type != PLO_DEDUP ? 0 : plist_corrupt(rc, "plo_cxt.type != PLO_DEDUP");
}

int place_in_memory(const plist_reader* reader, plo_term_context_t* context, warm_rc_t* rc) {
    const uint64_t fill = reader->memory.size();
    const uint64_t start = static_cast<uint64_t>(context->start);
    if (start > fill || (start == fill && context->end > context->start)) {
        return plist_corrupt(rc, "reading beyond PL memory bufpos failed ");
    }
    if (static_cast<uint64_t>(context->end) > fill) {
        return _set_rc_msg(rc, WARM_RC_SPLIT_LIST, "PL both in memory and disk is not supported");
    }
    context->memory_position = static_cast<uint32_t>(start);
    return 0;
}

int next_pending(plist_reader* reader, uint32_t* id) {
    *id = PLIST_END;
    if (reader->run == 0) return 0;
    reader->run--;
    *id = ++reader->last;
    return 0;
}

int bmap_event(plist_reader* reader, int status, uint32_t id, warm_rc_t* rc) {
    if (status != 0) return status;
    return id < reader->num_values || id == PLIST_END ? 0 : plist_bad_event(rc, id);
}

}  // namespace

int plist_corrupt(warm_rc_t* rc, const char* message) {
    return _set_rc_msg(rc, WARM_RC_CORRUPT, message);
}

int plist_bad_event(warm_rc_t* rc, uint64_t id) {
    return _set_rc_verbose(rc, WARM_RC_CORRUPT, static_cast<uint32_t>(id), "invalid tsval_id range");
}

int plist_reader_open(plist_reader* reader, const plist_section_t& section, uint64_t span, st_query_info_t* stats,
                      warm_rc_t* rc) {
    ST_ASSERT(reader != nullptr && section.whdr != nullptr);
    _set_rc(rc, 0);
    if (section.plo == nullptr || section.plo_last == ~uint64_t{0}) return _set_rc(rc, WARM_RC_MINIFIED);
    if (!reader->buf.alloc(PLIST_BUFFER)) return _set_rc(rc, WARM_RC_NO_MEMORY);
    const st_warm_slice_body* const body = section.whdr;
    reader->fd = section.fd;
    reader->whdr = body;
    reader->tag_bits = warm_header_plo_tag_bits(body);
    reader->postings_base = section.postings_base;
    reader->plo_last = section.plo_last;
    reader->num_values = body->num_values.get();
    reader->stats = stats;
    reader->buf_start = reader->buf_fill = 0;
    reader->bytes = reader->buf.data();
    reader->memory = {};
    reader->list_end = 0;
    set_empty(reader);
    // Without values the section is empty, whatever the number of terms.
    const uint32_t entries = reader->num_values == 0 ? 0 : body->num_terms.get();
    return _set_rc(rc, _ar_open(&reader->plo_reader, reader->fd, _offset_pl_offs(body), _get_plo_size(body), entries,
                                std::max(span, MIN_OFFSET_SPAN), stats, section.plo));
}

void plist_reader_attach_memory(plist_reader* reader, std::span<const uint8_t> lists) {
    reader->memory = lists;
    reader->bytes = lists.data();
    reader->buf_start = 0;
    reader->buf_fill = lists.size();
}

int64_t _pl_offset_reader(plist_reader* reader, int64_t index, uint32_t* type, warm_rc_t* rc) {
    *type = PLO_RLE;
    if (index < 0) return 0;
    const uint8_t* at = _ar_get_i(&reader->plo_reader, static_cast<uint64_t>(index), false, 0, rc);
    if (at == nullptr) return -1;
    const uint64_t entry = reader->plo_reader._obj_sz == sizeof(uint32_t) ? load_be32(at) : load_be64(at);
    const uint64_t value = entry >> reader->tag_bits;
    *type = static_cast<uint32_t>(entry & ((uint64_t{1} << reader->tag_bits) - 1));
    if (static_cast<int64_t>(value) >= 0) return static_cast<int64_t>(value);
    plist_corrupt(rc, "posting-list offset out of range");
    return -1;
}

int plist_term_offset_reader(plist_reader* reader, plo_term_context_t* context, uint32_t term, warm_rc_t* rc) {
    *context = plo_term_context_t{};
    const uint32_t entries = reader->plo_reader.count;
    if (term >= entries) return _set_rc_verbose(rc, WARM_RC_CAPACITY, term, "term id out of range");
    context->start = _pl_offset_reader(reader, int64_t{term} - 1, &context->type, rc);
    if (context->start < 0) return rc->warm_rc;
    if (!has_bytes(context->type)) return 0;
    uint32_t type = PLO_SPO;
    for (uint32_t entry = term; !has_bytes(type); entry++) {
        if (entry == entries) return plist_corrupt(rc, "posting list has no end");
        context->end = _pl_offset_reader(reader, entry, &type, rc);
        if (context->end < 0) return rc->warm_rc;
    }
    if (context->start > context->end) return plist_corrupt(rc, "plo_cxt->start < plo_cxt->end");
    if (!reader->memory.empty()) return place_in_memory(reader, context, rc);
    if (static_cast<uint64_t>(context->end) > reader->plo_last)
        return plist_corrupt(rc, "posting list ends past the last");
    return 0;
}

int _seek_reader(plist_reader* reader, uint32_t term, warm_rc_t* rc) {
    set_empty(reader);
    plo_term_context_t context;
    ST_TRY(find_list(reader, term, &context, rc));
    if (const int status = start_list(reader, context, rc)) {
        set_empty(reader);
        return status;
    }
    return 0;
}

void plist_reader_attach_marks(plist_reader* reader, plist_marks_t* marks) {
    ST_ASSERT(reader->plo_type == PLO_RLE && reader->position - reader->list_begin <= VBE_MAX_BYTES);
    reader->marks = marks;
}

int _next(plist_reader* reader, uint32_t* id, warm_rc_t* rc) {
    if (reader->plo_type == PLO_BMAP) {
        const int status = bitmap_reader_next(&reader->bitmap, id, rc);
        return bmap_event(reader, status, *id, rc);
    }
    if (reader->run == 0) ST_TRY(rle_next_item(reader, rc));
    return next_pending(reader, id);
}

int _seek(plist_reader* reader, uint32_t target, uint32_t* id, warm_rc_t* rc) {
    if (reader->plo_type == PLO_BMAP) {
        const int status = bitmap_reader_seek(&reader->bitmap, target, id, rc);
        return bmap_event(reader, status, *id, rc);
    }
    ST_TRY(rle_move_to(reader, target, rc));
    return next_pending(reader, id);
}

void close_plist_reader(plist_reader* reader) {
    _ar_close(&reader->plo_reader);
    bitmap_reader_close(&reader->bitmap);
    reader->buf.reset();
    reader->bytes = nullptr;
    reader->memory = {};
    reader->fd = -1;
    reader->list_end = 0;
    set_empty(reader);
}

}  // namespace veldar

#include "searchthing/lexicon/fclex_io.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "searchthing/base/timed_read.h"
#include "searchthing/lexicon/fclex_internal.h"

namespace veldar {

namespace {

constexpr uint64_t MAX_U32 = std::numeric_limits<uint32_t>::max();
constexpr uint64_t READER_PIECE = uint64_t{1} << 20;
constexpr uint64_t MAX_READER_CACHE = uint64_t{1} << 30;
constexpr size_t MAX_CODED_TERM = FCLEX_MAX_NUMBERS + ST_TERM_BUFFER_SIZE + LEX_SLACK;

// Copies a term or a part of one. Both sides have LEX_SLACK bytes behind the last that counts, so the usual short one
// takes a move of a fixed size.
void copy_padded(void* to, const void* from, size_t length) {
    if (length <= LEX_SLACK) {
        std::memcpy(to, from, LEX_SLACK);
    } else {
        std::memcpy(to, from, length);
    }
}

uint64_t* free_space(void* page) {
    return static_cast<uint64_t*>(page);
}
uint8_t* page_data(void* page) {
    return static_cast<uint8_t*>(page) + sizeof(uint64_t);
}

bool add_page(lex_writer_t* writer) {
    void* page = std::calloc(1, writer->_page_sz);
    if (page == nullptr) return false;
    list_node_s* node = append_list_node(writer->pages.get());
    if (node == nullptr) {
        std::free(page);
        return false;
    }
    node->item = page;
    *free_space(page) = lex_writer_buf_sz(writer);
    writer->page_at = page_data(page);
    return true;
}

int append(lex_writer_t* writer, const uint8_t* data, size_t length) {
    for (;;) {
        uint64_t* room = free_space(writer->pages->tail->item);
        const size_t part = std::min<size_t>(length, *room);
        if (part != 0) std::memcpy(writer->page_at, data, part);
        writer->page_at += part;
        *room -= part;
        writer->_blocks_off += part;
        data += part;
        length -= part;
        if (length == 0) return 0;
        if (!add_page(writer)) return WARM_RC_NO_MEMORY;
    }
}

int end_block(lex_writer_t* writer) {
    if (writer->_blocks_off > MAX_U32) return WARM_RC_DOES_NOT_FIT;
    if (writer->_bo_idx == writer->_block_end_offsets.size()) {
        buffer<uint32_t> larger;
        if (!larger.alloc(2 * writer->_block_end_offsets.size())) return WARM_RC_NO_MEMORY;
        std::copy(writer->_block_end_offsets.begin(), writer->_block_end_offsets.end(), larger.begin());
        writer->_block_end_offsets = std::move(larger);
    }
    writer->_block_end_offsets[writer->_bo_idx++] = static_cast<uint32_t>(writer->_blocks_off);
    return 0;
}

bool write_whole(int fd, const void* data, size_t length, uint64_t offset) {
    return st_pwrite(fd, data, length, offset) == static_cast<int64_t>(length);
}

int write_block_ends(const lex_writer_t* writer, int fd, uint64_t offset) {
    uint8_t words[4 * 1024];
    for (uint32_t i = 0; i < writer->_bo_idx;) {
        const uint32_t count = std::min<uint32_t>(writer->_bo_idx - i, sizeof words / 4);
        for (uint32_t k = 0; k < count; k++) store_be32(words + 4 * k, writer->_block_end_offsets[i + k]);
        if (!write_whole(fd, words, 4 * count, offset + uint64_t{4} * i)) return WARM_RC_WRITE;
        i += count;
    }
    return 0;
}

int write_pages(const lex_writer_t* writer, int fd, uint64_t offset) {
    const uint64_t end = offset + writer->_blocks_off;
    for (const list_node_s* node = writer->pages->head; node != nullptr; node = node->next) {
        const uint8_t* at = page_data(node->item);
        uint64_t left = lex_writer_buf_sz(writer) - *free_space(node->item);
        while (left != 0) {
            const int64_t put = st_pwrite(fd, at, left, offset);
            if (put < 1) return WARM_RC_WRITE;
            at += put;
            left -= static_cast<uint64_t>(put);
            offset += static_cast<uint64_t>(put);
        }
    }
    ST_ASSERT(offset == end);
    return 0;
}

int write_body(bool verbose, lex_writer_t* writer, int fd, uint64_t offset, uint64_t* end_offset) {
    if (writer->_blocks_off != 0) {
        ST_TRY(end_block(writer));
        ST_ASSERT(writer->_blocks_off == writer->_block_end_offsets[writer->_bo_idx - 1]);
    }
    if (writer->_uncompressed_size > MAX_U32) return WARM_RC_DOES_NOT_FIT;
    st_fclex_body header;
    header.terms.set(writer->_cursor);
    header.tperb.set(writer->tperb);
    header.uncompressed_size.set(static_cast<uint32_t>(writer->_uncompressed_size));
    if (!write_whole(fd, &header, sizeof header, offset)) return WARM_RC_WRITE;
    ST_TRY(write_block_ends(writer, fd, offset + FCLEX_HEADER_SIZE));
    const uint64_t blocks_offset = offset + FCLEX_HEADER_SIZE + 4 * writer->_bo_idx;
    ST_TRY(write_pages(writer, fd, blocks_offset));
    *end_offset = blocks_offset + writer->_blocks_off;
    if (verbose) {
        std::fprintf(stderr, "closing writer, wrote page_num=%u, page_bytes=%llu.\n", get_count(writer->pages.get()),
                     static_cast<unsigned long long>(writer->_blocks_off));
    }
    return 0;
}

}  // namespace

void lex_page_list_deleter::operator()(list_t* pages) const {
    delete_list(&pages, true);
}

int _lex_writer_open(bool verbose, lex_writer_t* writer, uint32_t tperb, uint64_t page_size, uint32_t expected_terms) {
    *writer = {};
    writer->_page_sz = page_size == 0 ? LEX_WRITER_PAGE_SIZE : page_size;
    ST_ASSERT(writer->_page_sz >= sizeof(size_t) + 1);
    writer->tperb = writer->position = tperb;
    const uint64_t num_blocks = tperb == 0 ? 0 : fclex_shape(expected_terms, tperb).blocks();
    // The hint is a bound in merges, where most terms may be common to many sources.
    const uint64_t first_room = std::clamp<uint64_t>(num_blocks, 16, 0x10000);
    writer->pages.reset(new_list(std::free));
    if (writer->pages == nullptr || !writer->_block_end_offsets.alloc(first_room) || !add_page(writer)) {
        *writer = {};
        return WARM_RC_NO_MEMORY;
    }
    if (verbose) {
        std::fprintf(stderr, "creating writer, num_blocks=%u, num_terms=%u, page_sz=%llu.\n",
                     static_cast<uint32_t>(num_blocks), expected_terms,
                     static_cast<unsigned long long>(writer->_page_sz));
    }
    return 0;
}

int lex_writer_put_after(lex_writer_t* writer, std::string_view term, uint32_t common) {
    const uint32_t tperb = writer->tperb;
    ST_ASSERT(tperb);
    ST_ASSERT(term.size() <= ST_MAX_TERM_LENGTH);  // _lex_writer_put and the readers see to it
    const auto length = static_cast<uint32_t>(term.size());
    if (writer->_cursor != 0) {  // the first term may equal the empty one that `previous` holds
        if (common == length) return length == writer->previous_length ? 0 : WARM_RC_INVALID_ARGUMENT;
        const std::span<const uint8_t> previous = fclex_bytes(writer->previous, writer->previous_length);
        if (!fclex_ascends(previous, fclex_bytes(term.data(), length), common)) return WARM_RC_INVALID_ARGUMENT;
    }
    if (writer->_cursor == MAX_U32) return WARM_RC_DOES_NOT_FIT;
    if (writer->position == tperb) {
        if (writer->_blocks_off != 0) ST_TRY(end_block(writer));
        writer->position = 0;
    }
    const uint32_t position = writer->position++;
    const uint32_t start = position == 0 ? 0 : common;
    // Nearly every page has room for the longest entry; what may not fit is coded aside and cut into pages.
    uint8_t aside[MAX_CODED_TERM];
    uint64_t* const room = free_space(writer->pages->tail->item);
    const bool fits = *room >= MAX_CODED_TERM;
    uint8_t* const coded = fits ? writer->page_at : aside;
    uint32_t size = fclex_encode_numbers(coded, position, tperb - 1, common, length - start);
    copy_padded(coded + size, term.data() + start, length - start);
    size += length - start;
    if (fits) {
        writer->page_at += size;
        *room -= size;
        writer->_blocks_off += size;
    } else {
        ST_TRY(append(writer, aside, size));
    }
    copy_padded(writer->previous + common, term.data() + common, length - common);
    writer->previous_length = length;
    writer->_cursor++;
    writer->_uncompressed_size += length;
    return 0;
}

int _lex_writer_put(lex_writer_t* writer, const char* term, size_t length) {
    if (length > ST_MAX_TERM_LENGTH) return WARM_RC_DOES_NOT_FIT;
    fclex_text padded;
    if (length != 0) std::memcpy(padded, term, length);
    std::memset(padded + length, 0, LEX_SLACK);
    const uint32_t common = _lcp(fclex_bytes(writer->previous, writer->previous_length), fclex_bytes(padded, length));
    return lex_writer_put_after(writer, {padded, length}, common);
}

int _lex_writer_close(bool verbose, lex_writer_t* writer, int fd, uint64_t offset, uint64_t* end_offset) {
    const int status = write_body(verbose, writer, fd, offset, end_offset);
    *writer = {};
    return status;
}

int _lex_reader_open(lex_reader_t* reader, int fd, int64_t body_offset) {
    *reader = {};
    if (body_offset < 0) return WARM_RC_INVALID_ARGUMENT;
    st_fclex_body header;
    const auto offset = static_cast<uint64_t>(body_offset);
    ST_TRY(_pread_verify(fd, &header, sizeof header, offset, "_lex_reader_open"));
    const fclex_shape shape(header);
    if (!shape.is_valid()) return WARM_RC_ZERO_TERMS;
    if (shape.max_block() > MAX_READER_CACHE) return WARM_RC_NO_MEMORY;
    reader->fd = fd;
    reader->body_offset = body_offset;
    reader->shape = shape;
    reader->blocks = {fd, offset, shape, nullptr, {READER_PIECE, READER_PIECE}, nullptr};
    return 0;
}

const uint8_t* _lex_reader_get(lex_reader_t* reader, uint32_t bid, warm_rc_t* rc) {
    ST_ASSERT(bid < reader->shape.blocks());
    std::span<const uint8_t> bytes;
    if (const int status = reader->blocks.get(bid, &bytes)) {
        const bool damaged = status == WARM_RC_CORRUPT;
        _set_rc_verbose(rc, status, bid, damaged ? "surpassed cache size in _lex_reader_get" : "_lex_reader_get");
        return nullptr;
    }
    const uint32_t length = reader->at.length;
    reader->block = bid;
    reader->at = {bytes, reader->blocks.readable(bytes), reader->shape.tperb};
    reader->at.length = length;
    return reader->at.at;
}

int _lex_reader_get_size(lex_reader_t* reader, uint64_t* size) {
    be32 end;
    const uint64_t blocks = reader->shape.blocks_offset();
    const uint64_t offset = static_cast<uint64_t>(reader->body_offset) + blocks - sizeof end;
    ST_TRY(_pread_verify(reader->fd, &end, sizeof end, offset, "_lex_reader_get_size"));
    *size = blocks + end.get();
    return 0;
}

void _lex_reader_close(lex_reader_t* reader) {
    *reader = {};
}

namespace {

int start_block(lex_reader_t* reader, uint32_t block) {
    warm_rc_t rc;
    return _lex_reader_get(reader, block, &rc) == nullptr ? rc.warm_rc : 0;
}

// Decodes the next term of the block on top of the one before, which may be the last of another block. A foreign writer
// may have stored fewer shared bytes than there are: `common` counts them all.
int decode_term(lex_reader_t* reader, bool has_previous) {
    fclex_entry entry;
    if (fclex_next_entry(&reader->at, &entry) != 0) return WARM_RC_CORRUPT;
    if (entry.rest > ST_MAX_TERM_LENGTH - entry.shared) return WARM_RC_CORRUPT;
    char* const end = reader->term + entry.shared;
    reader->common = entry.shared;
    if (has_previous) {
        const std::span<const uint8_t> old_rest = fclex_bytes(end, reader->at.length - entry.shared);
        const std::span<const uint8_t> rest = {entry.text, entry.rest};
        const uint32_t more = _lcp(rest, old_rest);
        if (!fclex_ascends(old_rest, rest, more)) return WARM_RC_CORRUPT;
        reader->common += more;
    }
    copy_padded(end, entry.text, entry.rest);
    reader->at.length = entry.shared + entry.rest;
    return 0;
}

}  // namespace

int _reload_term(lex_reader_t* reader) {
    if (reader->cursor >= reader->shape.terms) return WARM_RC_CORRUPT;
    reader->at.length = 0;
    ST_TRY(start_block(reader, reader->cursor / reader->shape.tperb));
    const uint32_t position = reader->cursor % reader->shape.tperb;
    while (reader->at.position <= position) ST_TRY(decode_term(reader, reader->at.position != 0));
    return 0;
}

int _increment_cursor(lex_reader_t* reader) {
    if (reader->cursor >= reader->shape.terms) return WARM_RC_FAILED;
    reader->cursor++;
    if (reader->cursor == reader->shape.terms) return 0;
    if (reader->at.position == reader->shape.tperb) {
        ST_ASSERT(reader->cursor == (uint64_t{reader->block} + 1) * reader->shape.tperb);
        ST_TRY(start_block(reader, reader->block + 1));
    }
    return decode_term(reader, true);
}

}  // namespace veldar

#include "searchthing/lexicon/fclex.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "searchthing/base/warmslice_util.h"
#include "searchthing/lexicon/fclex_internal.h"

namespace veldar {

namespace {

constexpr size_t BODY_COPY_SIZE = 16;  // the header and the first block offset
static_assert(BODY_COPY_SIZE == FCLEX_HEADER_SIZE + sizeof(be32));
constexpr uint64_t MAX_BLOCK_CACHE = uint64_t{1} << 30;

uint64_t body_size(uint64_t block_count, uint32_t last_block_end) {
    return fclex_blocks_offset(block_count) + last_block_end;
}

// Whether the last entry of the offset table of the body at `offset` could be read.
bool read_last_block_end(int fd, int64_t offset, uint64_t block_count, uint32_t* end) {
    be32 word;
    const uint64_t at = static_cast<uint64_t>(offset) + fclex_blocks_offset(block_count) - sizeof word;
    if (_pread_verify(fd, &word, sizeof word, at, "error reading last block offset") != 0) return false;
    *end = word.get();
    return true;
}

FCLEX* open_in_memory(const uint8_t* body, uint64_t limit) {
    const auto* header = reinterpret_cast<const st_fclex_body*>(body);
    if (header->terms.get() == 0 || header->tperb.get() == 0) return nullptr;
    const uint64_t blocks = fclex_blocks_offset(fclex_block_count(header->terms.get(), header->tperb.get()));
    if (limit != 0 && blocks > limit) return nullptr;
    FCLEX* lex = new (std::nothrow) FCLEX;
    if (lex == nullptr) return nullptr;
    lex->body = body;
    lex->block_offsets = body + FCLEX_HEADER_SIZE;
    lex->blocks = body + blocks;
    lex->body_limit = limit;
    return lex;
}

}  // namespace

void fclex_check(const FCLEX* lex) {
    ST_ASSERT(lex != nullptr && lex->body != nullptr);
    if (fclex_in_file(lex)) {
        ST_ASSERT(lex->block_offsets == nullptr && lex->blocks == nullptr && lex->fclex_offset != -1);
    } else {
        ST_ASSERT(lex->fclex_offset == -1 && lex->block_cache == nullptr && lex->block_cache_size == 0);
    }
}

FCLEX* st_fclex_open(const void* body) {
    ST_ASSERT(body != nullptr);
    return open_in_memory(static_cast<const uint8_t*>(body), 0);
}

FCLEX* _fclex_open_bounded(std::span<const uint8_t> body) {
    if (body.size() < FCLEX_HEADER_SIZE) return nullptr;
    return open_in_memory(body.data(), body.size());
}

FCLEX* st_fclex_open_fd(int fd, int64_t offset) {
    if (fd < 0 || offset < 0) return nullptr;
    buffer<uint8_t> body, cache;
    if (!body.alloc(BODY_COPY_SIZE)) return nullptr;
    if (_pread_verify(fd, body.data(), BODY_COPY_SIZE, static_cast<uint64_t>(offset), "reading fclex body") != 0) {
        return nullptr;
    }
    const auto* header = reinterpret_cast<const st_fclex_body*>(body.data());
    if (header->terms.get() == 0 || header->tperb.get() == 0) return nullptr;
    const uint64_t cache_size = header->tperb.get() * FCLEX_MAX_TERM_BYTES;
    if (cache_size > MAX_BLOCK_CACHE || !cache.alloc(cache_size)) return nullptr;
    FCLEX* lex = new (std::nothrow) FCLEX;
    if (lex == nullptr) return nullptr;
    lex->owned_body = std::move(body);
    lex->owned_cache = std::move(cache);
    lex->body = lex->owned_body.data();
    lex->fd = fd;
    lex->fclex_offset = offset;
    lex->block_cache = lex->owned_cache.data();
    lex->block_cache_size = cache_size;
    return lex;
}

void st_fclex_close(FCLEX* lex) {
    delete lex;
}

uint32_t st_fclex_terms(const FCLEX* lex) {
    fclex_check(lex);
    return fclex_header(lex)->terms.get();
}

uint32_t st_fclex_blocksize(const FCLEX* lex) {
    fclex_check(lex);
    return fclex_tperb(lex);
}

uint32_t st_fclex_how_many_blocks(const FCLEX* lex) {
    fclex_check(lex);
    return static_cast<uint32_t>(fclex_block_count(lex));
}

uint32_t st_fclex_uncompressed_size(const FCLEX* lex) {
    fclex_check(lex);
    return fclex_header(lex)->uncompressed_size.get();
}

uint64_t st_fclex_size(FCLEX* lex) {
    fclex_check(lex);
    const uint64_t block_count = fclex_block_count(lex);
    uint32_t end = 0;
    if (!fclex_in_file(lex)) {
        end = load_be32(lex->block_offsets + 4 * (block_count - 1));
    } else if (!read_last_block_end(lex->fd, lex->fclex_offset, block_count, &end)) {
        return 0;
    }
    return body_size(block_count, end);
}

uint64_t st_fclex_size_fd(int fd, int64_t offset) {
    uint8_t start[BODY_COPY_SIZE];
    if (offset < 0) return 0;
    if (_pread_verify(fd, start, sizeof start, static_cast<uint64_t>(offset), "reading body for st_fclex_size_fd") !=
        0) {
        return 0;
    }
    const auto* header = reinterpret_cast<const st_fclex_body*>(start);
    if (header->terms.get() == 0 || header->tperb.get() == 0) return 0;
    const uint64_t block_count = fclex_block_count(header->terms.get(), header->tperb.get());
    uint32_t end = 0;
    if (!read_last_block_end(fd, offset, block_count, &end)) return 0;
    return body_size(block_count, end);
}

void st_fclex_relocate(FCLEX* lex, void* new_body) {
    fclex_check(lex);
    ST_ASSERT(!fclex_in_file(lex) && new_body != nullptr);
    uint64_t size = st_fclex_size(lex);
    if (lex->body_limit != 0) lex->body_limit = size = std::min(size, lex->body_limit);
    std::memcpy(new_body, lex->body, size);
    lex->body = static_cast<uint8_t*>(new_body);
    lex->block_offsets = lex->body + FCLEX_HEADER_SIZE;
    lex->blocks = lex->body + fclex_blocks_offset(fclex_block_count(lex));
}

int st_fclex_dump_block(void*, const FCLEX*, uint32_t) {
    return 0;
}

int bo_reader_load(bo_reader_t* reader, uint64_t block, uint64_t wanted) {
    ST_ASSERT(block < reader->count && wanted >= 2 && wanted <= bo_reader_t::RUN);
    // The block's start is the end of the block before.
    const uint64_t first = block == 0 ? 0 : block - 1;
    const uint64_t size = 4 * std::min(reader->count - first, wanted);
    const int64_t got =
        st_timed_pread_msg(reader->fd, reader->run, size, reader->table_offset + 4 * first, reader->stats, false);
    reader->first = static_cast<uint32_t>(first);
    reader->held = got < 0 ? 0 : static_cast<uint32_t>(got / 4);
    if (bo_reader_holds(*reader, block)) return 0;
    std::fputs("read failed in get_block_offset_fd\n", stderr);
    return read_status(got);
}

int fclex_fetch_block(FCLEX* lex, uint64_t block, st_query_info_t* stats, std::span<const uint8_t>* bytes) {
    fclex_check(lex);
    const uint64_t block_count = fclex_block_count(lex);
    ST_ASSERT(block < block_count);
    if (!fclex_in_file(lex)) return fclex_block_in_memory(lex, block, bytes);
    const auto body = static_cast<uint64_t>(lex->fclex_offset);
    bo_reader_t ends(lex->fd, body, block_count, stats);
    fclex_extent extent;
    if (bo_reader_get(&ends, block, 2, &extent) != 0) return WARM_RC_READ;
    ST_TRY(fclex_check_file_extent(extent, lex->block_cache_size));
    const uint64_t at = body + fclex_blocks_offset(block_count) + extent.start;
    *bytes = {lex->block_cache, extent.size()};
    if (st_timed_pread_msg(lex->fd, lex->block_cache, extent.size(), at, stats, false) == int64_t{extent.size()})
        return 0;
    std::fputs("error preading block from offsets\n", stderr);
    return WARM_RC_READ;
}

int fclex_next_term_checked(fclex_block_cursor* cursor, char* text) {
    uint32_t shared, rest;
    const uint8_t* const at =
        fclex_decode_numbers(cursor->at, cursor->end, cursor->position, cursor->last_position, &shared, &rest);
    if (at == nullptr) return WARM_RC_CORRUPT;
    if (shared > FCLEX_MAX_PREFIX) return WARM_RC_FAILED;
    if (shared > cursor->length) return WARM_RC_CORRUPT;
    const uint32_t kept = std::min(rest, ST_MAX_TERM_LENGTH - shared);
    std::memcpy(text + shared, at, kept);
    cursor->length = shared + kept;
    text[cursor->length] = '\0';
    cursor->at = at + rest;
    cursor->position++;
    return 0;
}

}  // namespace veldar

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

// The size of the body at `offset` of a file; 0 when the last entry of its offset table cannot be read.
uint64_t size_in_file(int fd, int64_t offset, const fclex_shape& shape) {
    be32 end;
    const uint64_t at = static_cast<uint64_t>(offset) + shape.blocks_offset() - sizeof end;
    if (_pread_verify(fd, &end, sizeof end, at, "error reading last block offset") != 0) return 0;
    return shape.blocks_offset() + end.get();
}

// Reads the start of the body at `offset` of a file. False when it cannot be read or is no body.
bool read_start(int fd, int64_t offset, const char* what, uint8_t* start, fclex_shape* shape) {
    if (_pread_verify(fd, start, BODY_COPY_SIZE, static_cast<uint64_t>(offset), what) != 0) return false;
    *shape = fclex_shape(*reinterpret_cast<const st_fclex_body*>(start));
    return shape->is_valid();
}

FCLEX* open_in_memory(const uint8_t* body, uint64_t limit) {
    const fclex_shape shape(*reinterpret_cast<const st_fclex_body*>(body));
    if (!shape.is_valid() || (limit != 0 && shape.blocks_offset() > limit)) return nullptr;
    FCLEX* lex = new (std::nothrow) FCLEX;
    if (lex == nullptr) return nullptr;
    lex->body = body;
    lex->block_offsets = body + FCLEX_HEADER_SIZE;
    lex->blocks = body + shape.blocks_offset();
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
    buffer<uint8_t> body, cache;
    fclex_shape shape;
    if (!body.alloc(BODY_COPY_SIZE) || !read_start(fd, offset, "reading fclex body", body.data(), &shape))
        return nullptr;
    const uint64_t cache_size = shape.max_block();
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
    return fclex_shape(lex).terms;
}

uint32_t st_fclex_blocksize(const FCLEX* lex) {
    fclex_check(lex);
    return fclex_shape(lex).tperb;
}

uint32_t st_fclex_how_many_blocks(const FCLEX* lex) {
    fclex_check(lex);
    return static_cast<uint32_t>(fclex_shape(lex).blocks());
}

uint32_t st_fclex_uncompressed_size(const FCLEX* lex) {
    fclex_check(lex);
    return reinterpret_cast<const st_fclex_body*>(lex->body)->uncompressed_size.get();
}

uint64_t st_fclex_size(FCLEX* lex) {
    fclex_check(lex);
    const fclex_shape shape(lex);
    if (fclex_in_file(lex)) return size_in_file(lex->fd, lex->fclex_offset, shape);
    return shape.blocks_offset() + load_be32(lex->blocks - sizeof(be32));
}

uint64_t st_fclex_size_fd(int fd, int64_t offset) {
    uint8_t start[BODY_COPY_SIZE];
    fclex_shape shape;
    if (!read_start(fd, offset, "reading body for st_fclex_size_fd", start, &shape)) return 0;
    return size_in_file(fd, offset, shape);
}

void st_fclex_relocate(FCLEX* lex, void* new_body) {
    fclex_check(lex);
    ST_ASSERT(!fclex_in_file(lex) && new_body != nullptr);
    uint64_t size = st_fclex_size(lex);
    if (lex->body_limit != 0) lex->body_limit = size = std::min(size, lex->body_limit);
    std::memcpy(new_body, lex->body, size);
    lex->body = static_cast<uint8_t*>(new_body);
    lex->block_offsets = lex->body + FCLEX_HEADER_SIZE;
    lex->blocks = lex->body + fclex_shape(lex).blocks_offset();
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

int fclex_check_extent(const fclex_extent& extent, uint64_t max_block) {
    if (extent.end < extent.start) return WARM_RC_CORRUPT;
    if (extent.size() <= max_block) return 0;
    std::fputs("error trying to read invalid block size in _get_block_from_offsets_fd\n", stderr);
    return WARM_RC_CORRUPT;
}

fclex_piece fclex_whole(const FCLEX* lex) {
    const auto before = static_cast<uint64_t>(lex->blocks - lex->body);
    return {lex->blocks, 0, lex->body_limit == 0 ? fclex_piece::NO_END : lex->body_limit - before};
}

int64_t fclex_read_piece(fclex_piece* piece, int fd, uint64_t blocks_offset, uint64_t start, uint64_t size,
                         uint8_t* out, st_query_info_t* stats) {
    const int64_t got = st_timed_pread_msg(fd, out, size, blocks_offset + start, stats, false);
    *piece = {out, start, start + (got < 0 ? 0 : static_cast<uint64_t>(got))};
    return got;
}

}  // namespace veldar

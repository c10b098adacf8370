// The ordered walk over a lexicon, and the prefix enumeration on top of it.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "searchthing/fclex.h"
#include "searchthing/fclex_internal.h"
#include "searchthing/warmslice_util.h"

namespace veldar {

namespace {

// A walk over everything reads 128 KiB of blocks and 16 KiB of offsets at a time. A walk behind a prefix usually ends
// within a few blocks: it begins with pieces of a sixteenth of that and doubles them as it goes on.
constexpr uint64_t MAX_PIECE = uint64_t{128} << 10;
constexpr uint64_t MAX_OFFSETS = 4096;
constexpr uint64_t FIRST_PREFIX_PIECE = MAX_PIECE / 16;
constexpr uint64_t FIRST_PREFIX_OFFSETS = MAX_OFFSETS / 16;
constexpr uint64_t SLACK = 64;  // loadable bytes behind a piece, so that its last terms take the fast path too

// Hands out the blocks from `first_block` on. In memory they are where they are; from a file they come in large pieces,
// through buffers of the walk's own, so that the callback may look terms up in the same handle.
class block_stream {
  public:
    block_stream(FCLEX* lex, uint64_t first_block, bool whole, st_query_info_t* stats)
        : lex_(lex),
          stats_(stats),
          block_count_(fclex_block_count(lex)),
          next_(first_block),
          piece_size_(whole ? MAX_PIECE : FIRST_PREFIX_PIECE),
          offsets_size_(whole ? MAX_OFFSETS : FIRST_PREFIX_OFFSETS) {}

    // Sets the next block's bytes, and the end of the bytes that may be loaded. 0, -8, -12 or -2.
    int next(std::span<const uint8_t>* bytes, const uint8_t** readable) {
        if (!fclex_in_file(lex_)) return next_in_memory(bytes, readable);
        fclex_extent extent;
        ST_TRY(next_extent(&extent));
        ST_TRY(fclex_check_extent(lex_, extent));
        if (extent.start < piece_start_ || extent.end > piece_end_) ST_TRY(load_piece(extent));
        *bytes = {piece_.data() + (extent.start - piece_start_), extent.size()};
        *readable = piece_.data() + piece_.size();
        next_++;
        return 0;
    }

  private:
    int next_in_memory(std::span<const uint8_t>* bytes, const uint8_t** readable) {
        ST_TRY(fclex_fetch_block(lex_, next_, stats_, bytes));
        *readable = lex_->body_limit != 0 ? lex_->body + lex_->body_limit : bytes->data() + bytes->size();
        next_++;
        return 0;
    }

    // Entry i of the offset table, which must be one that load_offsets was asked for.
    uint32_t offset_at(uint64_t i) const {
        const uint64_t k = i - offsets_start_;
        return k < offsets_count_ ? load_be32(offsets_.data() + 4 * k) : FCLEX_BAD_OFFSET;
    }

    int next_extent(fclex_extent* extent) {
        const uint64_t first = next_ == 0 ? 0 : next_ - 1;
        if (next_ >= offsets_start_ + offsets_count_) ST_TRY(load_offsets(first));
        *extent = {next_ == 0 ? 0 : offset_at(first), offset_at(next_)};
        return 0;
    }

    // Loads entries from `first` on; those that the file does not give stay absent and read as FCLEX_BAD_OFFSET.
    int load_offsets(uint64_t first) {
        const uint64_t count = std::min(block_count_ - first, std::max<uint64_t>(offsets_size_, 2));
        if (offsets_.size() < 4 * count && !offsets_.alloc(4 * count)) return WARM_RC_NO_MEMORY;
        const uint64_t at = static_cast<uint64_t>(lex_->fclex_offset) + FCLEX_HEADER_SIZE + 4 * first;
        const int64_t got = st_timed_pread_msg(lex_->fd, offsets_.data(), 4 * count, at, stats_, false);
        offsets_start_ = first;
        offsets_count_ = got < 0 ? 0 : static_cast<uint64_t>(got) / 4;
        if (offsets_start_ + offsets_count_ <= next_) std::fputs("read failed in get_block_offset_fd\n", stderr);
        offsets_size_ = std::min(2 * offsets_size_, MAX_OFFSETS);
        return 0;
    }

    // The end of the run of blocks behind the next one that fits one piece, as far as the loaded offsets ascend.
    uint32_t run_end(const fclex_extent& extent) const {
        uint32_t end = extent.end;
        for (uint64_t i = next_ + 1; i < offsets_start_ + offsets_count_; i++) {
            const uint32_t candidate = offset_at(i);
            if (candidate < end || candidate - extent.start > piece_size_) break;
            end = candidate;
        }
        return end;
    }

    // Reads the piece that begins with the next block. Where the file ends early, the whole blocks before are served.
    int load_piece(const fclex_extent& extent) {
        const uint32_t end = run_end(extent);
        const uint64_t size = end - extent.start;
        const uint64_t wanted = std::max(size, piece_size_) + SLACK;
        if (piece_.size() < wanted && !piece_.alloc(wanted)) return WARM_RC_NO_MEMORY;
        const uint64_t at =
            static_cast<uint64_t>(lex_->fclex_offset) + fclex_blocks_offset(block_count_) + extent.start;
        const int64_t got = st_timed_pread_msg(lex_->fd, piece_.data(), size, at, stats_, false);
        piece_start_ = extent.start;
        piece_end_ = extent.start + (got < 0 ? 0 : static_cast<uint64_t>(got));
        piece_size_ = std::min(2 * piece_size_, MAX_PIECE);
        if (extent.end <= piece_end_ && got >= 0) return 0;
        std::fputs("error preading block from offsets\n", stderr);
        return WARM_RC_READ;
    }

    FCLEX* lex_;
    st_query_info_t* stats_;
    uint64_t block_count_;
    uint64_t next_;
    uint64_t piece_size_;    // of the next read, in bytes
    uint64_t offsets_size_;  // of the next read, in entries
    buffer<uint8_t> offsets_;
    uint64_t offsets_start_ = 0, offsets_count_ = 0;
    buffer<uint8_t> piece_;
    uint64_t piece_start_ = 0, piece_end_ = 0;  // in the blocks area
};

// Calls `visit(id, text, length)` for every term from a block on until it returns false. 0, or why the walk failed.
template <typename Visit>
int walk(FCLEX* lex, uint64_t first_block, bool whole, st_query_info_t* stats, Visit visit) {
    const uint32_t tperb = fclex_tperb(lex);
    const uint64_t block_count = fclex_block_count(lex);
    block_stream stream(lex, first_block, whole, stats);
    char text[ST_TERM_BUFFER_SIZE];
    text[0] = '\0';
    for (uint64_t block = first_block; block < block_count; block++) {
        std::span<const uint8_t> bytes;
        const uint8_t* readable;
        if (const int status = stream.next(&bytes, &readable); status != 0) {
            return status == WARM_RC_NO_MEMORY ? status : WARM_RC_READ;
        }
        fclex_block_cursor cursor = fclex_start_block(bytes, readable, tperb);
        const uint32_t first_id = static_cast<uint32_t>(block * tperb);
        const uint32_t terms = fclex_terms_in_block(lex, block);
        for (uint32_t j = 0; j < terms; j++) {
            ST_TRY(fclex_next_term(&cursor, text));
            if (!visit(first_id + j, text, cursor.length)) return 0;
        }
    }
    return 0;
}

struct enum_context {
    st_enum_answer* answers;
    uint32_t capacity;
    uint32_t count;
    bool upper_case;
};

void store_answer(enum_context* context, int32_t id, const char* term, size_t length) {
    st_enum_answer* answer = &context->answers[context->count++];
    std::memcpy(answer->term, term, length);
    answer->term[length] = '\0';
    answer->id = static_cast<uint32_t>(id);
}

int store_term(int32_t id, const char* term, size_t length, void* opaque) {
    auto* context = static_cast<enum_context*>(opaque);
    if (context->count == context->capacity) return -1;
    store_answer(context, id, term, length);
    return 1;
}

int store_term_behind_blank(int32_t id, const char* term, size_t length, void* opaque) {
    auto* context = static_cast<enum_context*>(opaque);
    if (context->count == context->capacity) return -1;
    store_answer(context, id, term + 1, length - 1);
    const bool upper = std::any_of(term + 1, term + length, [](char c) { return c >= 'A' && c <= 'Z'; });
    context->upper_case = context->upper_case || upper;
    return 1;
}

}  // namespace

int64_t st_fclex_apply(FCLEX* lex, const char* prefix, st_term_fn fn, void* context, st_query_info_t* stats) {
    if (lex == nullptr) return WARM_RC_NO_LEXICON;
    fclex_check(lex);
    int64_t total = 0;
    bool stopped = false;
    const auto call = [&](uint32_t id, const char* text, size_t length) {
        const int result = fn(static_cast<int32_t>(id), text, length, context);
        stopped = result == -1;
        if (!stopped) total += result;
        return !stopped;
    };

    int status = 0;
    if (prefix == nullptr || *prefix == '\0') {
        status = walk(lex, 0, true, stats, call);
    } else {
        warm_rc_t rc;
        const int64_t block = _find_block(lex, prefix, stats, &rc);
        if (block < 0) return rc.warm_rc;
        const size_t prefix_length = std::strlen(prefix);
        const auto call_if_prefixed = [&](uint32_t id, const char* text, size_t length) {
            const int order = std::strncmp(text, prefix, prefix_length);
            return order < 0 || (order == 0 && call(id, text, length));
        };
        status = walk(lex, static_cast<uint64_t>(block), false, stats, call_if_prefixed);
    }
    if (status != 0) return status;
    return stopped ? -1 : total;
}

int st_fclex_enum(FCLEX* lex, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag) {
    if (prefix == nullptr) prefix = "";
    enum_context context = {answers, capacity, 0, false};
    const size_t length = std::strlen(prefix);
    if (case_flag && length < ST_MAX_TERM_LENGTH) {
        char blank_prefix[ST_TERM_BUFFER_SIZE];
        blank_prefix[0] = ' ';
        std::memcpy(blank_prefix + 1, prefix, length + 1);
        st_fclex_apply(lex, blank_prefix, store_term_behind_blank, &context, nullptr);
        if (context.upper_case) return static_cast<int>(context.count);
    }
    context.count = 0;
    st_fclex_apply(lex, prefix, store_term, &context, nullptr);
    return static_cast<int>(context.count);
}

}  // namespace veldar

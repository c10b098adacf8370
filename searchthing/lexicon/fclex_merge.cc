// The merge of lexicon bodies, by a loser tree whose players carry how much they share with the term that went out
// last ("Engineering Parallel String Sorting", Bingmann, Eberle and Sanders, 2017). The one that shares more is the
// smaller, so most games compare two numbers; only on a draw are bytes looked at, and only those behind the shared
// ones. The winner's number is also the prefix that front coding needs.
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/osfile.h"
#include "searchthing/lexicon/fclex_internal.h"
#include "searchthing/lexicon/fclex_io.h"

namespace veldar {

namespace {

constexpr int32_t AT_END = -1;

struct player_t {
    uint32_t source = 0;
    int32_t common = AT_END;  // bytes shared with the last term that went out; AT_END for a source that is read up
};

class loser_tree {
  public:
    explicit loser_tree(const lex_reader_t* readers, uint32_t count) : readers_(readers), count_(count) {}

    // All sources stand on their first term. They meet in the order of the leaves: the first at a node waits there.
    void start() {
        bool waiting[LEX_MERGE_MAX_SOURCES] = {};
        for (uint32_t source = 0; source < count_; source++) {
            player_t player = {source, 0};
            uint32_t node = (count_ + source) / 2;
            for (; node != 0; node /= 2) {
                if (!waiting[node]) break;
                player = play(node, player);
            }
            waiting[node] = true;
            nodes_[node] = player;
        }
        // As many nodes as players, one of which is the winner.
        ST_ASSERT(std::all_of(waiting, waiting + count_, [](bool taken) { return taken; }));
    }

    const player_t& winner() const { return nodes_[0]; }

    // The winner's term has gone out, and its source stands on the next one or at its end.
    void replay(player_t player) {
        for (uint32_t node = (count_ + player.source) / 2; node != 0; node /= 2) player = play(node, player);
        nodes_[0] = player;
    }

  private:
    // The winner goes on; the loser stays, and what it shares with the winner is what counts when that has gone out.
    player_t play(uint32_t node, player_t player) {
        player_t& other = nodes_[node];
        if (player.common == other.common && player.common != AT_END) {
            const lex_reader_t& a = readers_[player.source];
            const lex_reader_t& b = readers_[other.source];
            const auto known = static_cast<uint32_t>(player.common);
            const std::span<const uint8_t> a_rest = rest_of(a, known), b_rest = rest_of(b, known);
            const uint32_t more = _lcp(a_rest, b_rest);
            const uint32_t common = known + more;
            if (more == a_rest.size() || fclex_ascends(a_rest, b_rest, more)) {
                other.common = static_cast<int32_t>(common);
                return player;
            }
            player.common = static_cast<int32_t>(common);
        } else if (player.common >= other.common) {
            return player;
        }
        std::swap(player, other);
        return player;
    }

    static std::span<const uint8_t> rest_of(const lex_reader_t& reader, uint32_t from) {
        return fclex_bytes(reader.term + from, reader.at.length - from);
    }

    const lex_reader_t* readers_;
    uint32_t count_;
    player_t nodes_[LEX_MERGE_MAX_SOURCES];  // 0: the winner; the others: who lost there
};

// Every term takes a byte of its blocks at least, so a count of terms that passes this is bounded by the file's size.
int check_size(const lex_reader_t* reader, uint64_t size) {
    const auto offset = static_cast<uint64_t>(reader->body_offset);
    const uint64_t blocks = size - reader->shape.blocks_offset();
    uint64_t file_size = 0;
    if (osfile_get_size(reader->fd, &file_size) != 0) return WARM_RC_FILE_SIZE;
    return offset + size <= file_size && reader->shape.terms <= blocks ? 0 : WARM_RC_CORRUPT;
}

struct merge_t {
    uint32_t count;
    std::vector<lex_reader_t> readers;
    lex_writer_t* writer;
    bmap_array_t* source_bitmaps;
    uint32_t* const* old2new;
    const std::vector<bool>* passed_over;
    stop_check* stop;

    bool passes_over(const player_t& player) const {
        if (passed_over == nullptr) return false;
        const std::vector<bool>& terms = passed_over[player.source];
        return !terms.empty() && terms[readers[player.source].cursor];
    }
};

int open_sources(merge_t* merge, const int* fds, const int64_t* body_offsets, uint64_t* body_end_offsets,
                 warm_rc_t* rc) {
    for (uint32_t i = 0; i < merge->count; i++) {
        lex_reader_t* reader = &merge->readers[i];
        if (const int status = _lex_reader_open(reader, fds[i], body_offsets[i])) {
            return _set_rc_verbose(rc, status, i, "_lex_reader_open in st_fclex_merge_n");
        }
        uint64_t size;
        if (const int status = _lex_reader_get_size(reader, &size)) {
            return _set_rc_verbose(rc, status, i, "_lex_reader_get_size in st_fclex_merge_n");
        }
        if (const int status = check_size(reader, size)) {
            return _set_rc_verbose(rc, status, i, "lexicon longer than its file in st_fclex_merge_n");
        }
        body_end_offsets[i] = static_cast<uint64_t>(body_offsets[i]) + size;
        if (const int status = _reload_term(reader)) {
            return _set_rc_verbose(rc, status, i, "_reload_term in st_fclex_merge_n");
        }
    }
    return 0;
}

// The bits of one width. `entries` has room for every term of the sources.
template <typename Bits>
int run(merge_t* merge, Bits* entries, warm_rc_t* rc) {
    loser_tree tree(merge->readers.data(), merge->count);
    tree.start();
    lex_writer_t* writer = merge->writer;
    uint32_t common = UINT32_MAX;  // of the last term put and those passed over since
    while (tree.winner().common != AT_END) {
        const player_t player = tree.winner();
        if (merge->stop != nullptr) ST_TRY(merge->stop->after(1, rc));
        lex_reader_t* reader = &merge->readers[player.source];
        common = std::min(common, static_cast<uint32_t>(player.common));
        if (!merge->passes_over(player)) {
            const std::string_view term = {reader->term, reader->at.length};
            if (const int status = lex_writer_put_after(writer, term, common)) {
                return _set_rc_verbose(rc, status, player.source, "_lex_writer_put in st_fclex_merge_n");
            }
            common = UINT32_MAX;
            const uint32_t id = writer->_cursor - 1;
            entries[id] |= Bits{1} << player.source;
            if (merge->old2new != nullptr && merge->old2new[player.source] != nullptr) {
                merge->old2new[player.source][reader->cursor] = id;
            }
        }
        if (const int status = _increment_cursor(reader)) {
            return _set_rc_verbose(rc, status, player.source, "_increment_cursor in st_fclex_merge_n");
        }
        const bool at_end = reader->cursor == reader->shape.terms;
        tree.replay({player.source, at_end ? AT_END : static_cast<int32_t>(reader->common)});
    }
    const std::vector<lex_reader_t>& readers = merge->readers;
    ST_ASSERT(std::all_of(readers.begin(), readers.end(), [](const auto& r) { return r.cursor == r.shape.terms; }));
    // The last block is still open.
    ST_ASSERT(writer->_cursor == 0 || writer->_bo_idx + 1 == fclex_shape(writer->_cursor, writer->tperb).blocks());
    return 0;
}

int merge_sources(merge_t* merge, warm_rc_t* rc) {
    bmap_array_t* bitmaps = merge->source_bitmaps;
    return bitmaps->narrow ? run(merge, bitmaps->entries32.data(), rc) : run(merge, bitmaps->entries64.data(), rc);
}

}  // namespace

int st_fclex_merge_n(bool verbose, const int* fds, const int64_t* body_offsets, uint32_t src_sz,
                     uint32_t terms_per_block, uint64_t page_size, lex_writer_t* writer, uint32_t* merged_count,
                     bmap_array_t* source_bitmaps, uint64_t* body_end_offsets, uint32_t* const* old2new, warm_rc_t* rc,
                     const std::vector<bool>* passed_over, stop_check* stop) {
    ST_ASSERT(src_sz <= ((sizeof(bmap64_t) * 8)));
    *writer = {};
    bmap_array_free(source_bitmaps);
    merge_t merge = {src_sz, {}, writer, source_bitmaps, old2new, passed_over, stop};
    try {
        merge.readers = std::vector<lex_reader_t>(src_sz);
    } catch (const std::bad_alloc&) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "readers in st_fclex_merge_n");
    }
    ST_TRY(open_sources(&merge, fds, body_offsets, body_end_offsets, rc));

    uint64_t possible_terms = 0;
    for (uint32_t i = 0; i < src_sz; i++) possible_terms += merge.readers[i].shape.terms;
    if (bmap_array_alloc(source_bitmaps, src_sz <= 32, possible_terms) == 0) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "bitmap array alloc failed");
    }
    const auto expected = static_cast<uint32_t>(std::min<uint64_t>(possible_terms, UINT32_MAX));
    int status = _lex_writer_open(verbose, writer, terms_per_block, page_size, expected);
    if (status != 0) _set_rc_msg(rc, status, "_lex_writer_open in st_fclex_merge_n");
    if (status == 0) status = merge_sources(&merge, rc);
    if (status != 0) {
        *writer = {};
        bmap_array_free(source_bitmaps);
        return status;
    }
    ST_ASSERT(writer->_cursor <= possible_terms);
    *merged_count = writer->_cursor;
    return _set_rc(rc, 0);
}

}  // namespace veldar

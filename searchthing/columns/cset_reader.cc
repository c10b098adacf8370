// Reading a column set.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/columns/cset.h"
#include "searchthing/columns/cset_internal.h"
#include "searchthing/columns/cstore.h"

namespace veldar {

namespace {

constexpr uint64_t FIRST_READ = 4096;
constexpr uint64_t LARGEST_READ = 256 * 1024;

int corrupted_head(warm_rc_t* rc, uint32_t term_id) {
    return _set_rc_verbose(rc, WARM_RC_CORRUPT, term_id, "columnset header is corrupted");
}

int read_at(const cset_reader_t* reader, void* out, uint64_t size, uint64_t offset) {
    const int64_t got = st_timed_pread_msg(reader->section->fd, out, size, offset, reader->stats, false);
    return got == static_cast<int64_t>(size) ? 0 : read_status(got);
}

// Whether a set with this head has exactly `extent` bytes. Several runs without bits would take no bytes, only memory.
bool head_fills(const cset_head_t& head, uint64_t extent) {
    const uint64_t words =
        cset_packed_words(head.runs, head.value_nbits) + cset_packed_words(head.runs, head.ordinal_nbits);
    const uint64_t size =
        sizeof head + words * 8 + uint64_t{head.blocks} * sizeof(cset_block_t) + uint64_t{head.data_units} * 8;
    const bool runs_have_bits = head.runs <= 1 || (head.value_nbits > 0 && head.ordinal_nbits > 0);
    return head.value_nbits <= 32 && head.ordinal_nbits <= 32 && runs_have_bits && size == extent;
}

void unpack(const uint8_t* table, uint32_t nbits, buffer<cset_run_t>* runs, uint32_t cset_run_t::*field) {
    array_reader_t words;
    warm_rc_t rc;
    const auto count = static_cast<uint32_t>(runs->size());
    const auto word_count = static_cast<uint32_t>(cset_packed_words(count, nbits));
    int status = _ar_open(&words, -1, 0, sizeof(uint64_t), word_count, 0, nullptr, table);
    for (uint32_t i = 0; i < count && status == 0; i++) {
        status = bitunpack_word32(&words, nbits, uint64_t{i} * nbits, true, 0, &((*runs)[i].*field), &rc);
    }
    ST_ASSERT(status == 0);
}

// The ordinal of the first element of run `index`, the number of elements for the one past the last.
uint32_t run_ordinal(const cset_reader_t* reader, size_t index) {
    return index < reader->runs.size() ? reader->runs[index].first_ordinal : reader->elements;
}

// Runs hold at least one element, ascend without overlap and lie among the values of the slice.
bool runs_are_sound(const cset_reader_t* reader) {
    if (reader->runs.empty()) return reader->elements == 0;
    uint64_t next_value = reader->section->num_preambles;
    uint32_t next_ordinal = 0;
    for (size_t i = 0; i < reader->runs.size(); i++) {
        const cset_run_t run = reader->runs[i];
        const uint32_t end = run_ordinal(reader, i + 1);
        if (run.first_value < next_value || run.first_ordinal != next_ordinal || end <= run.first_ordinal) return false;
        next_value = uint64_t{run.first_value} + (end - run.first_ordinal);
        next_ordinal = end;
    }
    return next_value <= reader->section->num_values;
}

// The bytes of a block's data, which reach to those of the next one.
uint64_t block_size(const cset_reader_t* reader, size_t index) {
    const uint64_t end =
        index + 1 < reader->blocks.size() ? uint64_t{reader->blocks[index + 1].data_offset} * 8 : reader->data_size;
    return end - uint64_t{reader->blocks[index].data_offset} * 8;
}

// Blocks follow one another without a gap, in ordinals and in bytes.
bool blocks_are_sound(const cset_reader_t* reader) {
    uint64_t ordinal = 0;
    for (size_t i = 0; i < reader->blocks.size(); i++) {
        const cset_block_t& block = reader->blocks[i];
        // Unsigned: the size of a block that ends before it begins is far too large.
        if (!cset_block_is_sound(&block) || block.first_ordinal != ordinal || (i == 0 && block.data_offset != 0) ||
            block_size(reader, i) > CSET_BLOCK_MAX_SIZE) {
            return false;
        }
        ordinal += block.count;
    }
    return ordinal == reader->elements && (!reader->blocks.empty() || reader->data_size == 0);
}

int open_tables(cset_reader_t* reader, const cset_head_t& head, uint64_t tables_offset, uint32_t term_id,
                warm_rc_t* rc) {
    const uint64_t value_size = cset_packed_words(head.runs, head.value_nbits) * 8;
    const uint64_t ordinal_size = cset_packed_words(head.runs, head.ordinal_nbits) * 8;
    const uint64_t blocks_size = uint64_t{head.blocks} * sizeof(cset_block_t);
    const uint64_t size = value_size + ordinal_size + blocks_size;
    buffer<uint8_t> tables;
    if (!tables.alloc(size) || !reader->runs.alloc(head.runs) || !reader->blocks.alloc(head.blocks) ||
        !reader->values.alloc(CSET_BLOCK_ELEMENTS)) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "ar_open: block headers memory alloc failed");
    }
    if (const int status = read_at(reader, tables.data(), size, tables_offset); status != 0) {
        return _set_rc_msg(rc, status, "cset_reader_open: columnset header failed");
    }
    if (head.checksum != cset_head_checksum(&head, tables.data(), size)) return corrupted_head(rc, term_id);
    if (head.element_type != CSET_ELEMENT_DOUBLE) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, term_id, "element_type is unsupported/corrupted");
    }
    unpack(tables.data(), head.value_nbits, &reader->runs, &cset_run_t::first_value);
    unpack(tables.data() + value_size, head.ordinal_nbits, &reader->runs, &cset_run_t::first_ordinal);
    if (blocks_size > 0) std::memcpy(reader->blocks.data(), tables.data() + value_size + ordinal_size, blocks_size);
    reader->elements = head.elements;
    reader->data_offset = tables_offset + size;
    reader->data_size = uint64_t{head.data_units} * 8;
    return runs_are_sound(reader) && blocks_are_sound(reader) ? 0 : corrupted_head(rc, term_id);
}

int open_set(cset_reader_t* reader, uint32_t term_id, warm_rc_t* rc) {
    uint64_t offset = 0, extent = 0;
    ST_TRY(cs_reader_extent(reader->section, term_id, &offset, &extent, rc));
    cset_head_t head;
    if (extent < sizeof head) return corrupted_head(rc, term_id);
    if (const int status = read_at(reader, &head, sizeof head, offset); status != 0) {
        return _set_rc_msg(rc, status, "cset_reader_open: columnset header failed");
    }
    if (std::memcmp(head.magic, CSET_MAGIC, sizeof head.magic) != 0 || !head_fills(head, extent)) {
        return corrupted_head(rc, term_id);
    }
    return open_tables(reader, head, offset + sizeof head, term_id, rc);
}

// Brings `size` bytes of the data at `offset` into the window. Reads that follow one another grow, so that a walk over
// a long set reads in large pieces and a look-up reads little.
int fetch(cset_reader_t* reader, uint64_t offset, uint64_t size, const uint8_t** bytes, warm_rc_t* rc) {
    if (offset < reader->window_offset || offset + size > reader->window_offset + reader->window_size) {
        const bool follows = reader->window_size > 0 && offset > reader->window_offset &&
                             offset <= reader->window_offset + reader->window_size;
        const uint64_t wanted = follows ? std::min(reader->read_size * 2, LARGEST_READ) : FIRST_READ;
        ST_ASSERT(offset <= reader->data_size && size <= reader->data_size - offset);
        const uint64_t length = std::min(std::max(wanted, size), reader->data_size - offset);
        reader->window_size = 0;
        if (reader->window.size() < length && !reader->window.alloc(length)) {
            return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "columnset window");
        }
        if (const int status = read_at(reader, reader->window.data(), length, reader->data_offset + offset);
            status != 0) {
            return _set_rc_msg(rc, status, "columnset data");
        }
        reader->window_offset = offset;
        reader->window_size = length;
        reader->read_size = wanted;
    }
    *bytes = reader->window.data() + (offset - reader->window_offset);
    return 0;
}

int load_block(cset_reader_t* reader, uint32_t index, warm_rc_t* rc) {
    ST_ASSERT(index < reader->blocks.size());
    if (reader->block == index && reader->block_count > 0) return 0;
    reader->block_count = 0;
    const cset_block_t& block = reader->blocks[index];
    const uint64_t size = block_size(reader, index);
    const uint8_t* bytes = nullptr;
    ST_TRY(fetch(reader, uint64_t{block.data_offset} * 8, size, &bytes, rc));
    if (!cset_block_decode(&block, {bytes, size}, reader->values.data())) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, index, "columnset data are corrupted");
    }
    reader->block = index;
    reader->block_count = block.count;
    return 0;
}

// The block of an ordinal below the number of elements.
uint32_t find_block(const cset_reader_t* reader, uint32_t ordinal) {
    // Unsigned: an ordinal before the block is far behind it.
    if (reader->block_count > 0 && ordinal - reader->blocks[reader->block].first_ordinal < reader->block_count) {
        return reader->block;
    }
    const cset_block_t* after =
        std::upper_bound(reader->blocks.begin(), reader->blocks.end(), ordinal,
                         [](uint32_t o, const cset_block_t& block) { return o < block.first_ordinal; });
    ST_ASSERT(after != reader->blocks.begin());  // the first block begins at ordinal 0
    return static_cast<uint32_t>(after - reader->blocks.begin()) - 1;
}

// The last run that begins at or before a value; runs.size() when there is none.
uint32_t find_run(const cset_reader_t* reader, uint64_t value_no) {
    const buffer<cset_run_t>& runs = reader->runs;
    const auto holds = [&](size_t run) {
        return run < runs.size() && runs[run].first_value <= value_no &&
               (run + 1 == runs.size() || runs[run + 1].first_value > value_no);
    };
    if (holds(reader->run)) return reader->run;
    const cset_run_t* after = std::upper_bound(runs.begin(), runs.end(), value_no,
                                               [](uint64_t v, const cset_run_t& run) { return v < run.first_value; });
    if (after == runs.begin()) return static_cast<uint32_t>(runs.size());
    return static_cast<uint32_t>(after - runs.begin()) - 1;
}

// The number of elements of values below `value_no`.
uint32_t ordinal_before(const cset_reader_t* reader, uint64_t value_no) {
    const uint32_t run = find_run(reader, value_no);
    if (run == reader->runs.size()) return 0;
    const uint64_t ordinal = reader->runs[run].first_ordinal + (value_no - reader->runs[run].first_value);
    return static_cast<uint32_t>(std::min<uint64_t>(ordinal, run_ordinal(reader, size_t{run} + 1)));
}

int check_range(const cset_reader_t* reader, uint32_t first, uint32_t n, warm_rc_t* rc) {
    ST_ASSERT(reader->section != nullptr);
    if (first < reader->section->num_preambles || uint64_t{first} + n > reader->section->num_values) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, first, "invalid tsval_id range");
    }
    return _set_rc(rc, WARM_RC_OK);
}

// Copies the elements of `count` ordinals from `ordinal` on.
int copy_elements(cset_reader_t* reader, uint32_t ordinal, uint32_t count, double* out, warm_rc_t* rc) {
    while (count > 0) {
        const uint32_t index = find_block(reader, ordinal);
        ST_TRY(load_block(reader, index, rc));
        const uint32_t from = ordinal - reader->blocks[index].first_ordinal;
        const uint32_t part = std::min(reader->block_count - from, count);
        std::copy_n(reader->values.data() + from, part, out);
        ordinal += part;
        count -= part;
        out += part;
    }
    return 0;
}

}  // namespace

int cset_reader_open(cset_reader_t* reader, const cs_reader_t* section, uint32_t term_id, st_query_info_t* stats,
                     warm_rc_t* rc) {
    *reader = {};
    reader->section = section;
    reader->stats = stats;
    _set_rc(rc, WARM_RC_OK);
    const int status = open_set(reader, term_id, rc);
    if (status != 0) cset_reader_close(reader);
    return status;
}

int cset_reader_get(cset_reader_t* reader, uint32_t value_no, double* v, bool* present, warm_rc_t* rc) {
    *v = 0;
    *present = false;
    ST_TRY(check_range(reader, value_no, 1, rc));
    const uint32_t run = find_run(reader, value_no);
    if (run == reader->runs.size()) return 0;
    const uint64_t ordinal = uint64_t{reader->runs[run].first_ordinal} + (value_no - reader->runs[run].first_value);
    if (ordinal >= run_ordinal(reader, size_t{run} + 1)) return 0;
    reader->run = run;
    ST_TRY(copy_elements(reader, static_cast<uint32_t>(ordinal), 1, v, rc));
    *present = true;
    return 0;
}

int cset_reader_range(cset_reader_t* reader, uint32_t first, uint32_t n, double* out, uint8_t* present, warm_rc_t* rc) {
    std::fill_n(out, n, 0.0);
    std::fill_n(present, n, uint8_t{0});
    ST_TRY(check_range(reader, first, n, rc));
    const uint64_t end = uint64_t{first} + n;
    uint32_t run = find_run(reader, first);
    if (run == reader->runs.size()) run = 0;
    for (; run < reader->runs.size() && reader->runs[run].first_value < end; run++) {
        const cset_run_t at = reader->runs[run];
        const uint64_t run_end = uint64_t{at.first_value} + (run_ordinal(reader, size_t{run} + 1) - at.first_ordinal);
        const uint64_t from = std::max(first, at.first_value);
        const uint64_t to = std::min(end, run_end);
        if (from >= to) continue;
        const auto ordinal = static_cast<uint32_t>(at.first_ordinal + (from - at.first_value));
        const auto count = static_cast<uint32_t>(to - from);
        ST_ASSERT(from - first + count <= n);
        ST_TRY(copy_elements(reader, ordinal, count, out + (from - first), rc));
        std::fill_n(present + (from - first), count, uint8_t{1});
        reader->run = run;
    }
    return 0;
}

int cset_reader_stats(cset_reader_t* reader, uint32_t first, uint32_t n, cs_stats_t* out, warm_rc_t* rc) {
    *out = cs_stats_none();
    ST_TRY(check_range(reader, first, n, rc));
    const uint32_t begin = ordinal_before(reader, first);
    const uint32_t end = ordinal_before(reader, uint64_t{first} + n);
    ST_ASSERT(begin <= end && end - begin <= n);
    uint32_t ordinal = begin;
    while (ordinal < end) {
        const uint32_t index = find_block(reader, ordinal);
        const cset_block_t& block = reader->blocks[index];
        const uint32_t from = ordinal - block.first_ordinal;
        const uint32_t part = std::min(block.count - from, end - ordinal);
        ST_ASSERT(part > 0);
        if (part == block.count && !std::isnan(block.sum)) {
            out->count += part;
            out->min = std::min(out->min, block.minimum);
            out->max = std::max(out->max, block.maximum);
            out->sum += block.sum;
        } else {
            ST_TRY(load_block(reader, index, rc));
            cs_stats_add(out, {reader->values.data() + from, part});
        }
        ordinal += part;
    }
    ST_ASSERT(out->count + out->nans == end - begin);
    return 0;
}

int cset_reader_next(cset_reader_t* reader, uint32_t* value_no, double* v, warm_rc_t* rc) {
    rc->warm_rc = WARM_RC_OK;
    if (reader->ordinal == reader->elements) {
        ST_ASSERT(reader->elements == 0 || size_t{reader->next_run} + 1 == reader->runs.size());
        *value_no = CSET_END;
        return 0;
    }
    const uint32_t index = find_block(reader, reader->ordinal);
    ST_TRY(load_block(reader, index, rc));
    while (run_ordinal(reader, size_t{reader->next_run} + 1) <= reader->ordinal) reader->next_run++;
    const cset_run_t run = reader->runs[reader->next_run];
    *value_no = run.first_value + (reader->ordinal - run.first_ordinal);
    *v = reader->values[reader->ordinal - reader->blocks[index].first_ordinal];
    reader->ordinal++;
    return 0;
}

void cset_reader_close(cset_reader_t* reader) {
    *reader = {};
}

int cset_reader_verify(cset_reader_t* reader, warm_rc_t* rc) {
    ST_ASSERT(reader->section != nullptr);
    for (uint32_t index = 0; index < reader->blocks.size(); index++) {
        ST_TRY(load_block(reader, index, rc));
        const cset_block_t& block = reader->blocks[index];
        cs_stats_t stats = cs_stats_none();
        cs_stats_add(&stats, {reader->values.data(), block.count});
        const bool no_sum = stats.nans > 0 || std::isnan(stats.sum);
        const bool sums_agree = no_sum ? std::isnan(block.sum) : block.sum == stats.sum;
        if (block.minimum != stats.min || block.maximum != stats.max || !sums_agree) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, index, "columnset block numbers are wrong");
        }
    }
    return _set_rc(rc, WARM_RC_OK);
}

}  // namespace veldar

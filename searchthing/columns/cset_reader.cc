// Reading the elements of a column set.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "libzero/assertions.h"
#include "searchthing/columns/cset.h"
#include "searchthing/columns/cset_block1.h"
#include "searchthing/columns/cset_codec_internal.h"
#include "searchthing/columns/cset_internal.h"
#include "searchthing/columns/cstore.h"

namespace veldar {

namespace {

constexpr uint64_t FIRST_READ = 4096;
constexpr uint64_t LARGEST_READ = 256 * 1024;

int open_set(cset_reader_t* reader, uint32_t term_id, warm_rc_t* rc) {
    ST_TRY(cset_open_tables(reader, term_id, &reader->tables, rc));
    if (!reader->values.alloc(CSET_BLOCK_ELEMENTS)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "columnset block");
    const cset_tables_t& tables = *reader->tables;
    reader->elements = tables.elements;
    reader->data_offset = tables.data_offset;
    reader->data_size = tables.data_size;
    reader->runs = {tables.runs.data(), tables.runs.size()};
    reader->blocks = {tables.blocks.data(), tables.blocks.size()};
    return 0;
}

// The ordinal of the first element of run `index`, the number of elements for the one past the last.
uint32_t run_ordinal(const cset_reader_t* reader, size_t index) {
    return index < reader->runs.size() ? reader->runs[index].first_ordinal : reader->elements;
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
        if (reader->window.size() < length + CSET_SLACK && !reader->window.alloc(length + CSET_SLACK)) {
            return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "columnset window");
        }
        if (const int status = cset_read_at(reader, reader->window.data(), length, reader->data_offset + offset);
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

bool decode(const cset_place_t& place, std::span<const uint8_t> data, double* values) {
    if (place.version != 1) return cset_block_decode(&place.block, data, values);
    const cset_block1_t block = cset_block1_of(place);
    return cset_block1_decode(&block, data, values);
}

int load_block(cset_reader_t* reader, uint32_t index, warm_rc_t* rc) {
    ST_ASSERT(index < reader->blocks.size());
    reader->block_count = 0;
    const cset_place_t& place = reader->blocks[index];
    const uint64_t size = place.block.data_size;
    const uint8_t* bytes = nullptr;
    ST_TRY(fetch(reader, place.data_offset, size, &bytes, rc));
    if (!decode(place, {bytes, size}, reader->values.data())) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, index, "columnset data are corrupted");
    }
    reader->block_first = place.first_ordinal;
    reader->block_count = place.block.count;
    return 0;
}

// The block of an ordinal below the number of elements.
uint32_t find_block(const cset_reader_t* reader, uint32_t ordinal) {
    const auto after = std::upper_bound(reader->blocks.begin(), reader->blocks.end(), ordinal,
                                        [](uint32_t o, const cset_place_t& place) { return o < place.first_ordinal; });
    ST_ASSERT(after != reader->blocks.begin());  // the first block begins at ordinal 0
    return static_cast<uint32_t>(after - reader->blocks.begin()) - 1;
}

// Makes the block of an ordinal below the number of elements the current one.
int load_block_of(cset_reader_t* reader, uint32_t ordinal, warm_rc_t* rc) {
    // Unsigned: an ordinal before the block is far behind it.
    const bool is_loaded = ordinal - reader->block_first < reader->block_count;
    return is_loaded ? 0 : load_block(reader, find_block(reader, ordinal), rc);
}

// The last run that begins at or before a value; runs.size() when there is none.
uint32_t find_run(const cset_reader_t* reader, uint64_t value_no) {
    const std::span<const cset_run_t> runs = reader->runs;
    const auto holds = [&](size_t run) {
        return run < runs.size() && runs[run].first_value <= value_no &&
               (run + 1 == runs.size() || runs[run + 1].first_value > value_no);
    };
    if (holds(reader->run)) return reader->run;
    const auto after = std::upper_bound(runs.begin(), runs.end(), value_no,
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
        ST_TRY(load_block_of(reader, ordinal, rc));
        const uint32_t from = ordinal - reader->block_first;
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
    const int status = copy_elements(reader, static_cast<uint32_t>(ordinal), 1, v, rc);
    *present = status == 0;
    return status;
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
        const cset_block_t& block = reader->blocks[index].block;
        const uint32_t from = ordinal - reader->blocks[index].first_ordinal;
        const uint32_t part = std::min(block.count - from, end - ordinal);
        ST_ASSERT(part > 0);
        if (part == block.count && !std::isnan(block.sum)) {
            out->count += part;
            out->min = std::min(out->min, block.minimum);
            out->max = std::max(out->max, block.maximum);
            out->sum += block.sum;
        } else {
            ST_TRY(load_block_of(reader, ordinal, rc));
            cs_stats_add_fast(out, {reader->values.data() + from, part});
        }
        ordinal += part;
    }
    ST_ASSERT(out->count + out->nans == end - begin);
    return 0;
}

int cset_reader_next(cset_reader_t* reader, uint32_t* value_no, double* v, warm_rc_t* rc) {
    rc->warm_rc = WARM_RC_OK;
    uint32_t in_block = reader->ordinal - reader->block_first;  // unsigned: before the block is far behind it
    if (reader->ordinal >= reader->run_end || in_block >= reader->block_count) {
        if (reader->ordinal == reader->elements) {
            ST_ASSERT(reader->elements == 0 || size_t{reader->next_run} + 1 == reader->runs.size());
            *value_no = CSET_END;
            return 0;
        }
        ST_TRY(load_block_of(reader, reader->ordinal, rc));
        while (run_ordinal(reader, size_t{reader->next_run} + 1) <= reader->ordinal) reader->next_run++;
        const cset_run_t run = reader->runs[reader->next_run];
        reader->run_end = run_ordinal(reader, size_t{reader->next_run} + 1);
        reader->to_value = run.first_value - run.first_ordinal;
        in_block = reader->ordinal - reader->block_first;
    }
    *value_no = reader->ordinal++ + reader->to_value;
    *v = reader->values[in_block];
    return 0;
}

void cset_reader_close(cset_reader_t* reader) {
    *reader = {};
}

int cset_reader_verify(cset_reader_t* reader, warm_rc_t* rc) {
    ST_ASSERT(reader->section != nullptr);
    for (uint32_t index = 0; index < reader->blocks.size(); index++) {
        ST_TRY(load_block(reader, index, rc));
        const cset_block_t& block = reader->blocks[index].block;
        cs_stats_t stats = cs_stats_none();
        cs_stats_add(&stats, {reader->values.data(), block.count});
        const bool no_sum = stats.nans > 0 || std::isnan(stats.sum);
        const double tolerance = reader->section->version == 1 ? 0 : cset_sum_tolerance(block);
        const bool sums_agree =
            no_sum ? std::isnan(block.sum) : block.sum == stats.sum || std::fabs(block.sum - stats.sum) <= tolerance;
        if (block.minimum != stats.min || block.maximum != stats.max || !sums_agree) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, index, "columnset block numbers are wrong");
        }
    }
    return _set_rc(rc, WARM_RC_OK);
}

}  // namespace veldar

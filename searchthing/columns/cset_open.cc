// Opening a column set: its head, the run table and the heads of its blocks.
#include <algorithm>
#include <cstring>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/columns/cset.h"
#include "searchthing/columns/cset_block1.h"
#include "searchthing/columns/cset_internal.h"
#include "searchthing/columns/cstore.h"

namespace veldar {

namespace {

int corrupted_head(warm_rc_t* rc, uint32_t term_id) {
    return _set_rc_verbose(rc, WARM_RC_CORRUPT, term_id, "columnset header is corrupted");
}

int no_memory(warm_rc_t* rc) {
    return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "ar_open: block headers memory alloc failed");
}

// What a set's head says, of either version.
struct set_shape {
    uint32_t elements = 0, blocks = 0, runs = 0;
    uint32_t value_nbits = 0, ordinal_nbits = 0;
    uint8_t element_type = 0;
    uint64_t heads_size = 0;
    uint64_t data_size = 0;
    uint32_t checksum = 0;

    uint64_t value_size() const { return cset_packed_words(runs, value_nbits) * 8; }
    uint64_t ordinal_size() const { return cset_packed_words(runs, ordinal_nbits) * 8; }
    uint64_t tables_size() const { return value_size() + ordinal_size() + heads_size; }
};

// Of a head that lies in `extent` bytes; false when it does not fit them. Several runs without bits would take no bytes,
// only memory, as would blocks without heads.
bool shape_of(const cset_head_t& head, uint64_t extent, uint32_t version, set_shape* shape) {
    if (std::memcmp(head.magic, version == 1 ? CSET_MAGIC1 : CSET_MAGIC, sizeof head.magic) != 0) return false;
    *shape = {head.elements,     head.blocks,     head.runs, head.value_nbits, head.ordinal_nbits,
              head.element_type, head.heads_size, 0,         head.checksum};
    cset_head1_t old = {};
    if (version == 1) {
        std::memcpy(&old, &head, sizeof old);
        shape->value_nbits = old.value_nbits;
        shape->ordinal_nbits = old.ordinal_nbits;
        shape->heads_size = uint64_t{old.blocks} * sizeof(cset_block1_t);
    } else if (shape->blocks > shape->heads_size / CSET_HEAD_MIN_SIZE) {
        return false;
    }
    const bool runs_have_bits = shape->runs <= 1 || (shape->value_nbits > 0 && shape->ordinal_nbits > 0);
    if (shape->value_nbits > 32 || shape->ordinal_nbits > 32 || !runs_have_bits) return false;
    const uint64_t before = sizeof head + shape->tables_size();
    if (before > extent) return false;
    shape->data_size = extent - before;
    return version > 1 || shape->data_size == uint64_t{old.data_units} * 8;
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

// Runs hold at least one element, ascend without overlap and lie among the values of the slice.
bool runs_are_sound(const cset_tables_t& tables, const cs_reader_t& section) {
    if (tables.runs.empty()) return tables.elements == 0;
    uint64_t next_value = section.num_preambles;
    uint32_t next_ordinal = 0;
    for (size_t i = 0; i < tables.runs.size(); i++) {
        const cset_run_t run = tables.runs[i];
        const uint32_t end = i + 1 < tables.runs.size() ? tables.runs[i + 1].first_ordinal : tables.elements;
        if (run.first_value < next_value || run.first_ordinal != next_ordinal || end <= run.first_ordinal) return false;
        next_value = uint64_t{run.first_value} + (end - run.first_ordinal);
        next_ordinal = end;
    }
    return next_value <= section.num_values;
}

// Blocks follow one another without a gap, in ordinals and in bytes.
bool blocks_are_sound(const cset_tables_t& tables) {
    uint64_t ordinal = 0, offset = 0;
    for (const cset_place_t& place : tables.blocks) {
        if (place.first_ordinal != ordinal || place.data_offset != offset) return false;
        ordinal += place.block.count;
        offset += place.block.data_size;
    }
    return ordinal == tables.elements && offset == tables.data_size;
}

// The blocks of a set of version 1, whose data each reach to those of the next one.
bool read_heads1(const uint8_t* heads, cset_tables_t* tables) {
    uint64_t end = tables->data_size;
    for (size_t i = tables->blocks.size(); i-- > 0;) {
        cset_block1_t head;
        std::memcpy(&head, heads + i * sizeof head, sizeof head);
        const uint64_t offset = uint64_t{head.data_offset} * 8;
        if (!cset_block1_is_sound(&head) || offset > end || end - offset > CSET_BLOCK1_MAX_SIZE) return false;
        cset_place_t* const place = &tables->blocks[i];
        *place = {};
        place->version = 1;
        place->width = head.width;
        place->exceptions = head.exceptions;
        place->first_ordinal = head.first_ordinal;
        place->data_offset = offset;
        place->block.count = head.count;
        place->block.codec = head.codec;
        place->block.exponent = head.exponent;
        place->block.residual_bits = head.residual_bits;
        place->block.data_size = static_cast<uint32_t>(end - offset);
        place->block.minimum = head.minimum;
        place->block.maximum = head.maximum;
        place->block.sum = head.sum;
        end = offset;
    }
    return true;
}

bool read_heads(std::span<const uint8_t> heads, cset_tables_t* tables) {
    uint64_t ordinal = 0, offset = 0;
    for (cset_place_t& place : tables->blocks) {
        size_t size = 0;
        place = {};
        if (!cset_head_get(heads, &place.block, &size)) return false;
        heads = heads.subspan(size);
        place.first_ordinal = static_cast<uint32_t>(ordinal);
        place.data_offset = offset;
        ordinal += place.block.count;
        offset += place.block.data_size;
    }
    return heads.size() < 8 && std::all_of(heads.begin(), heads.end(), [](uint8_t byte) { return byte == 0; });
}

int read_tables(const cset_reader_t* reader, const cset_head_t& head, const set_shape& shape, uint64_t tables_offset,
                uint32_t term_id, cset_tables_t* tables, warm_rc_t* rc) {
    const cs_reader_t& section = *reader->section;
    const uint64_t size = shape.tables_size();
    buffer<uint8_t> bytes;
    if (!bytes.alloc(size) || !tables->runs.alloc(shape.runs) || !tables->blocks.alloc(shape.blocks)) {
        return no_memory(rc);
    }
    if (const int status = cset_read_at(reader, bytes.data(), size, tables_offset); status != 0) {
        return _set_rc_msg(rc, status, "cset_reader_open: columnset header failed");
    }
    if (shape.checksum != cset_head_checksum(&head, bytes.data(), size)) return corrupted_head(rc, term_id);
    if (shape.element_type != CSET_ELEMENT_DOUBLE) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, term_id, "element_type is unsupported/corrupted");
    }
    unpack(bytes.data(), shape.value_nbits, &tables->runs, &cset_run_t::first_value);
    unpack(bytes.data() + shape.value_size(), shape.ordinal_nbits, &tables->runs, &cset_run_t::first_ordinal);
    tables->elements = shape.elements;
    tables->data_offset = tables_offset + size;
    tables->data_size = shape.data_size;
    const uint8_t* const heads = bytes.data() + (size - shape.heads_size);
    const bool heads_are_sound =
        section.version == 1 ? read_heads1(heads, tables) : read_heads({heads, shape.heads_size}, tables);
    const bool is_sound = heads_are_sound && runs_are_sound(*tables, section) && blocks_are_sound(*tables);
    return is_sound ? 0 : corrupted_head(rc, term_id);
}

int open_set(const cset_reader_t* reader, uint32_t term_id, cset_tables_t* tables, warm_rc_t* rc) {
    uint64_t offset = 0, extent = 0;
    ST_TRY(cs_reader_extent(reader->section, term_id, &offset, &extent, rc));
    cset_head_t head;  // which lies in the file: even behind the shortest set the footer and an entry follow
    if (const int status = cset_read_at(reader, &head, sizeof head, offset); status != 0) {
        return _set_rc_msg(rc, status, "cset_reader_open: columnset header failed");
    }
    set_shape shape;
    if (!shape_of(head, extent, reader->section->version, &shape)) return corrupted_head(rc, term_id);
    return read_tables(reader, head, shape, offset + sizeof head, term_id, tables, rc);
}

}  // namespace

int cset_read_at(const cset_reader_t* reader, void* out, uint64_t size, uint64_t offset) {
    const int64_t got = st_timed_pread_msg(reader->section->fd, out, size, offset, reader->stats, false);
    return got == static_cast<int64_t>(size) ? 0 : read_status(got);
}

int cset_open_tables(const cset_reader_t* reader, uint32_t term_id, std::shared_ptr<const cset_tables_t>* out,
                     warm_rc_t* rc) try {
    const cs_reader_t& section = *reader->section;
    if (const auto known = section.remembered.find(term_id); known != section.remembered.end()) {
        *out = known->second;
        return 0;
    }
    const auto tables = std::make_shared<cset_tables_t>();
    ST_TRY(open_set(reader, term_id, tables.get(), rc));
    *out = tables;
    const uint64_t size = section.remembered_size + tables->size();
    if (size <= CS_REMEMBERED) {
        section.remembered.emplace(term_id, tables);
        section.remembered_size = size;
    }
    return 0;
} catch (const std::bad_alloc&) {
    return no_memory(rc);
}

}  // namespace veldar

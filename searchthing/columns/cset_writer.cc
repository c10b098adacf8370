// Encoding the elements of a column set.
#include <bit>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/columns/cset.h"
#include "searchthing/columns/cset_internal.h"

namespace veldar {

namespace {

constexpr size_t EARLY_CUT = CSET_BLOCK_ELEMENTS / 2;

void encode_pending(cset_writer_t* writer) {
    cset_block_t block;
    uint8_t bytes[CSET_BLOCK_MAX_SIZE], head[CSET_HEAD_MAX_SIZE];
    const uint64_t size = cset_block_encode(writer->pending, &block, bytes);
    ST_ASSERT(size <= sizeof bytes && size == block.data_size);
    writer->heads.insert(writer->heads.end(), head, head + cset_head_put(&block, head));
    writer->data.insert(writer->data.end(), bytes, bytes + size);
    writer->blocks++;
    writer->pending.clear();
}

void put_packed(std::vector<uint8_t>* out, const std::vector<cset_run_t>& runs, uint32_t cset_run_t::*field,
                uint32_t nbits) {
    std::vector<uint64_t> words(cset_packed_words(runs.size(), nbits));
    bitpack_writer_t bits;
    warm_rc_t rc;
    bp_writer_open(&bits, -1, words.data(), words.size(), 0);
    for (const cset_run_t& run : runs) {
        const int status = bp_writer_append(&bits, run.*field, nbits, &rc);
        ST_ASSERT(status == 0);
    }
    ST_ASSERT(bits.bit_cursor == uint64_t{nbits} * runs.size());
    const auto* bytes = reinterpret_cast<const uint8_t*>(words.data());
    out->insert(out->end(), bytes, bytes + words.size() * sizeof(uint64_t));
}

}  // namespace

void cset_writer_add(cset_writer_t* writer, uint32_t value_no, bool set_changed, double value) {
    ST_ASSERT(value_no >= writer->next_value);
    const bool full = writer->pending.size() == CSET_BLOCK_ELEMENTS;
    if (full || (set_changed && writer->pending.size() >= EARLY_CUT)) encode_pending(writer);
    if (writer->elements == 0 || value_no != writer->next_value) writer->runs.push_back({value_no, writer->elements});
    writer->pending.push_back(value);
    writer->elements++;
    writer->next_value = uint64_t{value_no} + 1;
}

uint64_t cset_writer_finish(cset_writer_t* writer) {
    if (!writer->pending.empty()) encode_pending(writer);
    cset_head_t head = {};
    std::memcpy(head.magic, CSET_MAGIC, sizeof head.magic);
    head.element_type = CSET_ELEMENT_DOUBLE;
    head.elements = writer->elements;
    head.blocks = writer->blocks;
    head.runs = static_cast<uint32_t>(writer->runs.size());
    if (head.runs > 0) {
        ST_ASSERT(writer->runs.back().first_ordinal < head.elements && head.blocks > 0);
        head.value_nbits = static_cast<uint8_t>(std::bit_width(writer->runs.back().first_value));
        head.ordinal_nbits = static_cast<uint8_t>(std::bit_width(writer->runs.back().first_ordinal));
    }
    const size_t end = writer->heads.size() + writer->data.size();  // what precedes the heads is of whole words
    writer->heads.resize(writer->heads.size() + (8 - end % 8) % 8);
    head.heads_size = static_cast<uint32_t>(writer->heads.size());
    std::vector<uint8_t>& out = writer->head;
    out.assign(sizeof head, 0);
    put_packed(&out, writer->runs, &cset_run_t::first_value, head.value_nbits);
    put_packed(&out, writer->runs, &cset_run_t::first_ordinal, head.ordinal_nbits);
    out.insert(out.end(), writer->heads.begin(), writer->heads.end());
    head.checksum = cset_head_checksum(&head, out.data() + sizeof head, out.size() - sizeof head);
    std::memcpy(out.data(), &head, sizeof head);
    ST_ASSERT((out.size() + writer->data.size()) % 8 == 0);
    return out.size() + writer->data.size();
}

}  // namespace veldar

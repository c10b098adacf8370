// The first byte chooses: 0, the rest is a column store of hostile bytes; 1, the same with its checksums put right, so
// that what lies behind them is reached; 2, the rest is doubles to encode.
#include <sys/mman.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "libzero/endian.h"
#include "searchthing/columns/cset_block1.h"
#include "searchthing/columns/cset_internal.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/columns/cstore_internal.h"

using namespace veldar;

namespace {

constexpr uint32_t LIMIT = 3000;  // elements and values that a walk looks at

void require(bool holds) {
    if (!holds) std::abort();
}

bool same_bits(double a, double b) {
    return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

// Data checksums of a set of version 1, whose blocks each reach to the next.
void repair_data1(const uint8_t* heads, uint32_t blocks, uint8_t* data, uint64_t room) {
    for (uint64_t i = blocks, end = room; i-- > 0;) {
        cset_block1_t block;
        std::memcpy(&block, heads + i * sizeof block, sizeof block);
        const uint64_t begin = uint64_t{block.data_offset} * 8;
        if (begin >= end) continue;
        store_le64(data + end - 8, XXH32(data + begin, end - begin - 8, 0));
        end = begin;
    }
}

void repair_data(std::span<const uint8_t> heads, uint32_t blocks, uint8_t* data, uint64_t room) {
    cset_block_t block;
    size_t size = 0;
    for (uint32_t i = 0; i < blocks && cset_head_get(heads, &block, &size) && block.data_size <= room; i++) {
        if (block.codec != CSET_CONST) {
            const uint32_t sum_at = block.data_size - static_cast<uint32_t>(CSET_CHECKSUM_SIZE);
            store_le32(data + sum_at, XXH32(data, sum_at, 0));
        }
        heads = heads.subspan(size);
        data += block.data_size;
        room -= block.data_size;
    }
}

void repair_set(uint8_t* at, uint64_t room, uint32_t version) {
    cset_head_t head;
    cset_head1_t old;
    if (room < sizeof head) return;
    std::memcpy(&head, at, sizeof head);
    std::memcpy(&old, at, sizeof old);
    const bool is_old = version == 1;
    const uint32_t value_nbits = is_old ? old.value_nbits : head.value_nbits;
    const uint32_t ordinal_nbits = is_old ? old.ordinal_nbits : head.ordinal_nbits;
    const uint64_t runs = (cset_packed_words(head.runs, value_nbits) + cset_packed_words(head.runs, ordinal_nbits)) * 8;
    const uint64_t heads = is_old ? uint64_t{old.blocks} * sizeof(cset_block1_t) : head.heads_size;
    if (runs + heads > room - sizeof head) return;
    uint8_t* const data = at + sizeof head + runs + heads;
    const uint64_t data_room = room - sizeof head - runs - heads;
    if (is_old) {
        repair_data1(data - heads, old.blocks, data, std::min(data_room, uint64_t{old.data_units} * 8));
    } else {
        repair_data({data - heads, heads}, head.blocks, data, data_room);
    }
    store_le32(at + offsetof(cset_head_t, checksum), cset_head_checksum(&head, at + sizeof head, runs + heads));
}

void repair(std::vector<uint8_t>* bytes) {
    cstore_head_t head;
    if (bytes->size() < sizeof head) return;
    std::memcpy(&head, bytes->data(), sizeof head);
    const uint64_t size = bytes->size(), footer = head.footer_offset;
    const uint64_t entries_size = uint64_t{head.sets} * sizeof(cs_tid_offset_t);
    if (footer > size || size - footer < sizeof(cstore_footer_t) + entries_size) return;
    const uint8_t* entries = bytes->data() + footer + sizeof(cstore_footer_t);
    for (uint32_t i = 0; i < head.sets; i++) {
        const uint64_t begin = uint64_t{load_le32(entries + i * 8 + 4)} * 8;
        const uint64_t end = i + 1 == head.sets ? footer : uint64_t{load_le32(entries + i * 8 + 12)} * 8;
        if (begin < end && end <= footer) repair_set(bytes->data() + begin, end - begin, head.version);
    }
    store_le32(bytes->data() + footer + offsetof(cstore_footer_t, checksum),
               XXH32(entries, entries_size, XXH32(bytes->data(), sizeof head, 0)));
}

// Elements by cset_reader_next against all other ways to see them, over the first values of the slice.
void walk(const cs_reader_t& store, uint32_t term_id) {
    warm_rc_t rc;
    cset_reader_t set;
    if (cset_reader_open(&set, &store, term_id, nullptr, &rc) != 0) return;
    const uint32_t first = store.num_preambles, n = std::min(LIMIT, store.num_values - first);
    std::vector<double> out(n);
    std::vector<uint8_t> present(n);
    const bool readable = cset_reader_range(&set, first, n, out.data(), present.data(), &rc) == 0;
    uint64_t seen = 0;
    uint32_t value_no = 0;
    double v = 0;
    int status = 0;
    for (uint32_t i = 0; i < LIMIT; i++) {
        status = cset_reader_next(&set, &value_no, &v, &rc);
        if (status != 0 || value_no == CSET_END || value_no - first >= n) break;
        require(value_no >= first && value_no < store.num_values);
        require(!readable || (present[value_no - first] == 1 && same_bits(out[value_no - first], v)));
        bool is_present = false;
        double again = 0;
        require(cset_reader_get(&set, value_no, &again, &is_present, &rc) == 0 && is_present && same_bits(again, v));
        seen++;
    }
    cs_stats_t stats;
    const bool counted = cset_reader_stats(&set, first, n, &stats, &rc) == 0;
    require(!readable || (status == 0 && seen == static_cast<uint64_t>(std::count(present.begin(), present.end(), 1))));
    require(!readable || (counted && stats.count + stats.nans == seen));
    cset_reader_close(&set);
}

void read_store(const std::vector<uint8_t>& bytes) {
    if (bytes.size() < sizeof(cstore_head_t)) return;
    const unique_fd fd(::memfd_create("cstore", MFD_CLOEXEC));
    require(::write(fd.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    const auto ref = static_cast<int64_t>(load_le64(bytes.data() + offsetof(cstore_head_t, footer_offset)));
    cs_reader_t store;
    warm_rc_t rc;
    if (cs_reader_open(&store, fd.get(), 0, ref, &rc) != 0) return;
    static_cast<void>(cs_verify(&store, &rc));
    for (size_t i = 0; i < std::min<size_t>(store.entries.size(), 8); i++) walk(store, store.entries[i].term_id);
}

void encode(const uint8_t* data, size_t size) {
    std::vector<double> values(std::min<size_t>(size / sizeof(double), CSET_BLOCK_ELEMENTS));
    if (values.empty()) return;
    std::memcpy(values.data(), data, values.size() * sizeof(double));
    cset_block_t block;
    std::vector<uint8_t> bytes(CSET_BLOCK_MAX_SIZE);
    bytes.resize(cset_block_encode(values, &block, bytes.data()));
    require(bytes.size() == block.data_size && bytes.size() <= values.size() * 8 + CSET_CHECKSUM_SIZE);
    uint8_t head[CSET_HEAD_MAX_SIZE];
    size_t read = 0;
    const size_t size_of_head = cset_head_put(&block, head);
    cset_block_t again;
    require(cset_head_get({head, size_of_head}, &again, &read) && read == size_of_head);
    require(again.count == values.size() && same_bits(again.minimum, block.minimum) &&
            same_bits(again.maximum, block.maximum));
    // A copy of its own size, so that a read past the end is seen.
    std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    exact.resize(bytes.size() + CSET_SLACK);
    std::vector<double> decoded(values.size());
    require(cset_block_decode(&again, {exact.data(), bytes.size()}, decoded.data()));
    for (size_t i = 0; i < values.size(); i++) require(same_bits(values[i], decoded[i]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    if (data[0] % 3 == 2) {
        encode(data + 1, size - 1);
        return 0;
    }
    std::vector<uint8_t> bytes(data + 1, data + size);
    if (data[0] % 3 == 1) repair(&bytes);
    read_store(bytes);
    return 0;
}

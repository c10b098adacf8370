// Building and writing the column store.
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/columns/cstore_internal.h"

namespace veldar {

namespace {

constexpr size_t WRITE_SIZE = size_t{1} << 16;
constexpr size_t MOST_SETS_AT_ONCE = 65536;  // a hint beyond this reserves no more

int no_memory(warm_rc_t* rc) {
    return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "columnset writer data_buf malloc failure");
}

// Gathers bytes into writes of WRITE_SIZE.
struct section_writer {
    int fd;
    uint64_t offset;
    buffer<uint8_t> bytes;
    size_t used = 0;

    int flush() {
        if (st_pwrite(fd, bytes.data(), used, offset) != static_cast<int64_t>(used)) return WARM_RC_WRITE;
        offset += used;
        used = 0;
        return 0;
    }
    int put(const void* data, size_t size) {
        const auto* from = static_cast<const uint8_t*>(data);
        while (size > 0) {
            if (used == bytes.size()) ST_TRY(flush());
            const size_t part = std::min(size, bytes.size() - used);
            std::memcpy(bytes.data() + used, from, part);
            used += part;
            from += part;
            size -= part;
        }
        return 0;
    }
};

int put_section(const cs_builder_t* builder, section_writer* out) {
    const uint64_t begin = out->offset;
    cstore_head_t head = {};
    std::memcpy(head.magic, CSTORE_MAGIC, sizeof head.magic);
    head.version = CSTORE_VERSION;
    head.sets = static_cast<uint32_t>(builder->entries.size());
    head.num_values = builder->num_values;
    head.num_preambles = builder->num_preambles;
    head.footer_offset = builder->footer_offset;
    ST_TRY(out->put(&head, sizeof head));
    for (const uint32_t index : builder->order) {
        const cset_writer_t& set = builder->sets[index];
        ST_TRY(out->put(set.head.data(), set.head.size()));
        ST_TRY(out->put(set.data.data(), set.data.size()));
    }
    ST_ASSERT(out->offset + out->used - begin == builder->footer_offset);
    const size_t entries_size = builder->entries.size() * sizeof(cs_tid_offset_t);
    cstore_footer_t footer = {};
    footer.sets = head.sets;
    footer.checksum = XXH32(builder->entries.data(), entries_size, XXH32(&head, sizeof head, 0));
    footer.section_size = builder->footer_offset + sizeof footer + entries_size;
    ST_TRY(out->put(&footer, sizeof footer));
    ST_TRY(out->put(builder->entries.data(), entries_size));
    ST_ASSERT(out->offset + out->used - begin == footer.section_size &&
              footer.section_size == cs_builder_size(builder));
    return out->flush();
}

bool ids_lie_within(const cset_writer_t& set, uint32_t num_values, uint32_t num_preambles) {
    return set.runs.empty() || (set.runs.front().first_value >= num_preambles && set.next_value <= num_values);
}

int lay_out(cs_builder_t* builder, warm_rc_t* rc) {
    builder->order.clear();
    for (const uint32_t set : builder->set_of_rank) {
        if (set != 0) builder->order.push_back(set - 1);
    }
    builder->entries.clear();
    uint64_t offset = sizeof(cstore_head_t);
    for (const uint32_t index : builder->order) {
        cset_writer_t& set = builder->sets[index];
        if (!ids_lie_within(set, builder->num_values, builder->num_preambles)) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, set.term_id, "invalid tsval_id range");
        }
        if (offset / 8 > UINT32_MAX) {
            return _set_rc_verbose(rc, WARM_RC_FOOTER_OFFSET, set.term_id, "cs_writer_footer_append offset overflow");
        }
        builder->entries.push_back({set.term_id, static_cast<uint32_t>(offset / 8)});
        offset += cset_writer_finish(&set);
    }
    ST_ASSERT(offset % 8 == 0 && builder->entries.size() == builder->sets.size());
    builder->footer_offset = offset;
    return 0;
}

}  // namespace

int cs_builder_open(cs_builder_t* builder, uint32_t measures_hint, warm_rc_t* rc) try {
    *builder = {};
    builder->sets.reserve(std::min<size_t>(measures_hint, MOST_SETS_AT_ONCE));
    return _set_rc(rc, WARM_RC_OK);
} catch (const std::bad_alloc&) {
    return no_memory(rc);
}

int cs_add_columnset(cs_builder_t* builder, uint32_t measure_rank, warm_rc_t* rc) try {
    if (measure_rank >= builder->set_of_rank.size()) {
        builder->set_of_rank.resize(std::max(size_t{measure_rank} + 1, builder->set_of_rank.size() * 2));
    }
    if (builder->set_of_rank[measure_rank] == 0) {
        builder->sets.emplace_back().term_id = measure_rank;
        builder->set_of_rank[measure_rank] = static_cast<uint32_t>(builder->sets.size());
    }
    return _set_rc(rc, WARM_RC_OK);
} catch (const std::bad_alloc&) {
    return no_memory(rc);
}

int cs_add_element(cs_builder_t* builder, uint32_t measure_rank, uint32_t value_no, bool set_changed, double v,
                   warm_rc_t* rc) try {
    const uint32_t index = measure_rank < builder->set_of_rank.size() ? builder->set_of_rank[measure_rank] : 0;
    if (index == 0) {
        return _set_rc_verbose(rc, WARM_RC_NOT_FOUND, measure_rank, "metric tid is not found in cstore");
    }
    cset_writer_t* set = &builder->sets[index - 1];
    if (value_no < set->next_value) return _set_rc_verbose(rc, WARM_RC_CORRUPT, value_no, "ordering violation");
    cset_writer_add(set, value_no, set_changed, v);
    return _set_rc(rc, WARM_RC_OK);
} catch (const std::bad_alloc&) {
    return no_memory(rc);
}

int cs_finalize_offsets(cs_builder_t* builder, uint32_t num_values, uint32_t num_preambles, int64_t* cstore_ref,
                        warm_rc_t* rc) try {
    builder->num_values = num_values;
    builder->num_preambles = num_preambles;
    ST_TRY(lay_out(builder, rc));
    *cstore_ref = static_cast<int64_t>(builder->footer_offset);
    return _set_rc(rc, WARM_RC_OK);
} catch (const std::bad_alloc&) {
    return no_memory(rc);
}

int cs_sync_cstore(cs_builder_t* builder, int fd, uint64_t section_offset, warm_rc_t* rc) {
    ST_ASSERT(builder->footer_offset > 0);
    section_writer out{.fd = fd, .offset = section_offset, .bytes = {}};
    if (!out.bytes.alloc(WRITE_SIZE)) return no_memory(rc);
    if (const int status = put_section(builder, &out); status != 0) {
        return _set_rc_msg(rc, status, "writing cstore");
    }
    return _set_rc(rc, WARM_RC_OK);
}

void cs_builder_close(cs_builder_t* builder) {
    *builder = {};
}

}  // namespace veldar

// Reading the column store's directory.
#include "searchthing/columns/cstore.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/columns/cstore_internal.h"

namespace veldar {

namespace {

int corrupted_footer(warm_rc_t* rc) {
    return _set_rc_msg(rc, WARM_RC_CORRUPT, "cstore footer is corrupted");
}

int read_part(int fd, void* out, uint64_t size, uint64_t offset, warm_rc_t* rc) {
    const int64_t got = st_pread(fd, out, size, offset);
    return got == static_cast<int64_t>(size) ? 0 : _set_rc_msg(rc, read_status(got), "cstore footer read");
}

// Whether the column sets ascend, by term and in the file, and lie between the head and the footer.
bool entries_are_sound(const cs_reader_t* reader) {
    if (reader->entries.empty()) return reader->footer_offset == sizeof(cstore_head_t);
    if (uint64_t{reader->entries[0].offset} * 8 != sizeof(cstore_head_t)) return false;
    for (size_t i = 1; i < reader->entries.size(); i++) {
        const cs_tid_offset_t before = reader->entries[i - 1], at = reader->entries[i];
        if (at.term_id <= before.term_id || at.offset <= before.offset) return false;
    }
    return uint64_t{reader->entries[reader->entries.size() - 1].offset} * 8 < reader->footer_offset;
}

// The section's head and footer agree with each other, with the slice's header and with the file.
bool ends_agree(const cstore_head_t& head, const cstore_footer_t& footer, uint64_t footer_offset, uint64_t room) {
    const uint64_t size = footer_offset + sizeof footer + uint64_t{head.sets} * sizeof(cs_tid_offset_t);
    return std::memcmp(head.magic, CSTORE_MAGIC, sizeof head.magic) == 0 && head.footer_offset == footer_offset &&
           head.sets == footer.sets && footer.section_size == size && size <= room;
}

int open_section(cs_reader_t* reader, uint64_t footer_offset, warm_rc_t* rc) {
    uint64_t file_size = 0;
    if (osfile_get_size(reader->fd, &file_size) != 0) return _set_rc_msg(rc, WARM_RC_FILE_SIZE, "cstore file size");
    const uint64_t room = file_size - std::min(reader->section_offset, file_size);
    cstore_head_t head;
    cstore_footer_t footer;
    if (footer_offset < sizeof head || footer_offset % 8 != 0 || room < sizeof footer ||
        footer_offset > room - sizeof footer) {
        return corrupted_footer(rc);
    }
    ST_TRY(read_part(reader->fd, &head, sizeof head, reader->section_offset, rc));
    ST_TRY(read_part(reader->fd, &footer, sizeof footer, reader->section_offset + footer_offset, rc));
    if (!ends_agree(head, footer, footer_offset, room)) return corrupted_footer(rc);
    if (!reader->entries.alloc(head.sets)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "cstore entries");
    const size_t entries_size = head.sets * sizeof(cs_tid_offset_t);
    ST_TRY(read_part(reader->fd, reader->entries.data(), entries_size,
                     reader->section_offset + footer_offset + sizeof footer, rc));
    if (footer.checksum != XXH32(reader->entries.data(), entries_size, XXH32(&head, sizeof head, 0))) {
        return corrupted_footer(rc);
    }
    if (head.version < CSTORE_OLDEST_VERSION || head.version > CSTORE_VERSION) {
        return _set_rc_verbose(rc, WARM_RC_UNSUPPORTED, head.version, "cstore version");
    }
    reader->version = head.version;
    reader->section_size = footer.section_size;
    reader->footer_offset = footer_offset;
    reader->num_values = head.num_values;
    reader->num_preambles = head.num_preambles;
    return entries_are_sound(reader) ? 0 : corrupted_footer(rc);
}

}  // namespace

int cs_reader_open(cs_reader_t* reader, int fd, uint64_t section_offset, int64_t cstore_ref, warm_rc_t* rc) {
    *reader = {};
    reader->fd = fd;
    reader->section_offset = section_offset;
    _set_rc(rc, WARM_RC_OK);
    const int status = open_section(reader, cstore_ref < 0 ? 0 : static_cast<uint64_t>(cstore_ref), rc);
    if (status != 0) cs_reader_close(reader);
    return status;
}

int cs_reader_find(const cs_reader_t* reader, uint32_t term_id, uint64_t* set_offset, warm_rc_t* rc) {
    uint64_t size = 0;
    return cs_reader_extent(reader, term_id, set_offset, &size, rc);
}

int cs_reader_extent(const cs_reader_t* reader, uint32_t term_id, uint64_t* set_offset, uint64_t* size, warm_rc_t* rc) {
    const cs_tid_offset_t* entry =
        std::lower_bound(reader->entries.begin(), reader->entries.end(), term_id,
                         [](const cs_tid_offset_t& at, uint32_t id) { return at.term_id < id; });
    if (entry == reader->entries.end() || entry->term_id != term_id) {
        return _set_rc_verbose(rc, WARM_RC_NOT_FOUND, term_id, "metric tid is not found in cstore");
    }
    const uint64_t begin = uint64_t{entry->offset} * 8;
    const uint64_t end = entry + 1 == reader->entries.end() ? reader->footer_offset : uint64_t{entry[1].offset} * 8;
    ST_ASSERT(begin < end && end <= reader->footer_offset);
    *set_offset = reader->section_offset + begin;
    *size = end - begin;
    return _set_rc(rc, WARM_RC_OK);
}

int cs_verify(const cs_reader_t* reader, warm_rc_t* rc) {
    cset_reader_t set;
    for (const cs_tid_offset_t& entry : reader->entries) {
        ST_TRY(cset_reader_open(&set, reader, entry.term_id, nullptr, rc));
        ST_TRY(cset_reader_verify(&set, rc));
    }
    return _set_rc(rc, WARM_RC_OK);
}

void cs_reader_close(cs_reader_t* reader) {
    *reader = {};
}

}  // namespace veldar

// Hashing a slice, section by section.
#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "libzero/resource.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/seal/slice_seal.h"
#include "searchthing/slice/warmslice.h"

namespace veldar {

namespace {

constexpr uint64_t PIECE = 4 * SEAL_BLOCK;  // read at once: what the processor keeps near until it is hashed
static_assert(PIECE % SEAL_BLOCK == 0);
// A delete writes its marks and says so one after another; a check that comes in between asks again.
constexpr int MARKS_TRIES = 5;
constexpr unsigned MARKS_PAUSE_MICROSECONDS = 20000;

// Where each section begins, in file order; the end of the file last.
using section_begins_t = std::vector<std::pair<seal_section_t, uint64_t>>;

int place_sections(const WARM* warm, section_begins_t* out, warm_rc_t* rc) {
    const warm_section_offsets_t at = warm_header_section_offsets(warm->body);
    const uint64_t d_end = at.d + warm->body->d_size.get();
    *out = {{SEALED_HEADER, 0}, {SEALED_VALUES, at.values}, {SEALED_M, at.m}, {SEALED_S, at.s},
            {SEALED_ST, at.st}, {SEALED_H, at.host},        {SEALED_D, at.d}, {SEALED_OFFSETS, d_end}};
    if (st_warm_slice_has_fclex(warm)) {
        out->push_back({SEALED_METADATA, at.metadata});
        out->push_back({SEALED_LEXICON, at.fclex});
        out->push_back({SEALED_LISTS, warm->postings_base});
        if (st_warm_slice_is_msidx_with_dimsets(warm->body)) {
            const int64_t dimsets = st_warm_slice_dimsets_offset(warm, rc);
            if (dimsets < 0) return rc->warm_rc;
            out->push_back({SEALED_DIMSETS, static_cast<uint64_t>(dimsets)});
        }
        if (st_warm_slice_is_msidx_with_cstore(warm->body)) {
            const int64_t columns = st_warm_slice_cstore_offset(warm, rc);
            if (columns < 0) return rc->warm_rc;
            out->push_back({SEALED_CSTORE, static_cast<uint64_t>(columns)});
        }
    }
    return 0;
}

int alloc_piece(buffer<uint8_t>* piece, uint64_t slice_bytes, warm_rc_t* rc) {
    return piece->alloc(static_cast<size_t>(std::min(PIECE, slice_bytes))) ? 0 : _set_rc(rc, WARM_RC_NO_MEMORY);
}

// Reads up to `size` bytes, fewer only where the file ends: the count, or the status of a read.
int64_t read_all(int fd, uint8_t* out, size_t size, uint64_t offset, warm_rc_t* rc) {
    size_t done = 0;
    while (done < size) {
        const int64_t got = st_pread(fd, out + done, size - done, offset + done);
        if (got < 0) return _set_rc_msg(rc, WARM_RC_READ, "reading a slice for its seal");
        if (got == 0) break;
        done += static_cast<size_t>(got);
    }
    return static_cast<int64_t>(done);
}

// Hashes blocks from `offset` on until `size` bytes or the file end.
int hash_blocks(int fd, uint64_t offset, uint64_t size, buffer<uint8_t>* piece, std::vector<uint64_t>* hashes,
                uint64_t* hashed, warm_rc_t* rc) {
    *hashed = 0;
    while (*hashed < size) {
        const auto wanted = static_cast<size_t>(std::min(size - *hashed, PIECE));
        const int64_t got = read_all(fd, piece->data(), wanted, offset + *hashed, rc);
        if (got < 0) return static_cast<int>(got);
        for (size_t at = 0; at < static_cast<size_t>(got); at += SEAL_BLOCK) {
            const size_t bytes = std::min<size_t>(static_cast<size_t>(got) - at, SEAL_BLOCK);
            hashes->push_back(XXH64(piece->data() + at, bytes, 0));
        }
        *hashed += static_cast<uint64_t>(got);
        if (static_cast<size_t>(got) < wanted) break;
    }
    return 0;
}

int hash_marks(int fd, const slice_seal_t& seal, uint64_t* hash, warm_rc_t* rc) {
    sealed_section_t d;
    for (const sealed_section_t& section : seal.sections) {
        if (section.section == SEALED_D) d = section;
    }
    // As many as the file has: a file that was cut short hashes to something else.
    uint64_t size = 0;
    if (osfile_get_size(fd, &size) != 0) return _set_rc_msg(rc, WARM_RC_FILE_SIZE, "reading a slice for its seal");
    std::vector<uint8_t> bytes(std::min(d.size, size - std::min(size, d.offset)));
    const int64_t got = read_all(fd, bytes.data(), bytes.size(), d.offset, rc);
    if (got < 0) return static_cast<int>(got);
    *hash = XXH64(bytes.data(), static_cast<size_t>(got), 0);
    return 0;
}

int check_marks(int fd, const std::string& slice, slice_seal_t* seal, std::vector<seal_fault_t>* faults,
                warm_rc_t* rc) {
    for (int i = 0;; i++) {
        uint64_t hash = 0;
        ST_TRY(hash_marks(fd, *seal, &hash, rc));
        if (seal->is_deleting || hash == seal->marks) return 0;
        if (i == MARKS_TRIES) break;
        ::usleep(MARKS_PAUSE_MICROSECONDS);
        ST_TRY(seal_read(slice, seal, rc));
    }
    for (const sealed_section_t& section : seal->sections) {
        if (section.section == SEALED_D) faults->push_back({SEALED_D, section.offset, section.size, seal->marks});
    }
    return 0;
}

int check_sections(int fd, const slice_seal_t& seal, std::vector<seal_fault_t>* faults, warm_rc_t* rc) {
    buffer<uint8_t> piece;
    ST_TRY(alloc_piece(&piece, seal.size, rc));
    size_t block = 0;
    std::vector<uint64_t> hashes;
    for (const sealed_section_t& section : seal.sections) {
        if (section.section == SEALED_D) continue;
        uint64_t hashed = 0;
        hashes.clear();
        ST_TRY(hash_blocks(fd, section.offset, section.size, &piece, &hashes, &hashed, rc));
        for (uint64_t at = 0, i = 0; at < section.size; at += SEAL_BLOCK, i++, block++) {
            const uint64_t hash = seal.blocks[block];
            const bool same = i < hashes.size() && hashes[i] == hash;
            if (same) continue;
            faults->push_back({section.section, section.offset + at, std::min(SEAL_BLOCK, section.size - at), hash});
        }
    }
    ST_ASSERT(block == seal.blocks.size());
    return 0;
}

}  // namespace

int seal_make(const std::string& slice, slice_seal_t* seal, warm_rc_t* rc) {
    *seal = {};
    const warm_ptr warm(st_warm_slice_open_rdonly(slice.c_str(), rc));
    if (warm == nullptr) return rc->warm_rc;
    section_begins_t begins;
    ST_TRY(place_sections(warm.get(), &begins, rc));
    seal->size = warm->file_size;
    buffer<uint8_t> piece;
    ST_TRY(alloc_piece(&piece, seal->size, rc));
    for (size_t i = 0; i < begins.size(); i++) {
        const uint64_t begin = begins[i].second, end = i + 1 < begins.size() ? begins[i + 1].second : seal->size;
        if (begin > end || end > seal->size) {
            return _set_rc_msg(rc, WARM_RC_CORRUPT, "the sections of a slice do not follow one another");
        }
        seal->sections.push_back({begins[i].first, begin, end - begin});
        if (begins[i].first == SEALED_D) continue;
        uint64_t hashed = 0;
        ST_TRY(hash_blocks(warm->fd.get(), begin, end - begin, &piece, &seal->blocks, &hashed, rc));
        if (hashed != end - begin) return _set_rc_msg(rc, WARM_RC_SHORT_READ, slice.c_str());
    }
    return hash_marks(warm->fd.get(), *seal, &seal->marks, rc);
}

int seal_make_marks(const std::string& slice, slice_seal_t* seal, warm_rc_t* rc) {
    const unique_fd fd = osfile_open_regular(slice.c_str(), O_RDONLY);
    if (!fd.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, slice.c_str());
    return hash_marks(fd.get(), *seal, &seal->marks, rc);
}

int seal_check(const std::string& slice, std::vector<seal_fault_t>* faults, warm_rc_t* rc) {
    faults->clear();
    slice_seal_t seal;
    ST_TRY(seal_read(slice, &seal, rc));
    const unique_fd fd = osfile_open_regular(slice.c_str(), O_RDONLY);
    if (!fd.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, slice.c_str());
    uint64_t size = 0;
    if (osfile_get_size(fd.get(), &size) != 0) return _set_rc_msg(rc, WARM_RC_FILE_SIZE, slice.c_str());
    ST_TRY(check_sections(fd.get(), seal, faults, rc));
    if (size > seal.size) faults->push_back({seal.sections.back().section, seal.size, size - seal.size, 0});
    return check_marks(fd.get(), slice, &seal, faults, rc);
}

int seal_verify(const std::string& slice, warm_rc_t* rc) {
    std::vector<seal_fault_t> faults;
    warm_rc_t why;
    if (seal_check(slice, &faults, &why) != 0) {
        return why.warm_rc == WARM_RC_OPEN && why.saved_errno == ENOENT ? 0 : _cpy_rc(rc, &why);
    }
    if (faults.empty()) return 0;
    const std::string text = std::string("a slice differs from its seal in its ") +
                             seal_section_name(faults[0].section) + " at byte " + std::to_string(faults[0].offset) +
                             ": " + slice;
    return _set_rc_msg(rc, WARM_RC_CORRUPT, text.c_str());
}

}  // namespace veldar

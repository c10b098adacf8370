#include "searchthing/seal/slice_seal.h"

#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/osfile.h"
#include "libzero/resource.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/format/tsidx_names.h"

namespace veldar {

namespace {

constexpr std::string_view MAGIC = "VELDAR SEAL 1\n";
constexpr uint64_t MAX_SEAL_BYTES = uint64_t{64} << 20;  // of a slice of half a terabyte
constexpr size_t SLOT = 24;
constexpr const char* NAMES[] = {"header",  "values",   "m",       "s",     "st",      "h",      "d",
                                 "offsets", "metadata", "lexicon", "lists", "dimsets", "columns"};
static_assert(std::size(NAMES) == SEALED_SECTIONS);

int fail_damaged(const std::string& slice, warm_rc_t* rc) {
    return _set_rc_msg(rc, WARM_RC_CORRUPT, ("the seal is damaged: " + seal_path(slice)).c_str());
}

uint64_t blocks_of(const sealed_section_t& section) {
    if (section.section == SEALED_D) return 0;
    return section.size / SEAL_BLOCK + (section.size % SEAL_BLOCK != 0 ? 1 : 0);
}

// A seal's file as it lies there.
struct seal_file {
    std::vector<uint8_t> bytes;
    size_t base = 0;    // bytes before the hash
    uint64_t hash = 0;  // of these
};

// What the slots say; `number` is the highest.
struct slots_t {
    bool valid = false;
    uint64_t number = 0, marks = 0, marks_before = 0;
};

void fill_slot(uint8_t* slot, uint64_t number, uint64_t marks, uint64_t base_hash) {
    store_be64(slot, number);
    store_be64(slot + 8, marks);
    store_be64(slot + 16, XXH64(slot, 16, base_hash));
}

bool slot_is_valid(const uint8_t* slot, uint64_t base_hash, uint64_t parity) {
    return load_be64(slot + 16) == XXH64(slot, 16, base_hash) && load_be64(slot) % 2 == parity;
}

slots_t read_slots(const uint8_t* at, uint64_t base_hash) {
    slots_t out;
    if (!slot_is_valid(at, base_hash, 0)) {
        // The end of a delete was cut off: its beginning, which comes before, tells the same marks.
        if (!slot_is_valid(at + SLOT, base_hash, 1)) return out;
        return {true, load_be64(at + SLOT), load_be64(at + SLOT + 8), load_be64(at + SLOT + 8)};
    }
    out = {true, load_be64(at), load_be64(at + 8), load_be64(at + 8)};
    const bool begun = slot_is_valid(at + SLOT, base_hash, 1) && load_be64(at + SLOT) > out.number;
    if (begun) {
        out.number = load_be64(at + SLOT);
        out.marks = load_be64(at + SLOT + 8);
    }
    return out;
}

std::string text_of(const slice_seal_t& seal) {
    std::string text(MAGIC);
    char line[160];
    std::snprintf(line, sizeof line, "slice %" PRIu64 "\nsize %" PRIu64 "\n", seal.id, seal.size);
    text += line;
    size_t block = 0;
    for (const sealed_section_t& section : seal.sections) {
        std::vector<uint8_t> hashes(8 * blocks_of(section));
        for (size_t i = 0; i < hashes.size(); i += 8) store_be64(hashes.data() + i, seal.blocks[block++]);
        const uint64_t hash = hashes.empty() ? 0 : XXH64(hashes.data(), hashes.size(), 0);
        std::snprintf(line, sizeof line, "section %s %" PRIu64 " %" PRIu64 " %016" PRIx64 "\n",
                      seal_section_name(section.section), section.offset, section.size, hash);
        text += line;
    }
    ST_ASSERT(block == seal.blocks.size());
    std::snprintf(line, sizeof line, "blocks %" PRIu64 " %zu\n", SEAL_BLOCK, seal.blocks.size());
    return text + line;
}

// Takes words and numbers off the front of a text.
struct head_reader {
    std::string_view rest;

    bool word(std::string_view text) {
        if (!rest.starts_with(text)) return false;
        rest.remove_prefix(text.size());
        return true;
    }
    bool number(uint64_t* out, int base = 10) {
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), *out, base);
        if (error != std::errc()) return false;
        rest.remove_prefix(static_cast<size_t>(end - rest.data()));
        return true;
    }
};

bool read_section(head_reader* head, sealed_section_t* out) {
    const size_t end = head->rest.find(' ');
    const std::string_view name = head->rest.substr(0, end);
    const auto* const known = std::find(std::begin(NAMES), std::end(NAMES), name);
    if (known == std::end(NAMES)) return false;
    out->section = static_cast<seal_section_t>(known - std::begin(NAMES));
    uint64_t hash = 0;  // of use to people; the hash of everything covers it
    return head->word(name) && head->word(" ") && head->number(&out->offset) && head->word(" ") &&
           head->number(&out->size) && head->word(" ") && head->number(&hash, 16) && head->word("\n");
}

// The text, whose hash need not have been looked at. False unless sections fill the file in order and the blocks are
// theirs.
bool read_text(head_reader* head, slice_seal_t* seal, uint64_t* blocks) {
    if (!head->word(MAGIC) || !head->word("slice ") || !head->number(&seal->id) || !head->word("\nsize ") ||
        !head->number(&seal->size) || !head->word("\n")) {
        return false;
    }
    uint64_t end = 0, expected = 0;
    while (head->word("section ")) {
        sealed_section_t section;
        if (!read_section(head, &section) || section.offset != end || section.size > seal->size - end) return false;
        if (!seal->sections.empty() && section.section <= seal->sections.back().section) return false;
        end += section.size;
        expected += blocks_of(section);
        seal->sections.push_back(section);
    }
    uint64_t block_bytes = 0;
    return head->word("blocks ") && head->number(&block_bytes) && head->word(" ") && head->number(blocks) &&
           head->word("\n") && block_bytes == SEAL_BLOCK && *blocks == expected && end == seal->size &&
           !seal->sections.empty();
}

int read_file(int fd, const std::string& slice, seal_file* file, warm_rc_t* rc) {
    uint64_t size = 0;
    if (osfile_get_size(fd, &size) != 0) return _set_rc_msg(rc, WARM_RC_FILE_SIZE, seal_path(slice).c_str());
    if (size > MAX_SEAL_BYTES) return fail_damaged(slice, rc);
    file->bytes.resize(size);
    const int64_t got = st_pread(fd, file->bytes.data(), file->bytes.size(), 0);
    // A seal does not grow or shrink: a read that comes short is the file system's trouble, not the seal's.
    return got == static_cast<int64_t>(size) ? 0 : _set_rc_msg(rc, WARM_RC_READ, seal_path(slice).c_str());
}

int parse(const std::string& slice, seal_file* file, slice_seal_t* seal, warm_rc_t* rc) {
    *seal = {};
    const std::string_view text(reinterpret_cast<const char*>(file->bytes.data()), file->bytes.size());
    head_reader head{text};
    uint64_t blocks = 0;
    if (!read_text(&head, seal, &blocks)) return fail_damaged(slice, rc);
    file->base = text.size() - head.rest.size() + 8 * blocks;
    if (file->bytes.size() != file->base + 8 + 2 * SLOT) return fail_damaged(slice, rc);
    const uint8_t* const behind = file->bytes.data() + file->base;
    file->hash = load_be64(behind);
    if (file->hash != XXH64(file->bytes.data(), file->base, 0)) return fail_damaged(slice, rc);
    const slots_t slots = read_slots(behind + 8, file->hash);
    if (!slots.valid) return fail_damaged(slice, rc);
    seal->marks = slots.marks;
    seal->is_deleting = slots.number % 2 == 1;
    seal->blocks.resize(blocks);
    for (size_t i = 0; i < blocks; i++) seal->blocks[i] = load_be64(behind - 8 * (blocks - i));
    return 0;
}

int open_seal(const std::string& slice, int flags, unique_fd* fd, warm_rc_t* rc) {
    *fd = osfile_open_regular(seal_path(slice).c_str(), flags);
    return fd->valid() ? 0 : _set_rc_msg(rc, WARM_RC_OPEN, seal_path(slice).c_str());
}

std::vector<uint8_t> bytes_of(const slice_seal_t& seal) {
    const std::string text = text_of(seal);
    std::vector<uint8_t> bytes(text.size() + 8 * seal.blocks.size() + 8 + 2 * SLOT);
    std::memcpy(bytes.data(), text.data(), text.size());
    uint8_t* at = bytes.data() + text.size();
    for (const uint64_t block : seal.blocks) {
        store_be64(at, block);
        at += 8;
    }
    const uint64_t hash = XXH64(bytes.data(), static_cast<size_t>(at - bytes.data()), 0);
    store_be64(at, hash);
    fill_slot(at + 8, 0, seal.marks, hash);
    return bytes;
}

// Removes the file when it goes out of scope, unless it got its name.
struct part_file {
    std::string path;
    ~part_file() {
        if (!path.empty()) ::unlink(path.c_str());
    }
};

// Writes the slot of the beginning or the end of a delete into a seal that is whole.
int write_slot(int fd, const seal_file& file, const std::string& slice, uint64_t number, uint64_t marks, bool durable,
               warm_rc_t* rc) {
    uint8_t slot[SLOT];
    fill_slot(slot, number, marks, file.hash);
    const uint64_t at = file.base + 8 + (number % 2) * SLOT;
    if (st_pwrite(fd, slot, SLOT, at) != static_cast<int64_t>(SLOT) || (durable && osfile_flush(fd) != 0)) {
        return _set_rc_msg(rc, WARM_RC_WRITE, seal_path(slice).c_str());
    }
    return 0;
}

// A seal opened for a delete; `has_seal` tells whether there is one that is whole.
struct marked_seal {
    unique_fd fd;
    seal_file file;
    slice_seal_t seal;
    slots_t slots;
    bool has_seal = false;
};

int open_for_marks(const std::string& slice, marked_seal* out, warm_rc_t* rc) {
    warm_rc_t why;
    if (open_seal(slice, O_RDWR, &out->fd, &why) != 0) return why.saved_errno == ENOENT ? 0 : _cpy_rc(rc, &why);
    ST_TRY(read_file(out->fd.get(), slice, &out->file, rc));
    if (parse(slice, &out->file, &out->seal, &why) != 0) return 0;  // it stays as damaged as it is
    out->slots = read_slots(out->file.bytes.data() + out->file.base + 8, out->file.hash);
    out->has_seal = true;
    return 0;
}

}  // namespace

const char* seal_section_name(seal_section_t section) {
    ST_ASSERT(section < SEALED_SECTIONS);
    return NAMES[section];
}

std::string seal_path(const std::string& slice) {
    return slice + SEAL_SUFFIX;
}

int seal_write(const std::string& slice, slice_seal_t* seal, bool durable, warm_rc_t* rc) {
    st_filename_metadata_t meta;
    const bool named =
        st_tsidx_file_parse(slice.c_str(), &meta) != 0 || tsidx_part_file_parse(slice.c_str(), &meta) != 0;
    seal->id = named ? meta.id : 0;
    const std::vector<uint8_t> bytes = bytes_of(*seal);
    const std::string path = seal_path(slice);
    part_file part{slice + SEAL_PART + std::to_string(::getpid())};
    unique_fd fd = osfile_create_anew(part.path.c_str());
    if (!fd.valid()) {
        part.path.clear();
        return _set_rc_msg(rc, WARM_RC_OPEN, path.c_str());
    }
    ST_TRY(st_file_write(fd.get(), bytes.data(), static_cast<int64_t>(bytes.size())) == 0
               ? 0
               : _set_rc_msg(rc, WARM_RC_WRITE, path.c_str()));
    if (durable && osfile_flush(fd.get()) != 0) return _set_rc_msg(rc, WARM_RC_WRITE, path.c_str());
    if (fd.close_checked() != 0) return _set_rc_msg(rc, WARM_RC_CLOSE, path.c_str());
    if (::rename(part.path.c_str(), path.c_str()) != 0) return _set_rc_msg(rc, WARM_RC_WRITE, path.c_str());
    part.path.clear();
    return 0;
}

int seal_read(const std::string& slice, slice_seal_t* seal, warm_rc_t* rc) {
    unique_fd fd;
    seal_file file;
    ST_TRY(open_seal(slice, O_RDONLY, &fd, rc));
    ST_TRY(read_file(fd.get(), slice, &file, rc));
    return parse(slice, &file, seal, rc);
}

int seal_begin_marks(const std::string& slice, std::span<const uint8_t> now, std::span<const uint8_t> then,
                     bool durable, warm_rc_t* rc) {
    marked_seal file;
    ST_TRY(open_for_marks(slice, &file, rc));
    if (!file.has_seal) return 0;
    // An interrupted delete may have left anything between the two.
    if (!file.seal.is_deleting && XXH64(now.data(), now.size(), 0) != file.seal.marks) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, ("the deleted marks are not those that were sealed: " + slice).c_str());
    }
    return write_slot(file.fd.get(), file.file, slice, file.slots.number | 1, XXH64(then.data(), then.size(), 0),
                      durable, rc);
}

int seal_end_marks(const std::string& slice, std::span<const uint8_t> marks, bool durable, warm_rc_t* rc) {
    marked_seal file;
    ST_TRY(open_for_marks(slice, &file, rc));
    if (!file.has_seal) return 0;
    const uint64_t number = (file.slots.number | 1) + 1;
    return write_slot(file.fd.get(), file.file, slice, number, XXH64(marks.data(), marks.size(), 0), durable, rc);
}

}  // namespace veldar

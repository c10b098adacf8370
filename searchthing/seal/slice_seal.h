// The seal of a slice: what its bytes were when it was written, in a file of its own beside it, NAME.tsidx.seal. A
// reader of the slice needs none; a slice without one is as good, but nobody can tell whether its bytes are still the
// same.
//
//   lines of text, each ending in "\n"
//     VELDAR SEAL 1
//     slice <id>                                     the unique id of the slice's name; 0 for a name of another kind
//     size <bytes>                                   of the slice's file
//     section <name> <offset> <bytes> <16 hex digits>    one a section, in file order, without gaps: the zeros between
//                                                    two belong to the first, those behind d to the second; the
//                                                    XXH64 of the section's block hashes, 0 for d
//     blocks <bytes a block> <count>
//   then, big-endian
//     8 x count    XXH64 of each block, section by section; a block ends with its section. None for d.
//     8            XXH64 of everything before
//     24           slot 0
//     24           slot 1
//
// Every hash has seed 0 but where it is said. The deleted marks (section d) change in place, so theirs lies in the
// slots: u64 sequence number, u64 XXH64 of d's bytes, u64 XXH64 of these 16 bytes seeded with the hash before the
// slots. The valid slot with the highest number counts. Even numbers say what d's bytes are (slot 0), odd ones (slot 1)
// that a delete has begun which will make them so. Whoever deletes holds the directory's lock, writes slot 1, marks,
// writes slot 0: a kill in between leaves an odd number, and then the marks cannot be told from damage.
//
// None of this is used by two threads on one seal; files may be read by any number of processes beside a delete.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "searchthing/base/warm_rc.h"

namespace veldar {

inline constexpr char SEAL_SUFFIX[] = ".seal";
inline constexpr char SEAL_PART[] = ".seal.part.";  // and the number of the process that is writing it
inline constexpr uint64_t SEAL_BLOCK = 65536;

enum seal_section_t : uint32_t {
    SEALED_HEADER,
    SEALED_VALUES,
    SEALED_M,
    SEALED_S,
    SEALED_ST,
    SEALED_H,
    SEALED_D,
    SEALED_OFFSETS,
    SEALED_METADATA,  // with the reverse term table of older slices
    SEALED_LEXICON,   // with the reverse one
    SEALED_LISTS,
    SEALED_DIMSETS,
    SEALED_CSTORE,
    SEALED_SECTIONS,
};
// "header", "values", "m" and so on, as in the file.
const char* seal_section_name(seal_section_t section);

struct sealed_section_t {
    seal_section_t section = SEALED_HEADER;
    uint64_t offset = 0, size = 0;  // in the slice
};

struct slice_seal_t {
    uint64_t id = 0;
    uint64_t size = 0;
    std::vector<sealed_section_t> sections;
    std::vector<uint64_t> blocks;  // hashes, of all sections but d
    uint64_t marks = 0;            // hash of d's bytes
    bool is_deleting = false;      // the slice's marks are on their way to `marks`
};

// A piece of a slice that is not what was sealed.
struct seal_fault_t {
    seal_section_t section = SEALED_HEADER;
    uint64_t offset = 0, size = 0;
    uint64_t hash = 0;  // of what it was; 0 for a piece behind the end of what was sealed
};

// All of these may throw std::bad_alloc, before they changed anything. `slice` is the path of a slice.

std::string seal_path(const std::string& slice);
// Reads the whole file and tells its seal. 0; what the opening of a slice reports; WARM_RC_CORRUPT when its sections do
// not follow one another; the status of a read.
[[nodiscard]] int seal_make(const std::string& slice, slice_seal_t* seal, warm_rc_t* rc);
// Tells the marks anew, of the same file after it was deleted from.
[[nodiscard]] int seal_make_marks(const std::string& slice, slice_seal_t* seal, warm_rc_t* rc);
// Writes the seal of `slice`, whose id is that of its name, in the place of one that it has. The file is whole when it
// gets its name, and flushed if `durable`; the directory is the caller's business. 0, WARM_RC_OPEN, WARM_RC_WRITE or
// WARM_RC_CLOSE, and then no file is left.
[[nodiscard]] int seal_write(const std::string& slice, slice_seal_t* seal, bool durable, warm_rc_t* rc);
// 0; WARM_RC_OPEN with errno ENOENT for a slice without a seal; WARM_RC_CORRUPT, WARM_RC_BAD_MAGIC for damage in the
// seal; the status of a read.
[[nodiscard]] int seal_read(const std::string& slice, slice_seal_t* seal, warm_rc_t* rc);

// Compares the slice with its seal, a piece after another: every block that differs, a size that differs (as a fault
// behind the shorter one's end). A delete that is at work meanwhile, or was interrupted, is no fault. 0, with or
// without faults; the failures of seal_read; WARM_RC_OPEN, WARM_RC_FILE_SIZE or the status of a read of the slice.
[[nodiscard]] int seal_check(const std::string& slice, std::vector<seal_fault_t>* faults, warm_rc_t* rc);
// The same as one status, for whoever is about to copy the slice: WARM_RC_CORRUPT with the first fault and the path for
// one that differs; 0 also for a slice without a seal.
[[nodiscard]] int seal_verify(const std::string& slice, warm_rc_t* rc);

// Looks for the one bit of the bytes that, flipped back, gives them the hash, and flips it: false when there is none. As
// slow as hashing the bytes half as often as they have bits: about 2 seconds for a block.
bool seal_repair(std::span<uint8_t> bytes, uint64_t hash);

// A delete, under the directory's lock: `now` are d's bytes before it, `then` as they will be. 0, also for a slice
// without a seal, or with a damaged one; WARM_RC_CORRUPT when `now` is not what was sealed; WARM_RC_OPEN,
// WARM_RC_WRITE.
[[nodiscard]] int seal_begin_marks(const std::string& slice, std::span<const uint8_t> now,
                                   std::span<const uint8_t> then, bool durable, warm_rc_t* rc);
// Once `marks` are in the slice's file: 0, also without a seal; WARM_RC_OPEN, WARM_RC_WRITE.
[[nodiscard]] int seal_end_marks(const std::string& slice, std::span<const uint8_t> marks, bool durable, warm_rc_t* rc);

}  // namespace veldar

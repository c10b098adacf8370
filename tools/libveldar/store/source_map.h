// Source map of a bucket: which stretch of event addresses is which stretch of which file, and how far the bucket is
// indexed. An append-only file of records; integers are little-endian. A record whose checksum fails at the end of the
// file is an append that was cut off, and the next writer removes it.
//
//   offset  size  field
//   0       4     payload_size  n
//   4       4     kind          1 file, 2 stretch, 3 mark, 4 tail, 5 forgotten
//   8       n     payload
//   8 + n   8     checksum      XXH64 of the 8 + n bytes before it, seeded with the record's offset in the file
//
//   file, 66 + a + b + c: what is known of a file; a later record of the same number replaces it
//     0   8  device              40  4  head_size      48  4  source      60  1  kind: 0 plain, 1 compressed, 2 spool
//     8   8  inode               44  4  number         52  4  sourcetype  61  1  crlf: 1 when lines end in CR LF
//     16  8  size                                      56  4  host        62  2  path_size a
//     24  8  modified_ns                                                  64  2  format_size b
//     32  8  head_hash                                                    66  a  path, then b format,
//                                                                             then c records
//   stretch, 32: addresses from base on are bytes of the file from offset on; of no file when its number is 0
//     0   8  base      8  4  number     12  4  cut      16  8  offset    24  8  limit
//   mark, 8: every event below this address is in a durable slice
//     0   8  frontier
//   tail, 32 (24 in stores of before: without the last): the `size` bytes before offset `end` of the file hash to `hash`
//     0   8  end       8  8  hash       16  4  size     20  4  number     24  8  whole: of a file that is compressed or
//                                                                                 decoded, what it was when it ended
//                                                                                 there (known_files.h); else 0
//   forgotten, 8: the file counts as never loaded, and its events are to be deleted
//     0   4  number    4  4  deleted: 1 when they are
//
// A stretch ends where the next begins: writers choose base = previous base + bytes taken from the previous stretch. A
// stretch with base b also voids every earlier one from b on: those addresses were never in a visible slice (a load was
// killed before its sync), so they are used again.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "libzero/resource.h"

namespace veldar::tool {

enum source_kind_t : uint8_t { SOURCE_PLAIN = 0, SOURCE_PACKED = 1, SOURCE_SPOOL = 2 };

inline constexpr uint64_t SOURCE_NO_LIMIT = ~uint64_t{0};

struct source_file {
    uint32_t number = 0;  // unique in the store; the same in every bucket that holds a stretch of the file
    source_kind_t kind = SOURCE_PLAIN;
    bool crlf = false;
    uint64_t device = 0, inode = 0;
    uint64_t size = 0;  // bytes on disk and modification time when it was last loaded
    uint64_t modified_ns = 0;
    uint32_t head_size = 0;  // the first bytes, decompressed: what tells the file from others wherever it is
    uint64_t head_hash = 0;  // XXH64
    uint32_t source = 0, sourcetype = 0, host = 0;  // numbers in the store's dictionaries
    std::string path;                               // absolute; of a spool the name in the bucket's directory
    std::string format;                             // name of the line format
    std::string records;  // how it is cut into records, a rule a line; stores of before have none: by indents
};

struct source_stretch {
    uint64_t base = 0;
    uint32_t number = 0;               // of the file
    uint64_t offset = 0;               // in the decompressed file
    uint64_t limit = SOURCE_NO_LIMIT;  // offset that the load did not go beyond: the file's size when it was opened
    uint32_t cut = 0;                  // line of the file's `records`
};

struct source_tail {
    uint32_t number = 0;
    uint64_t end = 0;
    uint32_t size = 0;
    uint64_t hash = 0;
    uint64_t whole = 0;
};

struct source_map {
    std::string path;
    unique_fd fd;       // writers only
    uint64_t size = 0;  // bytes of whole records
    bool durable = true;
    std::map<uint32_t, source_file> files;
    std::vector<source_stretch> stretches;  // by base; voided ones left out
    std::vector<source_tail> tails;
    uint64_t frontier = 0;               // of the last mark
    std::map<uint32_t, bool> forgotten;  // by number; whether the events are deleted
};

// Where an address lies: the file, the offset of its record and the end of its stretch (no record goes beyond it).
struct source_place {
    const source_file* file = nullptr;
    uint64_t offset = 0;
    uint64_t end = SOURCE_NO_LIMIT;
    uint32_t cut = 0;
};

// Reads a source map. With `writable` the file is made when missing and a torn last record is cut off. A missing file
// is an empty map for a reader. False with a message when the file cannot be read or is damaged before its last record.
[[nodiscard]] bool source_map_open(source_map* map, const std::string& path, bool writable, std::string* error);
// The place of an event's record; nothing when no stretch holds the address.
std::optional<source_place> source_map_find(const source_map& map, uint64_t address);
// The offset up to which the stretch with this index is indexed: to where the next one begins, but not past the
// frontier.
uint64_t source_map_stretch_end(const source_map& map, size_t index);

// Appending. Each record is written and, when the map is durable, is on the disk when the function returns. Throws
// failure_t.
void source_map_put_file(source_map* map, const source_file& file);
void source_map_put_stretch(source_map* map, const source_stretch& stretch);
void source_map_put_mark(source_map* map, uint64_t frontier);
void source_map_put_tail(source_map* map, const source_tail& tail);
void source_map_put_forgotten(source_map* map, uint32_t number, bool deleted);

// Writes the file anew without records that later ones have replaced and without these files, none of whose events is in
// a slice; their addresses become those of no file. The map is open for writing. Throws failure_t, and then the old
// file stands.
void source_map_rewrite(source_map* map, const std::set<uint32_t>& without);
// The bytes that the file would then have.
uint64_t source_map_rewritten_size(const source_map& map, const std::set<uint32_t>& without);

}  // namespace veldar::tool

// Posting lists: the offset entries, the four encodings, the writer of a section and the reader of one list.
//
// The posting-list offsets section has one big-endian entry a term, 8 bytes wide, or 4 bytes in "Veldar3" slices and
// with WARM_FLAG_PLO32. An entry holds a value V and a type:
//
//   flags                  entry          types
//   WARM_FLAG_PLO_TAG2     V * 4 + type   all
//   WARM_FLAG_PLO_TAG1     V * 2 + type   RLE, BMAP
//   neither                V              RLE
//
//   type        V                                     bytes in the posting-lists section
//   0  RLE      offset of the list in the section     gaps with runs, below
//   1  BMAP     offset of the list in the section     a bitmap (bitmap.h)
//   2  SPO      the list's only event                 none
//   3  DEDUP    the term with the same list           none; that term is never itself a DEDUP
//
// Entry k describes the list of term k + 1. Term 0 is RLE at offset 0, and the last entry describes no term: its V is
// the size of the section. A list ends where the next entry of type RLE or BMAP begins.
//
// An RLE list of ascending events, every number variable-length (vbe.h):
//
//   first event
//   then repeatedly   gap        at least 1: the next event is the previous one plus the gap
//                or   00, r      a run: the next r events are each the previous one plus 1
//
// 10 11 12 13 20 is stored as 0A 00 03 07: first event 0A; 00 03, three more in a row; 07, the gap to the next.
#pragma once

#include <cstdint>
#include <span>

#include "libzero/resource.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/base/query_info.h"
#include "searchthing/base/warm_rc.h"
#include "searchthing/format/warmslice_header.h"
#include "searchthing/postings/bitmap.h"

namespace veldar {

inline constexpr uint32_t PLIST_END = 0xFFFFFFFF;  // "no further event"
inline constexpr uint32_t PLIST_BUFFER = 8192;

enum plo_type_t : uint32_t { PLO_RLE = 0, PLO_BMAP = 1, PLO_SPO = 2, PLO_DEDUP = 3 };
// "RLE", "BMAP", "SPO" or "DEDUP"; "unknown" for any other number.
const char* pl_type_as_str(uint32_t type);

// Writes a section, one term after another. For each term the caller sets `plo_type`, starts, puts events in ascending
// order and ends; `total` before a term is where its list begins. SPO and DEDUP terms have no bytes and are not
// written. It is for sections that are written in one go, without a look at earlier lists: the tests of readers, and
// programs that make slices of their own. Merging encodes a list in memory first, to find one that it has written
// before; the encoding itself is one (rle_encoder.h).
struct plist_writer_t {
    int fd = -1;          // not owned
    uint64_t offset = 0;  // file position of buf[0]
    uint8_t buf[PLIST_BUFFER] = {};
    uint64_t buffered = 0;
    uint64_t total = 0;          // bytes of all ended terms
    uint32_t count_forterm = 0;  // events of the current term that were stored
    uint32_t first_value = 0;
    uint32_t last_value = 0;
    uint32_t run = 0;         // events stored after the last number written, each one above the previous
    uint64_t term_bytes = 0;  // of the current term so far
    std::span<const uint32_t> tsval_id_to_dimset_map;  // event to dimension set; empty for none
    uint32_t last_skipped_value = PLIST_END;
    uint32_t plo_type = PLO_RLE;
    bitmap_writer_t bitmap;  // BMAP: fills `buf` behind `buffered`
    warm_rc_t rc;            // why the last operation failed
};
// With a map (it must outlive the writer) only the first and the last of neighbouring events that belong to one
// dimension set are stored.
void _plist_writer_open(plist_writer_t* plw, int fd, uint64_t offset, std::span<const uint32_t> map);
[[nodiscard]] int _plist_writer_start_term(plist_writer_t* plw);
// An event equal to the one before it is stored once; a smaller one is a broken caller (asserted). WARM_RC_WRITE,
// WARM_RC_CAPACITY for an event outside the map, WARM_RC_INVALID_ARGUMENT for a type that has no bytes.
[[nodiscard]] int _plist_writer_put(plist_writer_t* plw, uint32_t value);
[[nodiscard]] int _plist_writer_end_term(plist_writer_t* plw);
// Writes what is buffered: 0 or WARM_RC_WRITE.
[[nodiscard]] int _plist_writer_close(plist_writer_t* plw);

// Where a term's list lies in the section.
struct plo_term_context_t {
    int64_t start = -1;  // SPO, DEDUP: the payload
    int64_t end = -1;    // SPO, DEDUP: -1
    uint32_t type = PLO_RLE;
    uint32_t memory_position = 0;  // in the copy in memory, where there is one
};

// Marks in an RLE list, to go on reading from: one for about each PLIST_MARK_BYTES of it. They are made while the list is
// read: an event that a reader comes to behind a mark has had every byte before it decoded once without a complaint, and
// marks end where that was not so. A list with damage is therefore found damaged at the same place with marks and
// without, as long as the bytes stay what they were.
inline constexpr uint32_t PLIST_MARK_BYTES = 1024;
struct plist_mark_t {
    uint32_t last;    // the last event before
    uint32_t offset;  // of the next item in the list
};
struct plist_marks_t {
    buffer<plist_mark_t> marks;  // room for all; ascending
    uint32_t count = 0;
    uint64_t passed = 0;  // bytes that readers decoded of the list, but for those that marks were made of
};
// How many marks a list of so many bytes can have: none for one that is too long for them.
inline uint64_t plist_marks_room(uint64_t list_bytes) {
    return list_bytes > UINT32_MAX ? 0 : list_bytes / PLIST_MARK_BYTES;
}

// Reads one list at a time; one reader serves any number of terms of its slice, one after another, without allocating.
struct plist_reader {
    int fd = -1;                               // the slice's
    const st_warm_slice_body* whdr = nullptr;  // the slice's
    array_reader_t plo_reader;                 // over the mapped offset entries
    uint32_t tag_bits = 0;
    uint64_t postings_base = 0;
    uint64_t plo_last = ~uint64_t{0};
    uint32_t plo_type = PLO_RLE;  // of the current list; a DEDUP term has the type of the list it names
    uint32_t num_values = 0;      // every event is below
    // RLE and SPO: the events last + 1 to last + run come next, before anything that is not decoded yet.
    uint32_t last = 0;
    uint32_t run = 0;
    uint64_t buf_start = 0;  // position in the section of bytes[0]
    uint64_t buf_fill = 0;
    uint64_t position = 0;  // in the section, of the next byte to decode
    uint64_t list_begin = 0;
    uint64_t list_end = 0;
    plist_marks_t* marks = nullptr;   // of the current list, not owned; null for none
    buffer<uint8_t> buf;              // PLIST_BUFFER bytes, or more for a reader of many lists
    const uint8_t* bytes = nullptr;   // what is buffered: buf, or the copy in memory
    std::span<const uint8_t> memory;  // the copy; empty for none
    bitmap_reader_t bitmap;           // BMAP
    st_query_info_t* stats = nullptr;
};

// Where the lists of a slice are, for plist_reader_open.
struct plist_section_t {
    int fd = -1;                               // not owned
    const st_warm_slice_body* whdr = nullptr;  // these two outlive the reader
    const uint8_t* plo = nullptr;              // the mapped offset entries; null when the size of the lists is unknown
    uint64_t postings_base = 0;                // file offset of the lists
    uint64_t plo_last = ~uint64_t{0};          // bytes of all lists; all-ones when that is unknown
};
// Opens a reader. `span` is the number of offset entries to read at once where they are not mapped (at least 1024 are).
// WARM_RC_MINIFIED when the size of the lists is unknown.
[[nodiscard]] int plist_reader_open(plist_reader* reader, const plist_section_t& section, uint64_t span,
                                    st_query_info_t* stats, warm_rc_t* rc);
// Reads lists from a copy of the section's beginning from now on; the copy stays the caller's and outlives the reader.
// Every list must lie in it: WARM_RC_CORRUPT "reading beyond PL memory bufpos failed " for one that begins behind it,
// WARM_RC_SPLIT_LIST for one that ends behind it.
void plist_reader_attach_memory(plist_reader* reader, std::span<const uint8_t> lists);
// V and type of entry `index` (-1 is term 0's): -1 on failure, WARM_RC_CAPACITY in `rc` past the last entry,
// WARM_RC_CORRUPT for a V that cannot be.
[[nodiscard]] int64_t _pl_offset_reader(plist_reader* reader, int64_t index, uint32_t* type, warm_rc_t* rc);
// WARM_RC_CAPACITY for a term that does not exist; WARM_RC_CORRUPT for a list that does not lie inside the section.
[[nodiscard]] int plist_term_offset_reader(plist_reader* reader, plo_term_context_t* context, uint32_t term,
                                           warm_rc_t* rc);
// Positions the reader before the first event of the term's list and reads the list's beginning. A failed seek leaves
// an empty list. As plist_term_offset_reader, and the status of a read, or WARM_RC_CORRUPT for a damaged list.
[[nodiscard]] int _seek_reader(plist_reader* reader, uint32_t term, warm_rc_t* rc);
// From now on, and until the reader is positioned anew, reads by the list's marks and adds to them. For an RLE list that
// the reader has just been positioned on; the marks, which belong to no other list, outlive this use.
void plist_reader_attach_marks(plist_reader* reader, plist_marks_t* marks);
// The next event, PLIST_END after the last. WARM_RC_CORRUPT for a damaged list: a number that does not decode, runs out
// of the list, or names an event that the slice does not have.
[[nodiscard]] int _next(plist_reader* reader, uint32_t* id, warm_rc_t* rc);
// The next event at or after `target`, or PLIST_END. Never goes back.
[[nodiscard]] int _seek(plist_reader* reader, uint32_t target, uint32_t* id, warm_rc_t* rc);
void close_plist_reader(plist_reader* reader);

// Bulk reading of the rest of a list. Both stop at the first event at or after `end`; it may be used up, so the list is
// not read on behind it.

// Sets bit id - begin of `bitmap` for every remaining event of [begin, end). The bitmap has at least
// _calc_bitmap_size(begin, end) bytes; bits from end - begin on are not touched.
[[nodiscard]] int plist_or_into_bitmap(plist_reader* reader, uint8_t* bitmap, uint32_t begin, uint32_t end,
                                       warm_rc_t* rc);
// Copies the remaining events below `end` to `out`, at most `capacity`, and tells their number. When `out` is full the
// list can be read on.
[[nodiscard]] int plist_copy(plist_reader* reader, uint32_t* out, uint32_t capacity, uint32_t end, uint32_t* count,
                             warm_rc_t* rc);

}  // namespace veldar

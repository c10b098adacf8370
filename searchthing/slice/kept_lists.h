// What is remembered of the posting lists of an open slice: marks in them (plist.h), and long ones as bitmaps.
//
// Decoding costs up to two nanoseconds an event, a bitmap one for a hundred of them. A list is decoded as a whole and
// kept as soon as readers have decoded as many of its bytes as it has, what they are about to decode included and not
// what they left marks in, so that this never costs more than twice what was needed. Others are driven out for it only if
// it was decoded that often before. What is remembered of a slice is at most 8 MiB, 64 bitmaps and the marks of 256 other
// lists, of a process 64 MiB; what was not asked for the longest goes first. Lists never change while their slice is
// open: deletes are marks beside them.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

struct plist_reader;
struct plist_marks_t;

// For one thread, as the handle of the slice that has it. What its functions give is valid until the next call of either:
// the bits, and the marks that a reader has got.
class kept_lists {
  public:
    kept_lists();
    ~kept_lists();
    kept_lists(const kept_lists&) = delete;
    kept_lists& operator=(const kept_lists&) = delete;

    // The numbers that the term's list holds as bits, from 0 on; empty when they are not kept.
    std::span<const uint8_t> find(uint32_t term);
    // `reader` was just positioned on the term's list, whose numbers out of a range of `wanted` are to be decoded (0:
    // some of them will be looked for, or bits are not wanted). Gives all of them as `find` does, if it is time to keep
    // them; else the bits are empty, also when memory is short, and the reader stands where it stood and has got the
    // marks of the list; so too for a damaged list, which readers complain of where they come to the damage. 0 or a
    // failure to position.
    [[nodiscard]] int open(uint32_t term, plist_reader* reader, uint32_t wanted, std::span<const uint8_t>* bits,
                           warm_rc_t* rc);

  private:
    struct entry {
        uint32_t term;
        uint64_t used;
        std::unique_ptr<plist_marks_t> marks;
        buffer<uint8_t> bits;  // empty until they are kept
        uint64_t bytes() const;
    };
    entry* find_entry(uint32_t term);
    entry* add_entry(uint32_t term, uint64_t list_bytes);
    bool has_room(uint64_t bytes) const;
    bool drop_oldest(bool with_bits);
    void drop(size_t number);
    bool keep(entry* of, plist_reader* reader, bool may_drop);

    std::vector<entry> entries_;
    size_t bitmaps_ = 0;  // of the entries
    uint64_t bytes_ = 0, clock_ = 0;
    // By the remainder of a term: how many entries there are, so that most are missed at once.
    static constexpr uint32_t REMAINDERS = 256;
    std::array<uint16_t, REMAINDERS> remembered_ = {};
};

}  // namespace veldar

// Long posting lists as bitmaps: those that are asked for again are decoded once and kept.
//
// Decoding costs about a nanosecond an event, a bitmap as much for a hundred of them. What is kept of a slice is at
// most 8 MiB and 64 lists, of a process 64 MiB; the list that was not asked for the longest goes first. Lists never
// change while their slice is open: deletes are marks beside them.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "libzero/resource.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

struct plist_reader;

// For one thread, as the handle of the slice that has it.
class kept_lists {
  public:
    kept_lists() { asked_.fill(~uint32_t{0}); }
    ~kept_lists();
    kept_lists(const kept_lists&) = delete;
    kept_lists& operator=(const kept_lists&) = delete;

    // The numbers that the term's list holds as bits, from 0 on; empty when they are not kept. Valid until the next
    // call of either function.
    std::span<const uint8_t> find(uint32_t term);
    // For a list that is not kept, `reader` being positioned on it: decodes and keeps it when it was asked for lately
    // and is long, as `find` then. Empty otherwise, also when memory is short, and the reader stands where it stood; so
    // too for a damaged list, which readers complain of where they come to the damage. 0 or a failure to position.
    [[nodiscard]] int decode(uint32_t term, plist_reader* reader, std::span<const uint8_t>* bits, warm_rc_t* rc);

  private:
    struct entry {
        uint32_t term;
        uint64_t used;
        buffer<uint8_t> bits;
    };
    bool make_room(uint64_t bytes);
    void drop(size_t number);

    std::vector<entry> entries_;
    uint64_t bytes_ = 0, clock_ = 0;
    // By the remainder of a term: the one asked for last, and how many are kept, so that most are missed at once.
    static constexpr uint32_t REMAINDERS = 256;
    std::array<uint32_t, REMAINDERS> asked_;
    std::array<uint8_t, REMAINDERS> kept_ = {};
};

}  // namespace veldar

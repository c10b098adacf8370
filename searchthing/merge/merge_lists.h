// The posting lists of a merge, term by term: what the sources' lists of one term are together, in new numbers.
//
// The merged terms come in order, and so do the terms of each source, so that a source's next list is always the one
// behind the last. Lists are read through one reader a source; a second one serves the terms whose list is that of
// another term, so that the first goes on reading ahead.
//
// What a list holds is compared with what its source's metadata and dimension sets say of it: a merge makes them anew
// from the lists, so that damage that the source still shows would pass for sound.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "searchthing/merge/merge_internal.h"
#include "searchthing/postings/plist.h"
#include "searchthing/values/term_meta.h"

namespace veldar {

// One merged list, valid until the next is read. Short ones are numbers, ascending and distinct; one with a good part
// of all values is a bitmap over all of them.
struct merge_list_t {
    uint32_t count = 0;
    std::span<const uint32_t> ids;
    std::span<const uint64_t> bits;  // bit i % 64 of word i / 64 is value i; empty for a list of numbers
    uint32_t first = 0, last = 0;    // events; nothing when there are none
};

// Calls fn(first value), then fn(next value) and so on.
template <typename Fn>
void merge_list_for_each(const merge_list_t& list, Fn fn) {
    for (const uint32_t id : list.ids) fn(id);
    for (size_t word = 0; word < list.bits.size(); word++) {
        for (uint64_t left = list.bits[word]; left != 0; left &= left - 1) {
            fn(static_cast<uint32_t>(64 * word + static_cast<uint64_t>(__builtin_ctzll(left))));
        }
    }
}

struct merge_source_lists_t {
    merge_source_t* source = nullptr;
    bool has_lists = false;  // a slice without postings has no lists to read
    uint32_t next_term = 0;
    plist_reader own, shared;
    buffer<uint8_t> copy;  // of all lists, when they are few
    term_meta_reader_t metadata;
};

// The times that a source's metadata gives a list of events, and where those of its values lie. They are compared some
// lists later: by then the memory that holds them, anywhere in a large array, has been fetched.
struct merge_time_check_t {
    const merge_source_t* source = nullptr;  // null when there is nothing to compare
    uint32_t term = 0;
    uint32_t newest = 0, oldest = 0;  // values of the target
    st_time_t latest = 0, earliest = 0;
};

struct merge_lists_t {
    const warm_merge_t* merge = nullptr;
    std::vector<merge_source_lists_t> sources;
    uint32_t num_values = 0;  // of the target; of a metric one its runs
    uint64_t dense_size = 0;  // a list that grows beyond is kept as a bitmap
    bool dense = false;       // this one is
    bool may_repeat = false;  // a source's own list can name one value twice
    uint64_t size = 0;
    buffer<uint32_t> ids, merged;
    buffer<uint64_t> bits;
    std::vector<uint64_t> stretches;  // where ascending stretches of `ids` begin
    std::array<merge_time_check_t, 32> time_checks;
    size_t next_check = 0;
};

// Finds the terms of a source that no kept value has, once the values have their new numbers. A comparison may fail as
// below.
[[nodiscard]] int merge_find_dead_terms(merge_source_t* source, stop_check* stop, warm_rc_t* rc);

// Opens readers over all sources, whose values have their new numbers.
[[nodiscard]] int merge_lists_open(merge_lists_t* lists, warm_merge_t* merge, warm_rc_t* rc);

// The list of the next merged term, which the sources whose bits are set in `holders` have. WARM_RC_CORRUPT for damage,
// with the path of the slice in the message when a list is not what is said of it, or for a source without such a term.
[[nodiscard]] int merge_lists_next(merge_lists_t* lists, uint64_t holders, merge_list_t* out, warm_rc_t* rc);

// Compares what is left to compare, after the last list: 0, or WARM_RC_CORRUPT as above.
[[nodiscard]] int merge_lists_finish(merge_lists_t* lists, warm_rc_t* rc);

}  // namespace veldar

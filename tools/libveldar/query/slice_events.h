// The events of one slice with their terms: its posting lists turned round.
//
// The terms' texts are kept in memory, and the lists are turned round for a batch of events at a time, so that memory
// is bounded by the lexicon and a fixed budget, whatever the number of events. Each batch walks all lists twice.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/postings/plist.h"
#include "searchthing/slice/warmslice.h"

namespace veldar::tool {

struct slice_events {
    WARM* warm = nullptr;  // the caller's, as long as the record is used
    plist_reader reader;
    bool has_lists = false;
    uint64_t budget = 0;  // term numbers to hold at once
    std::string text;     // of all terms, one behind the other
    std::vector<uint64_t> text_end;
    uint32_t begin = 0, end = 0;      // the values of this batch
    std::vector<uint64_t> terms_end;  // by value from `begin` on, in `terms`
    std::vector<uint32_t> terms;
};

inline constexpr uint64_t SLICE_EVENTS_BUDGET = uint64_t{1} << 24;

// Reads the terms. Slices of metrics and mini slices have none here. 0 or the status of the read; may throw
// std::bad_alloc. The record is closed with slice_events_close in either case.
[[nodiscard]] int slice_events_open(slice_events* events, WARM* warm, uint64_t budget, warm_rc_t* rc);
// Goes on to the next batch of values; at the end `begin` equals `end`. 0 or the status of a read.
[[nodiscard]] int slice_events_next(slice_events* events, warm_rc_t* rc);
void slice_events_close(slice_events* events);

// The term numbers of a value of this batch, ascending.
std::span<const uint32_t> slice_events_terms(const slice_events& events, uint32_t value);
std::string_view slice_events_term(const slice_events& events, uint32_t term);

}  // namespace veldar::tool

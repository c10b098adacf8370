// The records of events: an event as slices hold it, its value; one that is put; one of metrics with what it says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "searchthing/base/st_timeval.h"

namespace veldar {

using st_addr_t = uint32_t;
using st_multikv_seek_addr_t = double;
using st_measure_t = double;
using st_source_t = uint32_t;
using st_src_type_t = uint32_t;
using st_host_t = uint32_t;

inline constexpr uint32_t ST_DELETED_SOURCE = 0xFFFFFFFF;  // s of a deleted event

struct st_tsval {
    st_time_t time;     // seconds
    st_addr_t address;  // of the raw event; nanoseconds in slices with preambles
    union {
        double measure;
        struct {
            uint32_t measures;
            uint32_t first_measure;
        };
    };
    st_source_t s;
    st_src_type_t st;
    st_host_t h;
    uint32_t pad;
    uint64_t subsecond;  // nanoseconds in slices with preambles, else 0
};
static_assert(sizeof(st_tsval) == 40 && offsetof(st_tsval, s) == 16 && offsetof(st_tsval, subsecond) == 32);

struct st_tsval_encoded {  // the first eight bytes of a value: its key
    st_time_t time;
    st_addr_t address;
};
static_assert(sizeof(st_tsval_encoded) == 8 && offsetof(st_tsval_encoded, address) == offsetof(st_tsval, address));

// Milliseconds, 0 to 999, of a decimal fraction encoded as ((2d + 1) << z): z leading zeros, then the digits of d. 0
// and powers of two stand for no fraction. "5" is 11 and gives 500, "05" is 22 and gives 50.
uint32_t tsval_decode_subsecond_to_millisecond(st_encoded_subsecond_t encoded);
// The fraction of 0 to 999 milliseconds in that encoding; 0 for 0.
st_encoded_subsecond_t tsval_encode_milliseconds(uint32_t milliseconds);
// A measure as the integer that the m array holds: NaN and negatives 0, at most 2^31 - 1.
uint32_t tsval_clamp_measure(double measure);

// Results of puts and transaction starts; not warm_status_t.
enum st_hotput_rc_t : int32_t {
    HOT_PUT_RC_SUCCESS = 0,         // done, or the keyword is ignored
    HOT_PUT_RC_TERMS_FULL = -1,     // term limit reached
    HOT_PUT_RC_VALUES_FULL = -2,    // value limit reached
    HOT_PUT_RC_POSTINGS_FULL = -3,  // posting limit reached
    HOT_PUT_RC_LEXICON_FULL = -4,   // lexicon bytes exhausted
    HOT_PUT_RC_BAD_KEYWORD = -5,    // the keyword holds a NUL byte
    HOT_PUT_RC_DIMSETS_FULL = -6,   // metric directories: no room for another dimension set
    HOT_PUT_RC_TXN_TOO_LARGE = -7,  // metric directories: too many keywords in one transaction
    HOT_PUT_RC_MEASURES_FULL = -9,  // metric directories: measure limit reached
};

// One event that is put.
struct st_txn {
    st_time_t time = 0;  // seconds
    st_encoded_subsecond_t subsecond = 0;
    st_addr_t address = 0;                    // where the raw event lies; the key of the event
    st_multikv_seek_addr_t seek_address = 0;  // stored as the value's measure, outside metric directories
    st_measure_t measure = 0;                 // metric directories only
    st_source_t source = 0;                   // all-ones marks the event deleted
    st_src_type_t source_type = 0;
    st_host_t host = 0;
    uint32_t reserved = 0;
};
static_assert(sizeof(st_txn) == 56);

struct st_metric_measure_t {
    std::string_view name;  // of the metric: the term without " metric_name::"
    double value;
};

// One event of metrics; what it points to is valid for the call that hands it out. A set's views are the same for all
// events of the set in one slice.
struct st_metric_event_t {
    st_time_t time;
    uint32_t nanoseconds;  // whole milliseconds; 0 in directories that keep seconds
    uint64_t set;          // of its dimensions and metrics: equal numbers are equal sets, within one slice
    std::span<const std::string_view> dimensions;   // terms, "host::web01" for " host::web01", in their order
    std::span<const st_metric_measure_t> measures;  // ascending by name, at least one
    uint32_t slice = 0;                             // rises when the walk goes on to another slice
};

}  // namespace veldar

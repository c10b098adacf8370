// The record of a transaction, that is, of an event that is put, and what puts answer.
#pragma once

#include <cstdint>

#include "searchthing/values/st_tsval.h"

namespace veldar {

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

// One event.
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

}  // namespace veldar

// An index directory: its limits, options, parameter file and marker, and the sync of its hot slice.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libzero/ospath-builder.h"
#include "libzero/xorshift128plus.h"
#include "searchthing/hotslice.h"
#include "searchthing/tsidx_names.h"
#include "searchthing/warm_rc.h"

namespace veldar {

struct tsidx_limits_t {
    uint64_t lexicon_bytes = 0;
    uint64_t max_terms = 0;
    uint64_t max_postings = 0;
    uint64_t max_values = 0;
    uint64_t keywords_per_txn = 0;
    uint64_t dimset_words = 0;
    uint64_t max_dimset_measures = 0;
};

inline constexpr uint32_t TSIDX_ORDINARY_WRITER = 0xFFFFFFFF;

struct st_tsidx;
using TSIDX = st_tsidx;

TSIDX* st_tsidx_open(const char* path, int streaming, int is_msidx, const TSWRITEOPTS* opts, uint32_t writer_number);
int st_tsidx_close(TSIDX* tsidx);
int st_tsidx_sync(TSIDX* tsidx);
int _st_tsidx_sync(TSIDX* tsidx, const char* suffix, int part_mode);
void st_tsidx_set_params(TSIDX* tsidx, uint64_t max_terms, uint64_t lexicon_bytes, uint64_t max_postings,
                         uint64_t max_values, uint64_t keywords_per_txn, uint64_t dimset_words);
int st_tsidx_options(TSIDX* tsidx, uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values);
int st_tsidx_need_optimize(const TSIDX* tsidx);
int st_tsidx_set_need_optimize(TSIDX* tsidx);
int st_tsidx_clear_need_optimize(TSIDX* tsidx);
uint64_t st_tsidx_max_terms(const TSIDX* tsidx);
uint64_t st_tsidx_max_term_chars(const TSIDX* tsidx);
uint64_t st_tsidx_max_postings(const TSIDX* tsidx);
uint64_t st_tsidx_max_values(const TSIDX* tsidx);
int st_tsidx_autotune(TSIDX* tsidx, int enable);
int st_tsidx_get_warm_rc(const TSIDX* tsidx);
int st_tsidx_get_warm_errno(const TSIDX* tsidx);
// Durability switch: 0 leaves out every fsync, for throw-away indexes; the default is 1.
void st_tsidx_set_durable(TSIDX* tsidx, int durable);
const warm_rc_t* st_tsidx_last_failure(const TSIDX* tsidx);
uint64_t st_tsidx_slices_written(const TSIDX* tsidx);

// Transactions. All or nothing: keywords are buffered and applied at close after an exact capacity check.
int st_tsidx_txn_start(TSIDX* tsidx, const st_txn* txn);
int st_tsidx_txn_put(TSIDX* tsidx, const char* text, size_t length, const st_txn* txn);
int st_tsidx_txn_close(TSIDX* tsidx, const st_txn* txn);

}  // namespace veldar

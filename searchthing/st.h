// The engine's outer surface for programs that work on index directories: argument checks, the record of the current
// transaction, and forwarding to the directory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/hotslice.h"
#include "searchthing/log.h"
#include "searchthing/st_init.h"
#include "searchthing/tsidx.h"
#include "searchthing/tsidx_names.h"
#include "searchthing/warm_rc.h"

namespace veldar {

struct st_handle;
using THING = st_handle;

inline constexpr uint32_t ST_OPEN_STREAMING = 1;
inline constexpr uint32_t ST_OPEN_METRICS = 2;

THING* st_open_for_read(const char* path);
THING* st_open_for_write(const char* path, uint32_t flags, uint32_t limit, const TSWRITEOPTS* opts);
int st_sync(THING* thing);
int st_close(THING* thing);

int st_txn_start(THING* thing, st_time_t time, st_addr_t address, st_source_t source, st_src_type_t source_type,
                 st_host_t host);
int st_txn_start_with_subseconds(THING* thing, st_time_t time, st_encoded_subsecond_t subsecond, st_addr_t address,
                                 st_multikv_seek_addr_t seek_address, st_measure_t measure, st_source_t source,
                                 st_src_type_t source_type, st_host_t host);
int st_txn_put(THING* thing, const char* text, size_t length);
int st_txn_put_measure(THING* thing, const char* text, size_t length, st_measure_t measure);
int st_txn_close(THING* thing);

int st_autotune(THING* thing, int enable);
int st_options(THING* thing, uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values);
void st_set_params(THING* thing, uint64_t max_terms, uint64_t lexicon_bytes, uint64_t max_postings, uint64_t max_values,
                   uint64_t keywords_per_txn, uint64_t dimset_words);
uint64_t st_max_terms(const THING* thing);
uint64_t st_max_term_chars(const THING* thing);
uint64_t st_max_postings(const THING* thing);
uint64_t st_max_values(const THING* thing);
int st_get_warm_rc(const THING* thing);
int st_get_warm_errno(const THING* thing);
int st_need_optimize(const THING* thing);
int st_set_need_optimize(THING* thing);
int st_parse_tsidx(const char* file_name, st_filename_metadata_t* meta);
TSIDX* st_directory(THING* thing);  // the open directory behind the handle, for the operations of tsidx.h

}  // namespace veldar

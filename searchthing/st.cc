#include "searchthing/st.h"

#include <unistd.h>

#include <memory>
#include <new>
#include <string>

#include "libzero/assertions.h"
#include "searchthing/base/log.h"
#include "searchthing/directory/health.h"
#include "searchthing/reading/tsidx_query_walk.h"
#include "searchthing/reading/tsidx_select.h"
#include "searchthing/upkeep/tsidx_upkeep.h"

namespace veldar {

struct st_handle {
    std::string path;
    TSIDX* tsidx = nullptr;  // owned
    st_txn txn;              // the event of the current transaction
};

namespace {

THING* _st_open_common(const char* path, uint32_t flags, uint32_t limit, const TSWRITEOPTS* opts) {
    if (path == nullptr || *path == '\0') return nullptr;
    if (opts->write_level != 0 && ::access(path, R_OK | W_OK | X_OK) != 0) return nullptr;
    try {
        auto thing = std::make_unique<st_handle>();
        thing->path = path;
        thing->tsidx =
            st_tsidx_open(path, (flags & ST_OPEN_STREAMING) != 0, (flags & ST_OPEN_METRICS) != 0, opts, limit);
        return thing->tsidx == nullptr ? nullptr : thing.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

TSIDX* directory_of(const THING* thing) {
    ST_ASSERT(thing != nullptr && thing->tsidx != nullptr);
    return thing->tsidx;
}

}  // namespace

THING* st_open_for_read(const char* path) {
    TSWRITEOPTS opts;
    st_tsidx_write_opts_init_write_level(&opts, 0);
    return _st_open_common(path, 0, TSIDX_ORDINARY_WRITER, &opts);
}

THING* st_open_for_write(const char* path, uint32_t flags, uint32_t limit, const TSWRITEOPTS* opts) {
    ST_ASSERT(opts != nullptr);
    if (!st_write_level_is_valid(opts->write_level)) return nullptr;
    return _st_open_common(path, flags, limit, opts);
}

int st_sync(THING* thing) {
    if (thing == nullptr) return -1;
    return thing->tsidx == nullptr ? -2 : st_tsidx_sync(thing->tsidx);
}

int st_close(THING* thing) {
    if (thing == nullptr) return -1;
    const std::unique_ptr<st_handle> owner(thing);
    static_cast<void>(st_sync(thing));  // close reports it
    return st_tsidx_close(directory_of(thing));
}

int st_txn_start_with_subseconds(THING* thing, st_time_t time, st_encoded_subsecond_t subsecond, st_addr_t address,
                                 st_multikv_seek_addr_t seek_address, st_measure_t measure, st_source_t source,
                                 st_src_type_t source_type, st_host_t host) {
    TSIDX* const tsidx = directory_of(thing);
    const st_txn before = thing->txn;
    thing->txn = {.time = time,
                  .subsecond = subsecond,
                  .address = address,
                  .seek_address = seek_address,
                  .measure = measure,
                  .source = source,
                  .source_type = source_type,
                  .host = host,
                  .reserved = 0};
    const int started = st_tsidx_txn_start(tsidx, &thing->txn);
    if (started != 0) thing->txn = before;  // of a transaction that is still open
    return started;
}

int st_txn_start(THING* thing, st_time_t time, st_addr_t address, st_source_t source, st_src_type_t source_type,
                 st_host_t host) {
    return st_txn_start_with_subseconds(thing, time, 0, address, 0.0, 0.0, source, source_type, host);
}

int st_txn_put(THING* thing, const char* text, size_t length) {
    return st_tsidx_txn_put(directory_of(thing), text, length, &thing->txn);
}

int st_txn_put_measure(THING* thing, const char* text, size_t length, st_measure_t measure) {
    TSIDX* const tsidx = directory_of(thing);
    thing->txn.measure = measure;
    return st_tsidx_txn_put(tsidx, text, length, &thing->txn);
}

int st_txn_close(THING* thing) {
    return st_tsidx_txn_close(directory_of(thing), &thing->txn);
}

void st_abandon(THING* thing) {
    if (thing == nullptr) return;
    const std::unique_ptr<st_handle> owner(thing);
    st_tsidx_abandon(directory_of(thing));
}

int st_put_event(THING* thing, const st_txn* txn, std::span<const std::string_view> keywords) {
    return st_tsidx_put_event(directory_of(thing), txn, keywords);
}

void st_txn_abort(THING* thing) {
    st_tsidx_txn_abort(directory_of(thing));
}

int st_autotune(THING* thing, int enable) {
    return st_tsidx_autotune(directory_of(thing), enable);
}

int st_options(THING* thing, uint64_t lexicon_bytes, uint64_t max_terms, uint64_t max_postings, uint64_t max_values) {
    return st_tsidx_options(directory_of(thing), lexicon_bytes, max_terms, max_postings, max_values);
}

void st_set_params(THING* thing, uint64_t max_terms, uint64_t lexicon_bytes, uint64_t max_postings, uint64_t max_values,
                   uint64_t keywords_per_txn, uint64_t dimset_words) {
    st_tsidx_set_params(directory_of(thing), max_terms, lexicon_bytes, max_postings, max_values, keywords_per_txn,
                        dimset_words);
}

uint64_t st_max_terms(const THING* thing) {
    return st_tsidx_max_terms(directory_of(thing));
}
uint64_t st_max_term_chars(const THING* thing) {
    return st_tsidx_max_term_chars(directory_of(thing));
}
uint64_t st_max_postings(const THING* thing) {
    return st_tsidx_max_postings(directory_of(thing));
}
uint64_t st_max_values(const THING* thing) {
    return st_tsidx_max_values(directory_of(thing));
}
uint64_t st_txn_per_sync(const THING* thing) {
    return st_tsidx_txn_per_sync(directory_of(thing));
}
uint64_t st_keywords_cut(const THING* thing) {
    return st_tsidx_keywords_cut(directory_of(thing));
}
int st_get_warm_rc(const THING* thing) {
    return st_tsidx_get_warm_rc(directory_of(thing));
}
int st_get_warm_errno(const THING* thing) {
    return st_tsidx_get_warm_errno(directory_of(thing));
}
int st_need_optimize(const THING* thing) {
    return st_tsidx_need_optimize(directory_of(thing));
}
int st_set_need_optimize(THING* thing) {
    return st_tsidx_set_need_optimize(directory_of(thing));
}

int st_query(THING* thing, const QUERY* query, st_tsval* answers, uint32_t capacity, int is_exact) {
    ST_ASSERT(query != nullptr);
    const query_copy_ptr copy(st_query_copy(query));
    if (copy == nullptr) return WARM_RC_NO_MEMORY;
    if (tsidx_is_empty_range(*copy)) return 0;
    return thing == nullptr ? -1 : st_tsidx_query(directory_of(thing), copy.get(), answers, capacity, is_exact);
}

st_select_handle* st_select_handle_new(THING* thing, const QUERY* query, const select_spec_t* spec) {
    ST_ASSERT(query != nullptr && spec != nullptr);
    if (tsidx_is_empty_range(*query) || thing == nullptr) return nullptr;
    return st_tsidx_select_handle_new(directory_of(thing), query, spec);
}
int st_select_handle_read(st_select_handle* handle, select_row_t* row) {
    return st_tsidx_select_handle_read(handle, row);
}
void st_select_handle_free(st_select_handle* handle) {
    st_tsidx_select_handle_free(handle);
}

int st_get(THING* thing, const char* term, st_time_t earliest, st_time_t latest, st_tsval* answers, uint32_t capacity) {
    if (thing == nullptr) return -1;
    if (answers == nullptr || capacity == 0 || earliest > latest) return 0;
    return st_tsidx_get(directory_of(thing), term, earliest, latest, answers, capacity);
}

int st_all_events(THING* thing, st_time_t earliest, st_time_t latest, st_tsval* answers, uint32_t capacity) {
    return st_tsidx_all_events(directory_of(thing), earliest, latest, answers, capacity);
}

int st_event_count(THING* thing, const QUERY* query, uint64_t* count) {
    if (thing == nullptr || count == nullptr) return WARM_RC_INVALID_ARGUMENT;
    return st_tsidx_event_count(directory_of(thing), query, count);
}

int st_term_count(THING* thing, const char* term, st_time_t earliest, st_time_t latest, uint64_t* count) {
    if (thing == nullptr || count == nullptr) return WARM_RC_INVALID_ARGUMENT;
    return st_tsidx_term_count(directory_of(thing), term, earliest, latest, count);
}

int64_t st_apply_events(THING* thing, const QUERY* query, tsidx_event_fn fn, void* context) {
    return st_tsidx_apply_events(directory_of(thing), query, fn, context);
}

int64_t st_apply_metric_events(THING* thing, const QUERY* query, tsidx_metric_event_fn fn, void* context) {
    if (thing == nullptr) return WARM_RC_INVALID_ARGUMENT;
    return st_tsidx_apply_metric_events(directory_of(thing), query, fn, context);
}
int64_t st_apply_metric_events_of(THING* thing, const QUERY* query, const st_metric_options_t& options,
                                  tsidx_metric_event_fn fn, void* context) {
    if (thing == nullptr) return WARM_RC_INVALID_ARGUMENT;
    return st_tsidx_apply_metric_events_of(directory_of(thing), query, options, fn, context);
}
int st_measure_size(THING* thing, uint64_t* bytes) {
    if (thing == nullptr || bytes == nullptr) return WARM_RC_INVALID_ARGUMENT;
    return st_tsidx_measure_size(directory_of(thing), bytes);
}

int st_enum(THING* thing, const char* prefix, st_enum_answer* answers, uint32_t capacity, bool case_flag) {
    return thing == nullptr ? -1 : st_tsidx_enum(directory_of(thing), prefix, answers, capacity, case_flag);
}

int64_t st_apply_terms(THING* thing, const char* prefix, tsidx_term_fn fn, void* context) {
    return st_tsidx_apply_terms(directory_of(thing), prefix, fn, context);
}
int64_t st_distinct_term_count(THING* thing) {
    return st_tsidx_distinct_term_count(directory_of(thing));
}
int64_t st_distinct_apply_terms(THING* thing, const char* prefix, tsidx_term_fn fn, void* context) {
    return st_tsidx_distinct_apply_terms(directory_of(thing), prefix, fn, context);
}
int64_t st_lex_query(THING* thing, const char* needle, tsidx_term_fn fn, void* context) {
    return st_tsidx_lex_query(directory_of(thing), needle, fn, context);
}

int st_meta(THING* thing, tsidx_meta_t* meta) {
    return thing == nullptr || meta == nullptr ? -1 : st_tsidx_meta(directory_of(thing), meta);
}
int64_t st_get_tsidx_info(THING* thing, tsidx_info_t* infos, size_t capacity) {
    if (thing == nullptr) return WARM_RC_INVALID_ARGUMENT;
    return st_tsidx_get_tsidx_info(directory_of(thing), infos, capacity);
}
int st_is_optimized(THING* thing) {
    return thing == nullptr ? -1 : st_tsidx_is_optimized(directory_of(thing));
}
int st_health(THING* thing) {
    return thing == nullptr ? -1 : st_tsidx_health(directory_of(thing));
}
int st_cd(THING* thing, const char* path) {
    return st_tsidx_cd(directory_of(thing), path);
}

int64_t st_delete_by_keys(THING* thing, const st_tsval_encoded* keys, size_t count) {
    _log(1, "DEBUG st_delete_by_keys: delete initiated.\n");
    if (thing == nullptr || keys == nullptr) {
        _log(1, "DEBUG Aborting st_delete_by_keys due to null inputs. thing=%p keys=%p\n", static_cast<void*>(thing),
             static_cast<const void*>(keys));
        return -1;
    }
    return st_tsidx_delete_by_key(directory_of(thing), keys, count);
}

int64_t st_delete_by_addrs(THING* thing, const st_addr_t* addrs, size_t count) {
    _log(1, "DEBUG st_delete_by_addrs: delete initiated.\n");
    if (thing == nullptr || addrs == nullptr) {
        _log(1, "DEBUG Aborting st_delete_by_addrs due to null inputs. thing=%p addrs=%p\n", static_cast<void*>(thing),
             static_cast<const void*>(addrs));
        return -1;
    }
    return st_tsidx_delete_by_addr(directory_of(thing), addrs, count);
}

int st_minify(THING* thing, const char* output_directory) {
    return st_tsidx_minify(directory_of(thing), output_directory);
}

int st_parse_tsidx(const char* file_name, st_filename_metadata_t* meta) {
    return st_mini_tsidx_file_parse(file_name, meta) != 0 || st_tsidx_file_parse(file_name, meta) != 0 ? 1 : 0;
}

TSIDX* st_directory(THING* thing) {
    return directory_of(thing);
}

}  // namespace veldar

#include "searchthing/merge/warmslice_merge.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "libzero/assertions.h"
#include "searchthing/lexicon/fclex_io.h"
#include "searchthing/merge/merge_internal.h"
#include "searchthing/merge/merge_target.h"
#include "searchthing/merge/merge_values.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar {

namespace {

// Totals of 32 bits stay below all-ones, which stands for "none" in many places.
constexpr uint64_t TOTAL_LIMIT = UINT32_MAX;
constexpr uint64_t MEMORY_PLAN = uint64_t{1} << 30;
static_assert(MERGE_MAX_SOURCES <= LEX_MERGE_MAX_SOURCES && MERGE_MAX_SOURCES <= DS_MERGE_MAX_SOURCES);

enum merge_kind_t : int { KIND_NEVER = -1, KIND_LEGACY, KIND_LEXICON, KIND_REV0, KIND_REV1, KIND_METRIC };

// Sums over sources that the format holds in 32 bits, and what a merge has to remember.
struct merge_sums_t {
    uint64_t values = 0, terms = 0, postings = 0, lexicon_bytes = 0, metric_bytes = 0;
    uint32_t nbits = 0;  // of the widest companion array

    void add(const st_warm_slice_body* header, uint64_t file_size) {
        values += header->num_values.get();
        terms += header->num_terms.get();
        postings += header->num_postings.get();
        const uint32_t widest =
            std::max({header->m_nbits.get(), header->s_nbits.get(), header->st_nbits.get(), header->h_nbits.get()});
        if (widest < 32) nbits = std::max(nbits, widest);
        // The lexicon cannot be told from the lists here: what follows the metadata, or a usual length for each term.
        constexpr uint64_t USUAL_TERM_BYTES = 32;
        const uint64_t at = std::min(file_size, _offset_fclex(header));
        lexicon_bytes += std::min(file_size - at, USUAL_TERM_BYTES * header->num_terms.get());
        // The merged dimension sets and column store, and maps of terms and runs.
        if (st_warm_slice_is_msidx(header)) {
            metric_bytes += file_size - at + 4 * header->num_terms.get() + 32 * header->num_dimsets.get();
        }
    }
    bool fits_format() const {
        return values < TOTAL_LIMIT && terms < TOTAL_LIMIT && postings < TOTAL_LIMIT && values * nbits < TOTAL_LIMIT;
    }
    // The lexicon; holders, block ends and known lists; maps and times of values; the largest list in its forms.
    uint64_t memory() const { return lexicon_bytes + 28 * terms + 8 * values + values + metric_bytes; }
};

int set_failed_source(warm_rc_t* rc, size_t index) {
    rc->detail = static_cast<uint32_t>(index);
    return rc->warm_rc;
}

int check_kinds(const std::vector<merge_source_t>& sources, warm_rc_t* rc) {
    const st_warm_slice_body* const first = sources[0].warm->body;
    const uint32_t meta_type = warm_header_meta_type(first);
    const bool metric = st_warm_slice_merge_kind(first) == KIND_METRIC;
    for (size_t i = 0; i < sources.size(); i++) {
        const st_warm_slice_body* const header = sources[i].warm->body;
        const char* fault = nullptr;
        int status = WARM_RC_INVALID_ARGUMENT;
        if (st_warm_slice_merge_kind(header) == KIND_NEVER) {
            fault = "cannot merge sources that have versions lower than 8.0.0";
        } else if ((st_warm_slice_merge_kind(header) == KIND_METRIC) != metric) {
            fault = "cannot merge metric slices with others";
        } else if (!st_warm_slice_has_fclex(sources[i].warm.get())) {
            fault = "cannot merge a minified slice";
        } else if (warm_header_is_legacy(header) == warm_header_is_legacy(first) &&
                   warm_header_meta_type(header) != meta_type) {
            fault = "metadata types inconsistent across srcs";
            status = WARM_RC_BAD_MAGIC;
        }
        if (fault != nullptr) return _set_rc_verbose(rc, status, static_cast<uint32_t>(i), fault);
    }
    return 0;
}

int init_header(warm_merge_t* merge, warm_rc_t* rc) {
    const size_t count = merge->sources.size();
    const buffer<st_warm_slice_body> headers = warm_header_alloc(static_cast<uint32_t>(count), rc);
    if (headers.empty()) return rc->warm_rc;
    std::vector<int> fds;
    for (size_t i = 0; i < count; i++) {
        warm_header_copy(&headers[i], merge->sources[i].warm->body);
        fds.push_back(merge->sources[i].warm->fd.get());
    }
    TSWRITEOPTS options = merge->options.write_options;
    // Whoever merges may have forgotten that the events have milliseconds; the merge must not lose them.
    bool milliseconds = options.millisecond_mode == 1;
    for (size_t i = 0; i < count && !milliseconds && st_warm_slice_is_msidx(&headers[0]); i++) {
        if (merge_metric_find_milliseconds(merge->sources[i].warm.get(), &merge->stop, &milliseconds, rc) != 0) {
            return set_failed_source(rc, i);
        }
    }
    if (milliseconds) options.millisecond_mode = 1;
    return warm_header_init_tgt_header_for_merge_srcs(&merge->header, headers.data(), fds.data(),
                                                      static_cast<uint32_t>(count), &options, options.advanced_postings,
                                                      rc);
}

int check_totals(warm_merge_t* merge, warm_rc_t* rc) {
    merge_sums_t sums;
    for (const merge_source_t& source : merge->sources) {
        sums.add(source.warm->body, source.warm->file_size);
        merge->totals.source_bytes += source.warm->file_size;
    }
    return sums.fits_format() ? 0 : _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "totals of the sources");
}

int open_source(const char* path, merge_source_t* source, warm_rc_t* rc) {
    source->path = path;
    source->warm.reset(st_warm_slice_open_rdonly(path, rc));
    if (source->warm == nullptr) return rc->warm_rc;
    WARM* const warm = source->warm.get();
    source->num_values = warm->body->num_values.get();
    const std::span<const uint8_t> marks = warm->tsval_reader.d.bytes;
    if (!source->deleted.alloc(marks.size())) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "deleted marks");
    if (!marks.empty()) std::memcpy(source->deleted.data(), marks.data(), marks.size());
    warm->tsval_reader.d.bytes = source->deleted.span();
    return 0;
}

int note_times(warm_merge_t* merge, warm_rc_t* rc) {
    bool is_first = true;
    for (merge_source_t& source : merge->sources) {
        if (source.num_values == 0) continue;
        if (merge->metric != nullptr) {  // the first and the last value are those of sets
            source.latest = static_cast<st_time_t>(source.warm->body->latest.get());
            continue;
        }
        tsval_reader_t* const reader = &source.warm->tsval_reader;
        uint64_t nanoseconds = 0;
        st_time_t latest = 0, earliest = 0;
        ST_TRY(tsval_reader_decode_time(reader, 0, &latest, &nanoseconds, rc));
        ST_TRY(tsval_reader_decode_time(reader, source.num_values - 1, &earliest, &nanoseconds, rc));
        merge->totals.latest = is_first ? latest : std::max(merge->totals.latest, latest);
        merge->totals.earliest = is_first ? earliest : std::min(merge->totals.earliest, earliest);
        source.latest = latest;
        is_first = false;
    }
    if (merge->metric != nullptr) {
        merge->totals.latest = static_cast<st_time_t>(merge->header.latest.get());
        merge->totals.earliest = static_cast<st_time_t>(merge->header.earliest.get());
    }
    return 0;
}

int open_merge(warm_merge_t* merge, std::span<const char* const> paths, warm_rc_t* rc) {
    if (paths.size() < (merge->options.drop_deleted ? 1 : 2) || paths.size() > MERGE_MAX_SOURCES) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "a merge takes 2 to 64 slices");
    }
    merge->sources.resize(paths.size());
    for (size_t i = 0; i < paths.size(); i++) {
        if (open_source(paths[i], &merge->sources[i], rc) != 0) return set_failed_source(rc, i);
    }
    ST_TRY(check_kinds(merge->sources, rc));
    ST_TRY(init_header(merge, rc));
    ST_TRY(check_totals(merge, rc));
    if (st_warm_slice_is_msidx(&merge->header)) merge->metric = std::make_unique<merge_metric_t>();
    const bool metric_sources = st_warm_slice_merge_kind(merge->sources[0].warm->body) == KIND_METRIC;
    ST_ASSERT((merge->metric != nullptr) == metric_sources);
    ST_TRY(note_times(merge, rc));
    // Newest first: lists of slices that do not overlap then only have to be put one behind another.
    std::stable_sort(merge->sources.begin(), merge->sources.end(),
                     [](const merge_source_t& a, const merge_source_t& b) { return a.latest > b.latest; });
    if (merge->metric != nullptr) ST_TRY(merge_metric_open(merge, rc));
    // The times of the target, which name it, are known once the values are numbered.
    merge->values_planned = merge->options.drop_deleted && merge->metric == nullptr;
    if (merge->values_planned) ST_TRY(merge_values_plan(merge, rc));
    return _set_rc(rc, 0);
}

// Marks in the target what is marked in the source's mapping now.
int carry_marks(const merge_source_t& source, WARM* target, warm_rc_t* rc) {
    const WARM* const warm = source.warm.get();
    const size_t size = source.deleted.size();
    for (size_t byte = 0; byte < size; byte++) {
        for (uint32_t left = warm->d_array[byte]; left != 0; left &= left - 1) {
            const uint64_t number = 8 * byte + static_cast<uint64_t>(__builtin_ctz(left));
            if (number >= source.num_values) break;
            const uint32_t moved = merge_new_number(source, static_cast<uint32_t>(number));
            if (moved != MERGE_DROPPED) ST_TRY(warm_slice_set_deleted(target, moved, rc));
        }
    }
    return 0;
}

struct warm_discarder {
    void operator()(WARM* warm) const { st_warm_slice_discard(warm); }
};

int carry_deletes(const warm_merge_t* merge, const char* target_path, warm_rc_t* rc) {
    if (merge->metric != nullptr) return _set_rc(rc, 0);  // metric slices have no deletes
    const std::unique_ptr<WARM, warm_discarder> target(st_warm_slice_open_rdwr(target_path, rc));
    if (target == nullptr) return rc->warm_rc;
    if (target->body->num_values.get() != merge->totals.values) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "not the target of this merge");
    }
    for (const merge_source_t& source : merge->sources) ST_TRY(carry_marks(source, target.get(), rc));
    if (target->map.sync() != 0) return _set_rc_msg(rc, WARM_RC_WRITE, "flushing deleted marks");
    return _set_rc(rc, 0);
}

}  // namespace

void merge_progress(warm_merge_t* merge, uint64_t bytes) {
    const uint64_t planned = merge->totals.source_bytes;
    merge->done_bytes = std::min(planned, merge->done_bytes + bytes);
    if (merge->options.progress != nullptr) {
        merge->options.progress(merge->done_bytes, planned, merge->options.progress_context);
    }
}

int merge_decode_value(const warm_merge_t* merge, merge_source_t* source, uint32_t number, st_tsval* out,
                       warm_rc_t* rc) {
    ST_TRY(tsval_reader_decode(&source->warm->tsval_reader, number, out, false, 0, rc));
    if (merge->options.mapper != nullptr)
        out->address = merge->options.mapper(out->address, merge->options.mapper_context);
    return 0;
}

warm_merge_t* st_warm_slice_merge_open(std::span<const char* const> paths, const warm_merge_options_t* options,
                                       warm_rc_t* rc) {
    ST_ASSERT(options != nullptr && rc != nullptr);
    try {
        auto merge = std::make_unique<warm_merge_t>();
        merge->options = *options;
        merge->stop = {options->stop, options->stop_context};
        return open_merge(merge.get(), paths, rc) == 0 ? merge.release() : nullptr;
    } catch (const std::bad_alloc&) {
        _set_rc_msg(rc, WARM_RC_NO_MEMORY, "merge");
        return nullptr;
    }
}

int st_warm_slice_merge_write(warm_merge_t* merge, const char* path, bool durable, warm_rc_t* rc) {
    ST_ASSERT(merge != nullptr && path != nullptr && rc != nullptr);
    try {
        ST_TRY(merge_target_make(merge, path, durable, rc));
        merge->written = true;
        merge_progress(merge, merge->totals.source_bytes);
        return _set_rc(rc, 0);
    } catch (const std::bad_alloc&) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "merge");
    }
}

int st_warm_slice_merge_carry_deletes(warm_merge_t* merge, const char* target_path, warm_rc_t* rc) {
    ST_ASSERT(merge != nullptr && target_path != nullptr && rc != nullptr);
    if (!merge->written) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "the merge has not been written");
    return carry_deletes(merge, target_path, rc);
}

const warm_merge_totals_t* st_warm_slice_merge_totals(const warm_merge_t* merge) {
    return &merge->totals;
}

void st_warm_slice_merge_close(warm_merge_t* merge) {
    delete merge;
}

uint32_t st_warm_slice_merge_fitting(std::span<const st_warm_slice_body> headers,
                                     std::span<const uint64_t> file_sizes) {
    ST_ASSERT(headers.size() == file_sizes.size());
    const size_t most = std::min<size_t>(headers.size(), MERGE_MAX_SOURCES);
    merge_sums_t sums;
    for (uint32_t i = 0; i < most; i++) {
        sums.add(&headers[i], file_sizes[i]);
        if (!sums.fits_format() || sums.memory() > MEMORY_PLAN) return i;
    }
    return static_cast<uint32_t>(most);
}

int st_warm_slice_merge_kind(const st_warm_slice_body* header) {
    const bool preambles = warm_header_is_enabled(header, WARM_FLAG_PREAMBLES);
    if (st_warm_slice_is_msidx(header)) {
        const bool with_columns =
            st_warm_slice_is_msidx_with_dimsets(header) && st_warm_slice_is_msidx_with_cstore(header);
        return preambles && with_columns ? KIND_METRIC : KIND_NEVER;
    }
    // Preambles belong to metric slices.
    if (preambles) return KIND_NEVER;
    if (warm_header_meta_type(header) == META_COUNT_ONLY) return KIND_LEXICON;
    if (warm_header_is_legacy(header)) return KIND_LEGACY;
    return warm_header_is_rev1(header) ? KIND_REV1 : KIND_REV0;
}

}  // namespace veldar

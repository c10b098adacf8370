#include "searchthing/merge/merge_lists.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "libzero/assertions.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/slice/warmslice_lists.h"
#include "searchthing/slice/warmslice_meta.h"

namespace veldar {

namespace {

constexpr uint64_t PIECE = 4096;  // numbers taken at a time
constexpr size_t READ_BYTES = 64 << 10;
// Numbers are sorted as they are below this size; above, the stretches that come from one source each are merged.
constexpr uint64_t SORTED_AT_ONCE = 64;

int grow_ids(merge_lists_t* lists, warm_rc_t* rc) {
    buffer<uint32_t> larger, merged;
    const size_t size = std::max<size_t>(2 * lists->ids.size(), 4 * PIECE);
    if (!larger.alloc(size) || !merged.alloc(size)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "posting list");
    if (lists->size > 0) std::memcpy(larger.data(), lists->ids.data(), lists->size * sizeof(uint32_t));
    lists->ids = std::move(larger);
    lists->merged = std::move(merged);
    return 0;
}

void set_bits(uint64_t* bits, const uint32_t* ids, uint64_t count) {
    for (uint64_t i = 0; i < count; i++) bits[ids[i] / 64] |= uint64_t{1} << (ids[i] % 64);
}

int turn_dense(merge_lists_t* lists, warm_rc_t* rc) {
    if (lists->bits.empty() && !lists->bits.alloc(lists->num_values / 64 + 1)) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "posting list");
    }
    ST_ASSERT(!lists->dense);
    set_bits(lists->bits.data(), lists->ids.data(), lists->size);
    lists->dense = true;
    lists->size = 0;
    return 0;
}

// Room for another piece behind the numbers read so far.
int make_room(merge_lists_t* lists, warm_rc_t* rc) {
    if (!lists->dense && lists->size > lists->dense_size) return turn_dense(lists, rc);
    return lists->size + PIECE <= lists->ids.size() ? 0 : grow_ids(lists, rc);
}

void renumber(const merge_source_t& source, uint32_t* ids, uint32_t count) {
    if (source.map.empty()) {
        for (uint32_t i = 0; i < count; i++) ids[i] += source.base;
    } else {
        for (uint32_t i = 0; i < count; i++) ids[i] = source.map[ids[i]];
    }
}

// Takes over `count` numbers that stand behind those taken so far.
void take_piece(merge_lists_t* lists, uint32_t count) {
    uint32_t* const piece = lists->ids.data() + lists->size;
    ST_ASSERT(count > 0 && lists->size + count <= lists->ids.size() && piece[count - 1] < lists->num_values);
    if (lists->dense) {
        set_bits(lists->bits.data(), piece, count);
        return;
    }
    const bool goes_on = lists->size == 0 || piece[0] > piece[-1];
    if (!goes_on) lists->stretches.push_back(lists->size);
    lists->size += count;
}

// What the metadata of a source should say of a list.
struct list_facts_t {
    uint64_t count = 0;
    uint64_t sets = 0;             // as ds_merge_info_t sums them up
    uint32_t first = 0, last = 0;  // values, in a metric slice runs
    st_time_t earliest = INT32_MAX, latest = INT32_MIN;
};

void note_piece(const merge_lists_t& lists, const merge_source_t& source, std::span<const uint32_t> ids,
                list_facts_t* facts) {
    if (lists.merge->metric == nullptr) {
        if (facts->count == 0) facts->first = ids.front();
        facts->last = ids.back();
        facts->count += ids.size();
        return;
    }
    const size_t number = static_cast<size_t>(&source - lists.merge->sources.data());
    const merge_metric_source_t& metric = lists.merge->metric->sources[number];
    for (const uint32_t run : ids) {
        const uint64_t place = metric.runs.size() - run;  // of the run's set, counted from 1
        facts->sets += place * place;
        facts->count += metric.runs[run].count;
        facts->earliest = std::min(facts->earliest, metric.spans[run].earliest);
        facts->latest = std::max(facts->latest, metric.spans[run].latest);
    }
}

int differs(const merge_source_t& source, uint32_t term, warm_rc_t* rc) {
    const std::string text = "a posting list differs from its metadata or dimension sets: " + source.path;
    return _set_rc_verbose(rc, WARM_RC_CORRUPT, term, text.c_str());
}

int check_times(const merge_lists_t& lists, merge_time_check_t* check, warm_rc_t* rc) {
    const merge_source_t* const source = std::exchange(check->source, nullptr);
    if (source == nullptr) return 0;
    const st_time_t* const times = lists.merge->times.data();
    const bool same = times[check->newest] == check->latest && times[check->oldest] == check->earliest;
    return same ? 0 : differs(*source, check->term, rc);
}

// The same for a list whose first or last value is dropped.
int check_times_in_source(merge_source_t* source, uint32_t term, const list_facts_t& facts,
                          const st_term_metadata& record, warm_rc_t* rc) {
    tsval_reader_t* const values = &source->warm->tsval_reader;
    st_time_t latest = 0, earliest = 0;
    uint64_t nanoseconds = 0;
    ST_TRY(tsval_reader_decode_time(values, facts.first, &latest, &nanoseconds, rc));
    ST_TRY(tsval_reader_decode_time(values, facts.last, &earliest, &nanoseconds, rc));
    const bool same =
        static_cast<st_time_t>(record.latest) == latest && static_cast<st_time_t>(record.earliest) == earliest;
    return same ? 0 : differs(*source, term, rc);
}

int check_later(merge_lists_t* lists, const merge_time_check_t& check, warm_rc_t* rc) {
    merge_time_check_t* const slot = &lists->time_checks[lists->next_check++ % lists->time_checks.size()];
    ST_TRY(check_times(*lists, slot, rc));
    *slot = check;
    __builtin_prefetch(&lists->merge->times[check.newest]);
    __builtin_prefetch(&lists->merge->times[check.oldest]);
    return 0;
}

int check_list(merge_lists_t* lists, merge_source_lists_t* from, uint32_t term, const list_facts_t& facts,
               warm_rc_t* rc) {
    if (!from->metadata.opened) return 0;
    const st_term_metadata* const record = term_meta_reader_next(&from->metadata, rc);
    if (record == nullptr) return rc->warm_rc;
    const merge_source_t& source = *from->source;
    if (record->count != facts.count) return differs(source, term, rc);
    if (facts.count == 0) return 0;
    const auto earliest = static_cast<st_time_t>(record->earliest), latest = static_cast<st_time_t>(record->latest);
    const merge_metric_t* const metric = lists->merge->metric.get();
    if (source.num_kept < source.num_values && metric == nullptr) {
        return check_times_in_source(from->source, term, facts, *record, rc);
    }
    if (metric == nullptr) {
        return check_later(lists,
                           {.source = &source,
                            .term = term,
                            .newest = merge_new_number(source, facts.first),
                            .oldest = merge_new_number(source, facts.last),
                            .latest = latest,
                            .earliest = earliest},
                           rc);
    }
    const size_t number = static_cast<size_t>(&source - lists->merge->sources.data());
    const uint64_t sets = metric->info.sets_of_terms[number][term];
    const bool same_sets = sets == 0 || sets == facts.sets;  // no set holds a loose term
    const bool same = same_sets && earliest == facts.earliest && latest == facts.latest;
    return same ? 0 : differs(source, term, rc);
}

// The metadata of dead terms were looked at when they were found.
void pass_over_dead_terms(merge_source_lists_t* from) {
    const std::vector<bool>& dead = from->source->dead_terms;
    while (!dead.empty() && dead[from->next_term]) from->next_term++;
    from->metadata.next = from->next_term;
}

// Adds the source's next list.
int add_list(merge_lists_t* lists, merge_source_lists_t* from, warm_rc_t* rc) {
    pass_over_dead_terms(from);
    const uint32_t term = from->next_term++;
    if (!from->has_lists) return 0;
    uint32_t type = PLO_RLE;
    if (_pl_offset_reader(&from->own, int64_t{term} - 1, &type, rc) < 0) return rc->warm_rc;
    plist_reader* const reader = type == PLO_DEDUP ? &from->shared : &from->own;
    ST_TRY(_seek_reader(reader, term, rc));
    list_facts_t facts;
    for (uint32_t count = PIECE; count == PIECE;) {
        ST_TRY(make_room(lists, rc));
        uint32_t* const piece = lists->ids.data() + lists->size;
        ST_TRY(plist_copy(reader, piece, PIECE, PLIST_END, &count, rc));
        if (count == 0) break;
        const buffer<uint32_t>& map = from->source->map;
        if (!map.empty() && piece[count - 1] >= map.size()) {
            return _set_rc_verbose(rc, WARM_RC_CORRUPT, term, "posting of a run that does not exist");
        }
        note_piece(*lists, *from->source, {piece, count}, &facts);
        renumber(*from->source, piece, count);
        const uint32_t* const end = std::remove(piece, piece + count, MERGE_DROPPED);
        const auto kept = static_cast<uint32_t>(end - piece);
        if (kept == 0) continue;
        // Values that the target orders in another way than the source do not ascend any more.
        if (!from->source->order.empty()) std::sort(piece, piece + kept);
        take_piece(lists, kept);
    }
    return check_list(lists, from, term, facts, rc);
}

// Merges two ascending stretches that lie one behind another. Which of them comes next cannot be predicted, so nothing
// branches on it.
void merge_two(const uint32_t* a, const uint32_t* middle, const uint32_t* end, uint32_t* out) {
    const uint32_t* b = middle;
    while (a != middle && b != end) {
        const uint32_t x = *a, y = *b;
        const bool second = y < x;
        *out++ = second ? y : x;
        b += second;
        a += !second;
    }
    out = std::copy(a, middle, out);
    std::copy(b, end, out);
}

// Merges the ascending stretches of `ids` two by two.
void merge_runs(merge_lists_t* lists) {
    std::vector<uint64_t>& begins = lists->stretches;
    ST_ASSERT(begins.front() == 0 && begins.back() < lists->size && lists->merged.size() == lists->ids.size());
    while (begins.size() > 1) {
        const uint32_t* const in = lists->ids.data();
        uint32_t* const out = lists->merged.data();
        size_t kept = 0;
        for (size_t i = 0; i < begins.size(); i += 2) {
            const uint64_t begin = begins[i];
            const uint64_t middle = i + 1 < begins.size() ? begins[i + 1] : lists->size;
            const uint64_t end = i + 2 < begins.size() ? begins[i + 2] : lists->size;
            merge_two(in + begin, in + middle, in + end, out + begin);
            begins[kept++] = begin;
        }
        begins.resize(kept);
        std::swap(lists->ids, lists->merged);
    }
}

// Makes the numbers ascending and distinct.
void order_ids(merge_lists_t* lists) {
    if (lists->stretches.size() == 1 && !lists->may_repeat) return;
    uint32_t* const ids = lists->ids.data();
    if (lists->size <= SORTED_AT_ONCE) {
        std::sort(ids, ids + lists->size);
    } else {
        merge_runs(lists);
    }
    uint32_t* const begin = lists->ids.data();
    lists->size = static_cast<uint64_t>(std::unique(begin, begin + lists->size) - begin);
}

// Counts a list that is a bitmap, which has at least one event.
void describe_bits(std::span<const uint64_t> bits, merge_list_t* out) {
    size_t first = 0, last = bits.size() - 1;
    while (bits[first] == 0) first++;
    while (bits[last] == 0) last--;
    uint64_t count = 0;
    for (size_t word = first; word <= last; word++) count += static_cast<uint64_t>(__builtin_popcountll(bits[word]));
    out->bits = bits;
    out->count = static_cast<uint32_t>(count);
    out->first = static_cast<uint32_t>(64 * first + static_cast<size_t>(__builtin_ctzll(bits[first])));
    out->last = static_cast<uint32_t>(64 * last + 63 - static_cast<size_t>(__builtin_clzll(bits[last])));
}

// Lists that are few are read all at once.
int copy_lists(merge_source_lists_t* from, const WARM* warm, warm_rc_t* rc) {
    const size_t size = static_cast<size_t>(warm->plo_last);
    if (!from->copy.alloc(size)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "posting lists");
    const int64_t got = st_pread(warm->fd.get(), from->copy.data(), size, warm->postings_base);
    if (got != static_cast<int64_t>(size)) return _set_rc_msg(rc, read_status(got), "posting lists");
    plist_reader_attach_memory(&from->own, from->copy.span());
    plist_reader_attach_memory(&from->shared, from->copy.span());
    return 0;
}

}  // namespace

int merge_find_dead_terms(merge_source_t* source, stop_check* stop, warm_rc_t* rc) {
    WARM* const warm = source->warm.get();
    if (source->num_kept == source->num_values || !st_warm_slice_has_postings(warm)) return 0;
    plist_reader reader;
    ST_TRY(_init_reader(&reader, warm, 0, nullptr, rc));
    source->dead_terms.assign(st_warm_slice_terms(warm), false);
    for (uint32_t term = 0; term < source->dead_terms.size(); term++) {
        ST_TRY(_seek_reader(&reader, term, rc));
        ST_TRY(stop->after(1, rc));
        uint32_t id = 0, count = 0;
        for (;; count++) {
            ST_TRY(_next(&reader, &id, rc));
            if (id == PLIST_END || source->map[id] != MERGE_DROPPED) break;
        }
        ST_TRY(stop->after(count / 8, rc));
        if (id != PLIST_END) continue;
        // Nobody will look at this list again.
        st_term_metadata record;
        ST_TRY(warm_slice_term_metadata(warm, term, nullptr, &record, rc));
        if (record.count != count) return differs(*source, term, rc);
        source->dead_terms[term] = true;
    }
    return 0;
}

int merge_lists_open(merge_lists_t* lists, warm_merge_t* merge, warm_rc_t* rc) {
    lists->merge = merge;
    lists->num_values = merge->metric != nullptr ? merge->header.num_dimsets.get() : merge->totals.values;
    lists->dense_size = lists->num_values / merge->seams.dense_divisor;
    lists->sources.resize(merge->sources.size());
    lists->stretches.reserve(1024);
    ST_TRY(grow_ids(lists, rc));
    for (size_t i = 0; i < merge->sources.size(); i++) {
        merge_source_lists_t* const from = &lists->sources[i];
        from->source = &merge->sources[i];
        WARM* const warm = from->source->warm.get();
        lists->may_repeat |= from->source->repeats;
        from->has_lists = st_warm_slice_has_postings(warm);
        if (!from->has_lists) continue;
        const uint64_t span = merge->options.write_options.merge_reader_span;
        ST_TRY(_init_reader(&from->own, warm, span, nullptr, rc));
        ST_TRY(_init_reader(&from->shared, warm, span, nullptr, rc));
        if (!from->own.buf.alloc(READ_BYTES)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "posting lists");
        if (warm_header_meta_type(warm->body) != META_COUNT_ONLY) {
            ST_TRY(term_meta_reader_open(&from->metadata, warm->fd.get(), nullptr, warm->body, true, nullptr, rc));
        }
        const bool few = warm->plo_last > 0 && warm->plo_last <= merge->seams.lists_in_memory;
        if (few) ST_TRY(copy_lists(from, warm, rc));
    }
    return 0;
}

int merge_lists_next(merge_lists_t* lists, uint64_t holders, merge_list_t* out, warm_rc_t* rc) {
    if (lists->dense) lists->bits.clear();
    lists->dense = false;
    lists->size = 0;
    lists->stretches.clear();
    lists->stretches.push_back(0);
    for (; holders != 0; holders &= holders - 1) {
        const size_t source = static_cast<size_t>(__builtin_ctzll(holders));
        ST_ASSERT(source < lists->sources.size());
        ST_TRY(add_list(lists, &lists->sources[source], rc));
    }
    *out = {};
    if (lists->dense) {
        describe_bits(lists->bits.span(), out);
        ST_ASSERT(out->last < lists->num_values && out->count - 1 <= out->last - out->first);
        return 0;
    }
    order_ids(lists);
    if (lists->size == 0) return 0;
    out->ids = {lists->ids.data(), static_cast<size_t>(lists->size)};
    out->count = static_cast<uint32_t>(lists->size);
    out->first = out->ids.front();
    out->last = out->ids.back();
    ST_ASSERT(out->first <= out->last && out->last < lists->num_values && out->count - 1 <= out->last - out->first);
    return 0;
}

int merge_lists_finish(merge_lists_t* lists, warm_rc_t* rc) {
    for (merge_time_check_t& check : lists->time_checks) ST_TRY(check_times(*lists, &check, rc));
    return 0;
}

}  // namespace veldar

// The sections of a metric merge behind the posting lists: dimension sets and the column store.
#include <algorithm>

#include "libzero/assertions.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/merge/merge_internal.h"
#include "searchthing/merge/merge_leader.h"

namespace veldar {

namespace {

struct cstore_builder {
    cs_builder_t builder;
    cstore_builder() = default;
    cstore_builder(const cstore_builder&) = delete;
    cstore_builder& operator=(const cstore_builder&) = delete;
    ~cstore_builder() { cs_builder_close(&builder); }
};

// One source: its column store, and the column of the measure that is being merged.
struct cstore_context_t {
    const merge_metric_source_t* source = nullptr;
    const cs_reader_t* reader = nullptr;
    uint32_t next_column = 0;
    cset_reader_t column;
    uint32_t value_no = 0;  // of the current element, in merged numbers
    double value = 0;

    cstore_context_t() = default;
    cstore_context_t(const cstore_context_t&) = delete;
    cstore_context_t& operator=(const cstore_context_t&) = delete;
    ~cstore_context_t() { cset_reader_close(&column); }
    bool has_column() const { return next_column < reader->entries.size(); }
    uint32_t column_rank() const { return source->terms[reader->entries[next_column].term_id]; }
};

int open_context(cstore_context_t* context, const merge_metric_source_t& source, WARM* warm, warm_rc_t* rc) {
    context->source = &source;
    context->reader = st_warm_slice_cstore(warm, rc);
    if (context->reader == nullptr) return rc->warm_rc;
    const std::span<const cs_tid_offset_t> entries = context->reader->entries.span();  // ascending
    const bool terms_exist = entries.empty() || entries.back().term_id < source.terms.size();
    return terms_exist ? 0 : _set_rc_msg(rc, WARM_RC_CORRUPT, "column of a term that does not exist");
}

// The next element of the open column; `ended` when there is none.
int next_element(cstore_context_t* context, bool* ended, warm_rc_t* rc) {
    uint32_t old_number = 0;
    ST_TRY(cset_reader_next(&context->column, &old_number, &context->value, rc));
    *ended = old_number == CSET_END;
    if (*ended) return 0;
    // A column store of as many preambles and values as the slice has no other numbers.
    context->value_no = context->source->values[old_number - context->source->runs.size()];
    return 0;
}

// Tells for ascending value numbers whether they belong to another run than the one before.
struct run_follower {
    const buffer<merge_metric_run_t>& runs;
    uint32_t run = 0;
    bool begun = false;
    bool changed(uint32_t value_no) {
        const uint32_t before = run;
        while (runs[run].end <= value_no) run++;
        return !std::exchange(begun, true) || run != before;
    }
};

// One column: the elements of all sources that have it, in the order of merged value numbers.
int merge_column(std::span<cstore_context_t* const> sources, uint32_t rank, const buffer<merge_metric_run_t>& runs,
                 cs_builder_t* builder, stop_check* stop, warm_rc_t* rc) {
    std::vector<cstore_context_t*> live;
    const auto before = [](const cstore_context_t& a, const cstore_context_t& b) { return a.value_no < b.value_no; };
    ST_TRY(cs_add_columnset(builder, rank, rc));
    for (cstore_context_t* context : sources) {
        const uint32_t term = context->reader->entries[context->next_column++].term_id;
        cset_reader_close(&context->column);
        ST_TRY(cset_reader_open(&context->column, context->reader, term, nullptr, rc));
        bool ended = false;
        ST_TRY(next_element(context, &ended, rc));
        if (!ended) merge_place(&live, context, before);
    }
    run_follower follower{runs};
    return merge_by_leader(&live, before, [&](cstore_context_t* context, bool* ended) {
        ST_TRY(stop->after(1, rc));
        const bool changed = follower.changed(context->value_no);
        ST_TRY(cs_add_element(builder, rank, context->value_no, changed, context->value, rc));
        return next_element(context, ended, rc);
    });
}

int _merge_cstore(warm_merge_t* merge, cs_builder_t* builder, warm_rc_t* rc) {
    const merge_metric_t& metric = *merge->metric;
    std::vector<cstore_context_t> contexts(merge->sources.size());
    for (size_t i = 0; i < contexts.size(); i++) {
        if (open_context(&contexts[i], metric.sources[i], merge->sources[i].warm.get(), rc) != 0) {
            rc->detail = static_cast<uint32_t>(i);
            return rc->warm_rc;
        }
    }
    uint32_t columns = 0;
    for (const cstore_context_t& context : contexts) {
        columns = std::max(columns, static_cast<uint32_t>(context.reader->entries.size()));
    }
    ST_TRY(cs_builder_open(builder, columns, rc));
    std::vector<cstore_context_t*> holders;
    for (;;) {
        uint32_t rank = UINT32_MAX;
        for (const cstore_context_t& context : contexts) {
            if (context.has_column()) rank = std::min(rank, context.column_rank());
        }
        holders.clear();
        for (cstore_context_t& context : contexts) {
            if (context.has_column() && context.column_rank() == rank) holders.push_back(&context);
        }
        if (holders.empty()) return 0;
        ST_TRY(merge_column(holders, rank, metric.runs, builder, &merge->stop, rc));
    }
}

int mismatch(warm_rc_t* rc, const char* what) {
    return _set_rc_msg(rc, WARM_RC_CORRUPT, what);
}

}  // namespace

int merge_metric_sections_write(warm_merge_t* merge, int fd, uint64_t* offset, warm_rc_t* rc) {
    st_warm_slice_body* const header = &merge->header;
    uint64_t end = 0;
    ST_TRY(ds_writer_flush(&merge->metric->dimsets, fd, &end, warm_next_section(*offset), rc));
    const uint64_t cstore_offset = _offset_cstore(end);
    cstore_builder cstore;
    int64_t cstore_ref = 0;
    ST_TRY(_merge_cstore(merge, &cstore.builder, rc));
    ST_TRY(cs_finalize_offsets(&cstore.builder, header->num_values.get(), header->num_dimsets.get(), &cstore_ref, rc));
    ST_ASSERT(cstore_ref > 0);  // 0 would say that the slice has no column store
    header->cstore_ref.set(static_cast<uint64_t>(cstore_ref));
    ST_TRY(merge->stop.ask(rc));
    ST_TRY(cs_sync_cstore(&cstore.builder, fd, cstore_offset, rc));
    *offset = cstore_offset + cs_builder_size(&cstore.builder);
    return 0;
}

int merge_metric_verify(const warm_merge_t* merge, WARM* target, warm_rc_t* rc) {
    const merge_metric_t& metric = *merge->metric;
    const int64_t sets = st_warm_slice_dimsets_offset(target, rc);
    if (sets < 0) return rc->warm_rc;
    ds_header_t header;
    ST_TRY(ds_header_read(&header, target->fd.get(), static_cast<uint64_t>(sets), rc));
    if (header.dimsets() != metric.dimsets.num_dimsets || header.words() != metric.dimsets.num_words) {
        return mismatch(rc, "dimension sets of a merge");
    }
    const uint32_t runs = header.dimsets();
    warm_run_t last;
    ST_TRY(tsval_reader_fetch_preambles_multiple(target, runs - 1, &last, 1, rc));  // which ends with the values
    return st_warm_slice_cstore(target, rc) != nullptr ? 0 : rc->warm_rc;
}

}  // namespace veldar

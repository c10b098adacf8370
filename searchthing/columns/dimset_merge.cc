// Merging dimension-set sections: a heap of sources by their current set, the sources' sets translated to the merged
// lexicon as they are read. Ascending term maps keep every source in order.
#include <algorithm>
#include <new>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/columns/dimset_io.h"

namespace veldar {

namespace {

struct dimset_context_t {
    uint32_t source = 0;
    ds_reader_t reader;
    std::span<const uint32_t> terms;  // null data: the terms stay
    buffer<uint64_t>* sets_of_terms = nullptr;
    buffer<uint32_t> words;  // the current set
    uint32_t next_id = 0;    // of the set after the current one

    ds_dimset_t* current() { return ds_dimset_at(words.data()); }
    bool more() const { return next_id < reader.num_dimsets; }
};

int name_source(warm_rc_t* rc, uint32_t source) {
    rc->detail = source;
    return rc->warm_rc;
}

// Loads the next set of the source, which has one.
int ds_load_next(dimset_context_t* c, warm_rc_t* rc) {
    ST_TRY(ds_reader_read(&c->reader, c->next_id, c->current(), DS_MAX_DIMSET_SIZE_WORDS, rc));
    c->next_id++;
    if (!ds_fields_ascend(ds_dimset_opt_dims(c->current())) || !ds_fields_ascend(ds_dimset_opt_cols(c->current()))) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "ordering violation");
    }
    if (c->terms.data() == nullptr) return 0;
    for (const uint32_t term : ds_dimset_allfields(c->current())) {
        if (term < c->terms.size()) (*c->sets_of_terms)[term] += uint64_t{c->next_id} * c->next_id;
    }
    return ds_translate_term_ids(c->current(), c->terms, rc, false);
}

// What is about to be allocated for a section must be in its file.
int check_totals(const dimset_context_t& c, const st_warm_slice_body* body, warm_rc_t* rc) {
    uint64_t file_size = 0;
    if (osfile_get_size(c.reader.fd, &file_size) != 0) return _set_rc(rc, WARM_RC_FILE_SIZE);
    const uint64_t left = file_size - c.reader.section_offset;
    if (c.reader.num_dimsets != body->num_dimsets.get() ||
        st_dimsets_size(c.reader.num_dimsets, c.reader.num_words) > left) {
        return _set_rc_verbose(rc, WARM_RC_CORRUPT, c.source, "dimset section past the end of the file");
    }
    return 0;
}

int open_context(dimset_context_t* c, int fd, const st_warm_slice_body* body, uint64_t posting_offset,
                 ds_merge_info_t* info, warm_rc_t* rc) {
    const uint64_t offset = _offset_dimsets(body, fd, posting_offset, rc);
    if (offset == ~uint64_t{0}) return _set_rc_verbose(rc, WARM_RC_CORRUPT, c->source, "_offset_dimsets");
    if (ds_reader_open(&c->reader, fd, offset, rc) != 0) return name_source(rc, c->source);
    ST_TRY(check_totals(*c, body, rc));
    if (!c->words.alloc(DS_MAX_DIMSET_SIZE_WORDS)) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "dimset_context_t alloc");
    if (!info->dimset_old2new_id_maps[c->source].alloc(c->reader.num_dimsets)) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "ds_merge_info->dimset_old2new_id_maps alloc");
    }
    c->sets_of_terms = &info->sets_of_terms[c->source];
    if (!c->sets_of_terms->alloc(c->terms.size())) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "sets of terms");
    return 0;
}

int emit(dimset_context_t* c, ds_merge_info_t* info, ds_writer_t* writer, warm_rc_t* rc) {
    const ds_dimset_t* last = ds_writer_last_appended(writer);
    const int order = last == nullptr ? -1 : ds_dimset_compare(last, c->current());
    if (order > 0) return _set_rc_verbose(rc, WARM_RC_CORRUPT, c->source, "ordering violation");
    // A section's sets lie one behind the other in its words, so that all of them fit.
    const int status = order < 0 ? ds_writer_append(writer, c->current(), rc) : 0;
    ST_ASSERT(c->next_id > 0 && (status != 0 || writer->num_dimsets > 0));
    info->dimset_old2new_id_maps[c->source][c->next_id - 1] = writer->num_dimsets - 1;
    return status;
}

int st_dimset_merge_helper(std::span<dimset_context_t> contexts, ds_merge_info_t* info, ds_writer_t* writer,
                           warm_rc_t* rc) {
    // The smallest set on top; the first source wins ties.
    const auto later = [](dimset_context_t* a, dimset_context_t* b) {
        const int order = ds_dimset_compare(a->current(), b->current());
        return order != 0 ? order > 0 : a->source > b->source;
    };
    std::vector<dimset_context_t*> heap;
    for (dimset_context_t& context : contexts) {
        if (!context.more()) continue;
        if (ds_load_next(&context, rc) != 0) return name_source(rc, context.source);
        heap.push_back(&context);
    }
    std::make_heap(heap.begin(), heap.end(), later);
    while (!heap.empty()) {
        std::pop_heap(heap.begin(), heap.end(), later);
        dimset_context_t* const chosen = heap.back();
        const bool alone = heap.size() == 1;
        bool ended = false;
        do {
            ST_TRY(emit(chosen, info, writer, rc));
            ended = !chosen->more();
            if (!ended && ds_load_next(chosen, rc) != 0) return name_source(rc, chosen->source);
        } while (!ended && (alone || ds_dimset_compare(chosen->current(), heap.front()->current()) <= 0));
        if (ended) {
            heap.pop_back();
        } else {
            std::push_heap(heap.begin(), heap.end(), later);
        }
    }
    ST_ASSERT(std::none_of(contexts.begin(), contexts.end(), [](const dimset_context_t& c) { return c.more(); }));
    info->num_dimsets = writer->num_dimsets;
    return 0;
}

int merge(uint32_t n, const int* fds, const st_warm_slice_body* const* bodies, const uint64_t* posting_offsets,
          const std::span<const uint32_t>* term_maps, ds_merge_info_t* info, ds_writer_t* writer, warm_rc_t* rc) {
    std::vector<dimset_context_t> contexts(n);
    info->dimset_old2new_id_maps.resize(n);
    info->sets_of_terms.resize(n);
    uint64_t sets = 0;
    uint64_t words = 0;
    for (uint32_t source = 0; source < n; source++) {
        dimset_context_t& context = contexts[source];
        context.source = source;
        if (term_maps != nullptr) context.terms = term_maps[source];
        ST_TRY(open_context(&context, fds[source], bodies[source], posting_offsets[source], info, rc));
        sets += context.reader.num_dimsets;
        words += context.reader.num_words;
    }
    if (sets >= UINT32_MAX || words >= UINT32_MAX) {
        return _set_rc_msg(rc, WARM_RC_DOES_NOT_FIT, "merged dimension sets do not fit 32 bits");
    }
    ST_TRY(ds_writer_open(writer, static_cast<uint32_t>(sets), static_cast<uint32_t>(words), rc));
    ST_TRY(st_dimset_merge_helper(contexts, info, writer, rc));
    ST_ASSERT(info->num_dimsets <= sets && writer->num_words <= words);
    return 0;
}

}  // namespace

int st_dimset_merge(uint32_t n, const int* fds, const st_warm_slice_body* const* bodies,
                    const uint64_t* posting_offsets, const std::span<const uint32_t>* term_maps, ds_merge_info_t* info,
                    ds_writer_t* writer, warm_rc_t* rc) {
    _set_rc(rc, 0);
    *info = {};
    if (n > DS_MERGE_MAX_SOURCES) return _set_rc_verbose(rc, WARM_RC_INVALID_ARGUMENT, n, "too many dimset sources");
    try {
        return merge(n, fds, bodies, posting_offsets, term_maps, info, writer, rc);
    } catch (const std::bad_alloc&) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "dimset_context_t alloc");
    }
}

}  // namespace veldar

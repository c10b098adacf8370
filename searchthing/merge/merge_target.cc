#include "searchthing/merge/merge_target.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/lexicon/fclex_io.h"
#include "searchthing/merge/merge_lists.h"
#include "searchthing/merge/merge_postings.h"
#include "searchthing/merge/merge_values.h"
#include "searchthing/slice/warmslice_lists.h"

namespace veldar {

namespace {

// The merged lexicon while it waits for its place in the file.
struct merged_lexicon_t {
    lex_writer_t writer;
    bmap_array_t holders;  // which sources have a merged term
};

// Which terms of each source the target does without; empty when it needs every term of them all.
int find_dead_terms(warm_merge_t* merge, std::vector<std::vector<bool>>* dead, warm_rc_t* rc) {
    bool any_lives = !merge->options.drop_deleted;
    for (size_t i = 0; i < merge->sources.size() && merge->options.drop_deleted && merge->metric == nullptr; i++) {
        merge_source_t* const source = &merge->sources[i];
        if (source->dead_terms.empty()) ST_TRY(merge_find_dead_terms(source, &merge->stop, rc));
        const std::vector<bool>& terms = source->dead_terms;
        any_lives = any_lives || terms.empty() || std::find(terms.begin(), terms.end(), false) != terms.end();
        dead->push_back(terms);
    }
    if (any_lives) return 0;
    // A lexicon has at least one term.
    for (merge_source_t& source : merge->sources) source.dead_terms.clear();
    dead->clear();
    return 0;
}

int merge_lexicons(warm_merge_t* merge, merged_lexicon_t* out, warm_rc_t* rc) {
    std::vector<int> fds;
    std::vector<int64_t> offsets;
    uint64_t bytes = 0;
    for (const merge_source_t& source : merge->sources) {
        fds.push_back(source.warm->fd.get());
        offsets.push_back(static_cast<int64_t>(_offset_fclex(source.warm->body)));
        bytes += source.warm->lexicon_size;
    }
    std::vector<uint64_t> ends(fds.size());
    std::vector<std::vector<bool>> dead;
    ST_TRY(find_dead_terms(merge, &dead, rc));
    const warm_merge_options_t& options = merge->options;
    const uint32_t asked = options.lexicon_tpb != 0 ? options.lexicon_tpb : options.write_options.merge_terms_per_block;
    std::vector<uint32_t*> term_maps;  // the sets of metric slices hold term numbers
    if (merge->metric != nullptr) {
        for (const merge_metric_source_t& source : merge->metric->sources) term_maps.push_back(source.terms.data());
    }
    ST_TRY(st_fclex_merge_n(false, fds.data(), offsets.data(), static_cast<uint32_t>(fds.size()),
                            std::max(asked, MERGE_MIN_TERMS_A_BLOCK), 0, &out->writer, &merge->totals.terms,
                            &out->holders, ends.data(), term_maps.empty() ? nullptr : term_maps.data(), rc,
                            dead.empty() ? nullptr : dead.data(), &merge->stop));
    merge->header.num_terms.set(merge->totals.terms);
    merge_progress(merge, bytes);
    return 0;
}

int plan_values(warm_merge_t* merge, warm_rc_t* rc) {
    if (merge->values_planned) return 0;
    ST_TRY(merge->metric != nullptr ? merge_metric_plan(merge, rc) : merge_values_plan(merge, rc));
    merge->values_planned = true;
    return 0;
}

int set_size(int fd, uint64_t size, warm_rc_t* rc) {
    return os_retry([&] { return ::ftruncate(fd, static_cast<off_t>(size)); }) == 0
               ? 0
               : _set_rc_msg(rc, WARM_RC_WRITE, "size of the slice");
}

// Writes everything into an empty file.
int fill_file(warm_merge_t* merge, int fd, merged_lexicon_t* lexicon, merge_postings_t* postings, warm_rc_t* rc) {
    st_warm_slice_body* const header = &merge->header;
    ST_ASSERT(merge->values_planned && header->num_values.get() == merge->totals.values &&
              header->num_terms.get() == merge->totals.terms);
    ST_TRY(merge->metric != nullptr ? merge_metric_values_write(merge, fd, rc) : merge_values_write(merge, fd, rc));
    uint64_t value_bytes = 0;
    for (const merge_source_t& source : merge->sources) value_bytes += _offset_pl_offs(source.warm->body);
    merge_progress(merge, value_bytes);

    uint64_t lists_offset = 0;
    const uint64_t lexicon_offset = _offset_fclex(header);
    if (const int status = _lex_writer_close(false, &lexicon->writer, fd, lexicon_offset, &lists_offset)) {
        return _set_rc_msg(rc, status, "lexicon");
    }
    ST_TRY(merge->stop.ask(rc));
    ST_TRY(merge_postings_write(merge, fd, lists_offset, lexicon->holders, postings, rc));
    header->num_postings.set(static_cast<uint32_t>(postings->postings));
    merge->totals.postings = static_cast<uint32_t>(postings->postings);
    uint64_t end = lists_offset + postings->bytes;
    ST_ASSERT(lists_offset > lexicon_offset);
    if (merge->metric != nullptr) ST_TRY(merge_metric_sections_write(merge, fd, &end, rc));
    merge->totals.target_bytes = (end + 7) & ~uint64_t{7};
    ST_TRY(set_size(fd, merge->totals.target_bytes, rc));
    return warm_header_write(fd, header, rc);
}

int mismatch(warm_rc_t* rc, const char* what) {
    return _set_rc_msg(rc, WARM_RC_CORRUPT, what);
}

using term_text = std::string;

int term_of(const WARM* warm, uint32_t term, term_text* out, warm_rc_t* rc) {
    char text[ST_TERM_BUFFER_SIZE];
    ST_TRY(st_fclex_get_term_from_id(warm->lexicon, term, text, sizeof text, nullptr, rc));
    *out = text;
    return 0;
}

// The first and the last term of all sources are those of the target.
int verify_terms(warm_merge_t* merge, const WARM* target, warm_rc_t* rc) {
    term_text first, last, text;
    bool has_any = false;
    for (const merge_source_t& source : merge->sources) {
        uint32_t from = 0, to = st_warm_slice_terms(source.warm.get());
        const auto is_dead = [&](uint32_t term) { return !source.dead_terms.empty() && source.dead_terms[term]; };
        while (from < to && is_dead(from)) from++;
        if (from == to) continue;
        while (is_dead(to - 1)) to--;
        ST_TRY(term_of(source.warm.get(), from, &text, rc));
        if (!has_any || text < first) first = text;
        ST_TRY(term_of(source.warm.get(), to - 1, &text, rc));
        if (!has_any || text > last) last = text;
        has_any = true;
    }
    ST_TRY(term_of(target, 0, &text, rc));
    if (text != first) return mismatch(rc, "first term of a merge");
    ST_TRY(term_of(target, st_warm_slice_terms(target) - 1, &text, rc));
    return text == last ? 0 : mismatch(rc, "last term of a merge");
}

int verify_list(WARM* target, uint32_t term, const merge_list_digest_t& expected, stop_check* stop, warm_rc_t* rc) {
    plist_reader reader;
    ST_TRY(_init_reader(&reader, target, 0, nullptr, rc));
    ST_TRY(_seek_reader(&reader, term, rc));
    merge_list_digest_t found;
    for (uint32_t id = 0, steps = 0;; steps++) {
        ST_TRY(_next(&reader, &id, rc));
        if (steps % 8 == 0) ST_TRY(stop->after(1, rc));
        if (id == PLIST_END) break;
        found.add(id);
    }
    const bool same = found.count == expected.count && found.hash == expected.hash;
    return same ? 0 : mismatch(rc, "posting list of a merge");
}

// The first value has the latest time, the last one the earliest.
int verify_values(const warm_merge_t* merge, WARM* target, warm_rc_t* rc) {
    if (merge->metric != nullptr) return merge_metric_verify(merge, target, rc);
    if (merge->totals.values == 0) return 0;
    st_time_t latest = 0, earliest = 0;
    uint64_t nanoseconds = 0;
    ST_TRY(tsval_reader_decode_time(&target->tsval_reader, 0, &latest, &nanoseconds, rc));
    ST_TRY(tsval_reader_decode_time(&target->tsval_reader, merge->totals.values - 1, &earliest, &nanoseconds, rc));
    const bool same = latest == merge->totals.latest && earliest == merge->totals.earliest;
    return same ? 0 : mismatch(rc, "values of a merge");
}

int verify_slice(warm_merge_t* merge, const char* path, const merge_postings_t& postings, warm_rc_t* rc) {
    unique_fd fd = osfile_open_regular(path, O_RDONLY);
    if (!fd.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, path);
    const warm_ptr target(st_warm_slice_open_rdonly_from_fd(fd.get(), nullptr, rc));
    if (target == nullptr) return rc->warm_rc;
    static_cast<void>(fd.release());
    const st_warm_slice_body* const body = target->body;
    if (body->num_values.get() != merge->totals.values || body->num_terms.get() != merge->totals.terms ||
        body->num_postings.get() != merge->totals.postings) {
        return mismatch(rc, "counts of a merge");
    }
    ST_TRY(verify_values(merge, target.get(), rc));
    ST_TRY(verify_terms(merge, target.get(), rc));
    if (merge->totals.postings == 0) return 0;
    if (target->plo_last != postings.bytes) return mismatch(rc, "size of the posting lists of a merge");
    ST_TRY(verify_list(target.get(), 0, postings.first, &merge->stop, rc));
    return verify_list(target.get(), merge->totals.terms - 1, postings.last, &merge->stop, rc);
}

int fill_and_verify(warm_merge_t* merge, int fd, const char* path, merged_lexicon_t* lexicon, warm_rc_t* rc) {
    merge_postings_t postings;
    int status = fill_file(merge, fd, lexicon, &postings, rc);
    if (status != 0 && postings.entries_too_narrow) {
        // The sources' lists promised to fit offsets of 4 bytes, and did not. Everything behind the offsets moves.
        warm_header_set_flag(&merge->header, WARM_FLAG_PLO32, false);
        *lexicon = {};
        ST_TRY(merge_lexicons(merge, lexicon, rc));
        ST_TRY(set_size(fd, 0, rc));
        postings = {};
        status = fill_file(merge, fd, lexicon, &postings, rc);
        ST_ASSERT(!postings.entries_too_narrow);
    }
    if (status != 0) return status;
    return verify_slice(merge, path, postings, rc);
}

// A file that vanishes again unless it is kept.
class new_file {
  public:
    explicit new_file(const char* path)
        : path_(path),
          fd_(os_retry([&] { return ::open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600); })),
          made_(fd_.valid()) {}
    ~new_file() {
        if (made_) ::unlink(path_);
    }
    new_file(const new_file&) = delete;
    new_file& operator=(const new_file&) = delete;

    int fd() const { return fd_.get(); }
    bool valid() const { return fd_.valid(); }
    int keep(warm_rc_t* rc) {
        if (fd_.close_checked() != 0) return _set_rc_msg(rc, WARM_RC_CLOSE, path_);
        made_ = false;
        return 0;
    }

  private:
    const char* path_;
    unique_fd fd_;
    bool made_;
};

// A flush cannot be ended early, so that most bytes go to the disk before it, in pieces. What cannot be flushed so is
// left to the flush of the whole.
int flush_in_pieces(warm_merge_t* merge, int fd, warm_rc_t* rc) {
#ifdef SYNC_FILE_RANGE_WRITE
    constexpr uint64_t PIECE = 4 << 20;
    constexpr unsigned AND_WAIT = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    const uint64_t end = merge->stop.asked == nullptr ? 0 : merge->totals.target_bytes;
    for (uint64_t at = 0; at < end; at += PIECE) {
        ST_TRY(merge->stop.ask(rc));
        const int status = os_retry([&] { return ::sync_file_range(fd, static_cast<off_t>(at), PIECE, AND_WAIT); });
        if (status == 0) continue;
        // An error of the disk may be told only once.
        if (errno == ENOSYS || errno == EINVAL || errno == ESPIPE) return 0;
        return _set_rc_msg(rc, WARM_RC_WRITE, "flushing a slice");
    }
#endif
    return merge->stop.ask(rc);
}

}  // namespace

int merge_target_make(warm_merge_t* merge, const char* path, bool durable, warm_rc_t* rc) {
    merged_lexicon_t lexicon;
    ST_TRY(merge_lexicons(merge, &lexicon, rc));
    ST_TRY(plan_values(merge, rc));
    new_file file(path);
    if (!file.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, path);
    ST_TRY(fill_and_verify(merge, file.fd(), path, &lexicon, rc));
    if (durable) ST_TRY(flush_in_pieces(merge, file.fd(), rc));
    if (durable && os_retry([&] { return ::fdatasync(file.fd()); }) != 0)
        return _set_rc_msg(rc, WARM_RC_WRITE, "flushing a slice");
    return file.keep(rc);
}

}  // namespace veldar

#include "searchthing/upkeep/tsidx_merge_lex.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "searchthing/lexicon/fclex_io.h"
#include "searchthing/reading/tsidx_read.h"
#include "searchthing/reading/tsidx_snapshot_walk.h"
#include "searchthing/slice/warmslice_meta.h"

namespace veldar {

namespace {

constexpr uint32_t DEFAULT_TERMS_PER_BLOCK = 64;
constexpr uint32_t MAX_TERMS_PER_BLOCK = 0x40000;  // a block of the longest terms still fits a reader
constexpr uint64_t MIN_PAGE_SIZE = 9;
constexpr uint32_t COUNTS_BUFFERED = 16384;

struct warm_closer {
    void operator()(WARM* warm) const { st_warm_slice_close(warm); }
};

// A merged lexicon under its temporary name, which goes away with it unless it has been renamed.
class lexicon_file {
  public:
    explicit lexicon_file(TSIDX* tsidx)
        : tsidx_(tsidx),
          final_path_(tsidx->path + "/" + TSIDX_MERGED_LEXICON_NAME),
          path_(tsidx->path + "/" + TSIDX_MERGED_LEXICON_PART + std::to_string(st_warm_slice_unique_id(&tsidx->rng))) {}
    ~lexicon_file() {
        if (fd_.valid()) ::unlink(path_.c_str());
    }
    lexicon_file(const lexicon_file&) = delete;
    lexicon_file& operator=(const lexicon_file&) = delete;

    const std::string& final_path() const { return final_path_; }

    int create(uint32_t terms_per_block, uint64_t page_size, warm_rc_t* rc) {
        if (terms_per_block == 0) terms_per_block = tsidx_->opts.merge_terms_per_block;
        if (terms_per_block == 0) terms_per_block = DEFAULT_TERMS_PER_BLOCK;
        if (terms_per_block > MAX_TERMS_PER_BLOCK) {
            return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "terms per block of a merged lexicon");
        }
        if (page_size != 0 && page_size < MIN_PAGE_SIZE) {
            return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "page size of a merged lexicon");
        }
        fd_.reset(::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!fd_.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, path_.c_str());
        warm_header_init(&header_, "VelLex1");
        header_.d_nbits.set(1);
        int status = _lex_writer_open(false, &terms_, terms_per_block, page_size, 0);
        if (status == 0) {
            status = _aw_open(&counts_, fd_.get(), _offset_metadata(&header_), sizeof(be32), COUNTS_BUFFERED);
        }
        return status == 0 ? 0 : _set_rc(rc, status);
    }

    int put(const char* term, size_t length, uint64_t events, warm_rc_t* rc) {
        be32 count;
        count.set(static_cast<uint32_t>(std::min<uint64_t>(events, std::numeric_limits<uint32_t>::max())));
        int status = _lex_writer_put(&terms_, term, length);
        if (status == 0) status = _aw_write(&counts_, &count, sizeof count);
        return status == 0 ? 0 : _set_rc_msg(rc, status, path_.c_str());
    }

    // Completes the file and gives it its name.
    int finish(warm_rc_t* rc) {
        const uint32_t terms = terms_._cursor;
        if (terms == 0) return _set_rc_msg(rc, WARM_RC_ZERO_TERMS, "no term for the merged lexicon");
        header_.num_terms.set(terms);
        if (const int status = _aw_close(&counts_)) return _set_rc_msg(rc, status, path_.c_str());
        ST_TRY(warm_header_write(fd_.get(), &header_, rc));
        uint64_t end;
        const int written = _lex_writer_close(false, &terms_, fd_.get(), _offset_fclex(&header_), &end);
        if (written != 0) return _set_rc_msg(rc, written, path_.c_str());
        ST_TRY(tsidx_flush(tsidx_, path_.c_str(), 0, rc));
        if (::rename(path_.c_str(), final_path_.c_str()) != 0) {
            return _set_rc_msg(rc, WARM_RC_WRITE, final_path_.c_str());
        }
        fd_.reset();
        return tsidx_flush(tsidx_, tsidx_->path.c_str(), O_DIRECTORY, rc);
    }

  private:
    const TSIDX* tsidx_;
    std::string final_path_, path_;
    unique_fd fd_;
    st_warm_slice_body header_;
    array_writer_t counts_;
    lex_writer_t terms_;
};

int count_slices(TSIDX* tsidx, size_t* slices) {
    tsidx_snapshot snapshot(tsidx);
    ST_TRY(snapshot.take());
    *slices = snapshot.size();
    return 0;
}

struct merge_walk {
    lexicon_file* file;
    warm_rc_t* rc;
};

int put_merged(const char* term, size_t length, uint64_t count, void* context) {
    const auto* walk = static_cast<merge_walk*>(context);
    return walk->file->put(term, length, count, walk->rc) == 0 ? 0 : -1;
}

int merge(TSIDX* tsidx, uint32_t min_src_count, uint32_t terms_per_block, uint64_t page_size, warm_rc_t* rc) {
    size_t slices = 0;
    ST_TRY(tsidx_begin_read(tsidx));
    if (const int status = count_slices(tsidx, &slices)) return _cpy_rc(rc, &tsidx->last_failure), status;
    if (slices < 2) return _set_rc(rc, WARM_RC_FEW_SLICES);
    if (slices < min_src_count) return _set_rc(rc, WARM_RC_FEW_SOURCES);
    lexicon_file file(tsidx);
    ST_TRY(file.create(terms_per_block, page_size, rc));
    merge_walk walk{&file, rc};
    rc->warm_rc = 0;
    const int64_t walked = st_tsidx_distinct_apply_terms(tsidx, nullptr, put_merged, &walk);
    if (rc->warm_rc != 0) return rc->warm_rc;
    if (walked != 0) return _cpy_rc(rc, &tsidx->last_failure), static_cast<int>(walked);
    return file.finish(rc);
}

struct filter_walk {
    lexicon_file* file;
    WARM* warm;
    uint32_t min_events;
    warm_rc_t* rc;
};

int put_frequent(int32_t id, const char* term, size_t length, void* context) {
    const auto* walk = static_cast<filter_walk*>(context);
    uint32_t events = 0;
    if (get_meta_count(walk->warm, static_cast<uint32_t>(id), nullptr, &events, walk->rc) != 0) return -1;
    if (events < walk->min_events) return 0;
    return walk->file->put(term, length, events, walk->rc) == 0 ? 0 : -1;
}

int filter(TSIDX* tsidx, uint32_t terms_per_block, uint64_t page_size, uint32_t min_events, warm_rc_t* rc) {
    lexicon_file file(tsidx);
    const std::unique_ptr<WARM, warm_closer> warm(st_warm_slice_open_rdonly(file.final_path().c_str(), rc));
    if (warm == nullptr) return rc->warm_rc;
    if (!st_warm_slice_has_fclex(warm.get())) return _set_rc_msg(rc, WARM_RC_MINIFIED, file.final_path().c_str());
    ST_TRY(file.create(terms_per_block, page_size, rc));
    filter_walk walk{&file, warm.get(), min_events, rc};
    rc->warm_rc = 0;
    const int64_t walked = st_fclex_apply(warm->lexicon, nullptr, put_frequent, &walk, nullptr);
    if (rc->warm_rc != 0) return rc->warm_rc;
    if (walked != 0) return _set_rc_msg(rc, static_cast<int>(walked), file.final_path().c_str());
    return file.finish(rc);
}

}  // namespace

int st_tsidx_merge_lex_n(TSIDX* tsidx, uint32_t min_src_count, uint32_t terms_per_block, uint64_t page_size,
                         warm_rc_t* rc) {
    ST_ASSERT(tsidx != nullptr && rc != nullptr);
    try {
        return merge(tsidx, min_src_count, terms_per_block, page_size, rc);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

int st_tsidx_filter_merged_lex(TSIDX* tsidx, uint32_t terms_per_block, uint64_t page_size, uint32_t min_events,
                               warm_rc_t* rc) {
    ST_ASSERT(tsidx != nullptr && rc != nullptr);
    try {
        return filter(tsidx, terms_per_block, page_size, min_events, rc);
    } catch (const std::bad_alloc&) {
        return _set_rc(rc, WARM_RC_NO_MEMORY);
    }
}

}  // namespace veldar

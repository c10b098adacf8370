#include "searchthing/slice/warmslice.h"

#include <errno.h>
#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include "libzero/assertions.h"
#include "libzero/osfile.h"
#include "searchthing/columns/cstore.h"
#include "searchthing/columns/dimset_io.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/slice/warmslice_values.h"

namespace veldar {

namespace {

// Ends a handle on the failure paths of an open, where the descriptor may still be the caller's.
struct warm_disposer {
    void operator()(WARM* warm) const {
        term_meta_reader_close(&warm->meta_reader);
        tsval_reader_close(&warm->tsval_reader);
        if (warm->lexicon != nullptr) st_fclex_close(warm->lexicon);
        delete warm;
    }
};
using warm_owner = std::unique_ptr<WARM, warm_disposer>;

// A slice whose name says nothing covers all time.
constexpr st_filename_metadata_t ALL_TIME = {.earliest = std::numeric_limits<st_time_t>::min(),
                                             .latest = std::numeric_limits<st_time_t>::max()};

uint64_t round_up_4(uint64_t size) {
    return (size + 3) & ~uint64_t{3};
}

int check_path(const char* path, warm_rc_t* rc) {
    if (path == nullptr) return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "filename != nullptr");
    return *path != '\0' ? 0 : _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "*filename != '\\0'");
}

int parse_name(const char* path, st_filename_metadata_t* meta, warm_rc_t* rc) {
    *meta = ALL_TIME;
    if (!std::string_view(path).ends_with(TSIDX_SUFFIX)) return 0;
    return st_tsidx_file_parse(path, meta) == 1 ? 0 : _set_rc_msg(rc, WARM_RC_FILE_NAME, "parsing filename");
}

warm_owner new_handle(const st_filename_metadata_t& meta, warm_rc_t* rc) {
    warm_owner warm(new (std::nothrow) WARM);
    if (warm == nullptr) {
        _set_rc(rc, WARM_RC_NO_MEMORY);
        return nullptr;
    }
    xorshift128plus_init(&warm->rng);
    warm->fname_meta = meta;
    return warm;
}

// Section offsets can only be computed from a header that passes this.
int check_counts(const st_warm_slice_body* header, warm_rc_t* rc) {
    return tsval_counts_agree(header) ? 0 : _set_rc_msg(rc, WARM_RC_CORRUPT, "more preambles than values");
}

// The size of all posting lists; an entry of all-ones is no size.
int read_plo_last(WARM* warm, const st_warm_slice_body* header, int fd, warm_rc_t* rc) {
    if (header->num_postings.get() == 0) return 0;
    warm->plo_last = warm_header_posting_lists_size(header, fd, rc);
    return rc->warm_rc;
}

// What the lexicon's opening and measuring left in errno, 0 before them, tells a failed call from a damaged lexicon.
int lexicon_unusable(warm_rc_t* rc, const char* what) {
    const int status = errno == ENOMEM ? WARM_RC_NO_MEMORY : errno != 0 ? WARM_RC_READ : WARM_RC_NO_LEXICON;
    return _set_rc_msg(rc, status, what);
}

// Checks the reverse lexicon at `offset` in the file and tells its size.
int check_reverse_lexicon(int fd, uint64_t offset, uint32_t num_terms, uint64_t* size, warm_rc_t* rc) {
    errno = 0;
    const fclex_ptr reverse(st_fclex_open_fd(fd, static_cast<int64_t>(offset)));
    if (reverse == nullptr) return lexicon_unusable(rc, "reverse lexicon");
    *size = st_fclex_size(reverse.get());
    if (*size == 0) return lexicon_unusable(rc, "size is 0");
    if (st_fclex_terms(reverse.get()) != num_terms) return _set_rc_msg(rc, WARM_RC_FAILED, "reverse num terms");
    return 0;
}

int open_lexicon_from_file(WARM* warm, const st_warm_slice_body* header, int fd, warm_rc_t* rc) {
    const uint64_t offset = _offset_fclex(header);
    const uint32_t num_terms = header->num_terms.get();
    errno = 0;
    warm->lexicon = st_fclex_open_fd(fd, static_cast<int64_t>(offset));
    if (warm->lexicon == nullptr) return lexicon_unusable(rc, "forward lexicon");
    warm->lexicon_size = st_fclex_size(warm->lexicon);
    if (warm->lexicon_size == 0) return lexicon_unusable(rc, "size is 0");
    warm->postings_base = offset + warm->lexicon_size;
    if (_has_reverse_lex(header)) {
        const uint64_t reverse_offset = offset + round_up_4(warm->lexicon_size);
        uint64_t reverse_size = 0;
        ST_TRY(check_reverse_lexicon(fd, reverse_offset, num_terms, &reverse_size, rc));
        warm->postings_base = reverse_offset + reverse_size;
    }
    if (st_fclex_terms(warm->lexicon) != num_terms) return _set_rc_msg(rc, WARM_RC_NO_LEXICON, "num terms mismatch");
    return 0;
}

// A file that ends where the posting-list offsets would begin: values and companions, no terms and no lists.
int _populate_warm_handle_mini(WARM* warm, uint8_t* slice, warm_rc_t* rc) {
    warm->lexicon = nullptr;
    warm->plo = warm->metadata = nullptr;
    warm->postings_base = 0;
    warm->plo_last = ~uint64_t{0};
    return _populate_warm_handle_common(warm, slice, rc);
}

int populate_rdonly(WARM* warm, int fd, warm_rc_t* rc) {
    if (osfile_get_size(fd, &warm->file_size) != 0) return _set_rc(rc, WARM_RC_FILE_SIZE);
    st_warm_slice_body header;
    ST_TRY(warm_header_read(fd, &header, rc));
    ST_TRY(check_counts(&header, rc));
    const uint64_t plo_offset = _offset_pl_offs(&header);
    if (plo_offset > warm->file_size) return _set_rc_msg(rc, WARM_RC_NO_SECTION, "posting-list offsets");
    const bool mini = plo_offset == warm->file_size;
    uint64_t mapped = plo_offset;
    if (!mini) {
        // The lexicon comes before the mapping: it lies behind the mapped sections, so a file that ends inside them
        // is refused by a read and never mapped.
        ST_TRY(read_plo_last(warm, &header, fd, rc));
        ST_TRY(open_lexicon_from_file(warm, &header, fd, rc));
        mapped = _offset_metadata(&header);
    }
    if (!warm->map.map(fd, static_cast<size_t>(mapped), false)) return _set_rc(rc, WARM_RC_MAP);
    if (std::memcmp(warm->map.data(), &header, warm_header_size_on_disk(&header)) != 0) {
        return _set_rc_msg(rc, WARM_RC_BAD_MAGIC, "header changed while it was opened");
    }
    if (mini) return _populate_warm_handle_mini(warm, warm->map.data(), rc);
    warm->plo = warm->map.data() + plo_offset;
    return _populate_warm_handle_common(warm, warm->map.data(), rc);
}

// The header of a mapped file, checked for size and magic.
int check_mapped_header(std::span<const uint8_t> file, warm_rc_t* rc) {
    st_warm_slice_body header = {};
    std::memcpy(&header, file.data(), std::min(file.size(), sizeof header));
    if (!verify_magic(&header)) return _set_rc_msg(rc, WARM_RC_BAD_MAGIC, "header magic wrong");
    if (file.size() < sizeof header) return _set_rc_msg(rc, WARM_RC_SHORT_READ, "reading warm header");
    return check_counts(&header, rc);
}

// Opens a lexicon in the mapping and tells its size, which lies inside the file.
int open_mapped_lexicon(std::span<const uint8_t> bytes, const char* what, fclex_ptr* lexicon, uint64_t* size,
                        warm_rc_t* rc) {
    lexicon->reset(_fclex_open_bounded(bytes));
    if (*lexicon == nullptr) return _set_rc_msg(rc, WARM_RC_NO_MEMORY, what);
    *size = st_fclex_size(lexicon->get());
    if (*size == 0 || *size > bytes.size()) return _set_rc_msg(rc, WARM_RC_CORRUPT, what);
    return 0;
}

bool begins_with_terms(std::span<const uint8_t> bytes, const st_warm_slice_body* header) {
    return bytes.size() >= sizeof(be32) && load_be32(bytes.data()) == header->num_terms.get();
}

int open_lexicon_in_map(WARM* warm, warm_rc_t* rc) {
    const std::span<const uint8_t> file = warm->map.bytes();
    const uint64_t offset = _offset_fclex(warm->body);
    const std::span<const uint8_t> body = file.subspan(static_cast<size_t>(offset));
    if (!begins_with_terms(body, warm->body)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "num terms mismatch");
    fclex_ptr forward;
    ST_TRY(open_mapped_lexicon(body, "forward idx", &forward, &warm->lexicon_size, rc));
    warm->postings_base = offset + warm->lexicon_size;
    if (_has_reverse_lex(warm->body)) {
        const uint64_t reverse_start = round_up_4(warm->lexicon_size);
        const bool inside = reverse_start <= body.size();
        const std::span<const uint8_t> rest =
            inside ? body.subspan(static_cast<size_t>(reverse_start)) : std::span<const uint8_t>();
        if (!begins_with_terms(rest, warm->body)) return _set_rc_msg(rc, WARM_RC_CORRUPT, "reverse num terms");
        fclex_ptr reverse;
        uint64_t reverse_size = 0;
        ST_TRY(open_mapped_lexicon(rest, "reverse idx", &reverse, &reverse_size, rc));
        warm->postings_base = offset + reverse_start + reverse_size;
    }
    warm->lexicon = forward.release();
    return 0;
}

int populate_rdwr(WARM* warm, int fd, warm_rc_t* rc) {
    if (osfile_get_size(fd, &warm->file_size) != 0) return _set_rc(rc, WARM_RC_FILE_SIZE);
    if (warm->file_size == 0) return _set_rc(rc, WARM_RC_EMPTY_FILE);
    if (!warm->map.map(fd, static_cast<size_t>(warm->file_size), true)) return _set_rc(rc, WARM_RC_MAP);
    ST_TRY(check_mapped_header(warm->map.bytes(), rc));
    uint8_t* slice = warm->map.data();
    warm->body = reinterpret_cast<st_warm_slice_body*>(slice);
    warm->writable = true;
    const uint64_t plo_offset = _offset_pl_offs(warm->body);
    if (plo_offset == warm->file_size) return _populate_warm_handle_mini(warm, slice, rc);
    if (_offset_fclex(warm->body) > warm->file_size) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "forward_body offset is beyond file size");
    }
    ST_TRY(_populate_warm_handle_common(warm, slice, rc));
    warm->plo = slice + plo_offset;
    warm->metadata = slice + _offset_metadata(warm->body);
    if (const int status = read_plo_last(warm, warm->body, fd, rc); status != 0) {
        return warm_status_is_of_system(status) ? status : _set_rc_msg(rc, WARM_RC_CORRUPT, "plo last term");
    }
    const bool has_lists = warm->plo_last != ~uint64_t{0};
    if (has_lists && warm->plo_last > warm->file_size) {
        return _set_rc_msg(rc, WARM_RC_CORRUPT, "plo_last_term is beyond file size");
    }
    return open_lexicon_in_map(warm, rc);
}

}  // namespace

int _populate_warm_handle_common(WARM* warm, uint8_t* slice, warm_rc_t* rc) {
    st_warm_slice_body* body = reinterpret_cast<st_warm_slice_body*>(slice);
    const uint8_t* values = slice + _offset_values(body);
    if (const int status = tsval_reader_open_partial(&warm->tsval_reader, -1, body, 0, nullptr, values, rc)) {
        return _set_rc_msg(rc, status, "_populate_warm_handle_common failed");
    }
    tsval_reader_set_companions(&warm->tsval_reader, slice);
    warm->body = body;
    warm->m_array = slice + _offset_m_array(body);
    warm->s_array = slice + _offset_s_array(body);
    warm->st_array = slice + _offset_st_array(body);
    warm->h_array = slice + _offset_h_array(body);
    warm->d_array = slice + _offset_d_array(body);
    warm->pl_wide = _get_plo_size(body) == 8;
    const bool without_columns = st_warm_slice_is_msidx_v1(body) || st_warm_slice_is_msidx_v2(body);
    warm->slice_kind = without_columns ? 0 : 2;
    warm->has_subseconds = warm_header_is_enabled(body, WARM_FLAG_MS_PRESENT);
    warm->ms_requested = warm_header_is_enabled(body, WARM_FLAG_MS_REQUESTED);
    return _set_rc(rc, 0);
}

WARM* st_warm_slice_open_rdonly_from_fd(int fd, const st_filename_metadata_t* fname_meta, warm_rc_t* rc) {
    ST_ASSERT(rc);
    _set_rc(rc, 0);
    warm_owner warm = new_handle(fname_meta != nullptr ? *fname_meta : ALL_TIME, rc);
    if (warm == nullptr || populate_rdonly(warm.get(), fd, rc) != 0) return nullptr;
    warm->fd.reset(fd);
    return warm.release();
}

WARM* warm_slice_open_named(const char* path, const st_filename_metadata_t& fname_meta, warm_rc_t* rc) {
    unique_fd fd = osfile_open_regular(path, O_RDONLY);
    if (!fd.valid()) {
        _set_rc(rc, WARM_RC_OPEN);
        return nullptr;
    }
    WARM* warm = st_warm_slice_open_rdonly_from_fd(fd.get(), &fname_meta, rc);
    if (warm != nullptr) static_cast<void>(fd.release());
    return warm;
}

WARM* st_warm_slice_open_rdonly(const char* path, warm_rc_t* rc) {
    ST_ASSERT(rc);
    if (check_path(path, rc) != 0) return nullptr;
    st_filename_metadata_t meta;
    if (parse_name(path, &meta, rc) != 0) return nullptr;
    return warm_slice_open_named(path, meta, rc);
}

WARM* st_warm_slice_open_rdwr(const char* path, warm_rc_t* rc) {
    ST_ASSERT(rc);
    _set_rc(rc, 0);
    if (check_path(path, rc) != 0) return nullptr;
    st_filename_metadata_t meta;
    if (parse_name(path, &meta, rc) != 0) return nullptr;
    warm_owner warm = new_handle(meta, rc);
    if (warm == nullptr) return nullptr;
    unique_fd fd = osfile_open_regular(path, O_RDWR);
    if (!fd.valid()) {
        _set_rc(rc, WARM_RC_OPEN);
        return nullptr;
    }
    if (populate_rdwr(warm.get(), fd.get(), rc) != 0) return nullptr;
    warm->fd = std::move(fd);
    return warm.release();
}

int st_warm_slice_close(WARM* handle, bool* still_open) {
    ST_ASSERT(handle != nullptr);
    if (still_open != nullptr) *still_open = false;
    term_meta_reader_close(&handle->meta_reader);
    tsval_reader_close(&handle->tsval_reader);
    if (handle->lexicon != nullptr) st_fclex_close(std::exchange(handle->lexicon, nullptr));
    if (handle->map.data() != nullptr) {
        ST_ASSERT(handle->map.data() == reinterpret_cast<uint8_t*>(handle->body));
        if (handle->map.sync() != 0) {
            if (still_open != nullptr) *still_open = true;
            return WARM_RC_FAILED;
        }
        const int retval = handle->map.unmap();
        ST_ASSERT(retval != -1);
    }
    const int result = handle->fd.close_checked();
    delete handle;
    return result;
}

void st_warm_slice_discard(WARM* handle) {
    ST_ASSERT(handle != nullptr);
    warm_disposer()(handle);
}

st_time_t st_warm_slice_latest(const WARM* warm) {
    return warm->fname_meta.latest;
}

st_time_t st_warm_slice_earliest(const WARM* warm) {
    return warm->fname_meta.earliest;
}

uint64_t st_warm_slice_size(const WARM* warm, warm_rc_t* rc) {
    ST_ASSERT(warm != nullptr);
    uint64_t size = 0;
    if (osfile_get_size(warm->fd.get(), &size) == 0) {
        _set_rc(rc, 0);
        return size;
    }
    _set_rc_msg(rc, WARM_RC_FILE_SIZE, "failed to get warmslice size");
    return 0;
}

uint32_t st_warm_slice_terms(const WARM* warm) {
    ST_ASSERT(warm != nullptr);
    ST_ASSERT(warm->body != nullptr);
    return warm->body->num_terms.get();
}

uint32_t st_warm_slice_values(const WARM* warm) {
    ST_ASSERT(warm != nullptr);
    ST_ASSERT(warm->body != nullptr);
    return warm->body->num_values.get();
}

uint32_t st_warm_slice_blocksize(const WARM* warm) {
    ST_ASSERT(warm != nullptr);
    return warm->lexicon == nullptr ? 0 : st_fclex_blocksize(warm->lexicon);
}

bool st_warm_slice_has_fclex(const WARM* warm) {
    return warm->lexicon != nullptr;
}

bool st_warm_slice_has_postings(const WARM* warm) {
    return warm->body->num_postings.get() != 0;
}

bool st_warm_slice_has_deletes(WARM* warm) {
    return warm_slice_count_deleted(warm) != 0;
}

uint64_t size_without_vardata(const WARM* warm) {
    return _offset_fclex(warm->body);
}

int64_t st_warm_slice_dimsets_offset(const WARM* warm, warm_rc_t* rc) {
    if (!st_warm_slice_is_msidx_with_dimsets(warm->body)) {
        _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "not a msidx v2 tsidx");
        return -1;
    }
    if (warm->lexicon_size == 0) {
        _set_rc_msg(rc, WARM_RC_NO_LEXICON, "size is 0");
        return -1;
    }
    const uint64_t postings_start = _offset_fclex(warm->body) + warm->lexicon_size;
    return static_cast<int64_t>(_offset_dimsets(warm->body, warm->fd.get(), postings_start, rc));
}

void warm_cstore_closer::operator()(cs_reader_t* cstore) const {
    delete cstore;
}

int64_t st_warm_slice_cstore_offset(const WARM* warm, warm_rc_t* rc) {
    if (!st_warm_slice_is_msidx_with_cstore(warm->body)) {
        _set_rc_msg(rc, WARM_RC_UNSUPPORTED, "not a msidx cstore tsidx");
        return -1;
    }
    _set_rc(rc, 0);
    const int64_t dimsets = st_warm_slice_dimsets_offset(warm, rc);
    if (dimsets == -1) {
        if (!warm_status_is_of_system(rc->warm_rc)) _set_rc_msg(rc, WARM_RC_NO_DIMSETS, "size is 0");
        return -1;
    }
    ds_header_t header;
    ST_TRY(ds_header_read(&header, warm->fd.get(), static_cast<uint64_t>(dimsets), rc));
    const uint64_t end = static_cast<uint64_t>(dimsets) + st_dimsets_size(header.dimsets(), header.words());
    return static_cast<int64_t>(_offset_cstore(end));
}

cs_reader_t* st_warm_slice_cstore(WARM* warm, warm_rc_t* rc) {
    _set_rc(rc, 0);
    if (warm->cstore != nullptr) return warm->cstore.get();
    const int64_t offset = st_warm_slice_cstore_offset(warm, rc);
    if (offset < 0) return nullptr;
    std::unique_ptr<cs_reader_t, warm_cstore_closer> cstore(new (std::nothrow) cs_reader_t);
    if (cstore == nullptr) {
        _set_rc(rc, WARM_RC_NO_MEMORY);
        return nullptr;
    }
    const auto cstore_ref = static_cast<int64_t>(warm->body->cstore_ref.get());
    if (cs_reader_open(cstore.get(), warm->fd.get(), static_cast<uint64_t>(offset), cstore_ref, rc) != 0) {
        return nullptr;
    }
    if (cstore->num_values != warm->body->num_values.get() || cstore->num_preambles != warm->body->num_dimsets.get()) {
        _set_rc_msg(rc, WARM_RC_CORRUPT, "cstore footer is corrupted");
        return nullptr;
    }
    warm->cstore = std::move(cstore);
    return warm->cstore.get();
}

}  // namespace veldar

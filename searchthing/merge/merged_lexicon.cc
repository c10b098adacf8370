#include "searchthing/merge/merged_lexicon.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "libzero/assertions.h"
#include "libzero/endian.h"
#include "libzero/osfile.h"
#include "libzero/vbe.h"
#include "searchthing/lexicon/term_choice.h"

namespace veldar {

namespace {

constexpr uint32_t DEFAULT_TERMS_PER_BLOCK = 64;
constexpr uint32_t MAX_TERMS_PER_BLOCK = 0x40000;  // a block of the longest terms still fits a reader
static_assert(MAX_TERMS_PER_BLOCK * uint64_t{ST_MAX_TERM_LENGTH + VBE_MAX_BYTES} <= uint64_t{1} << 30);
constexpr uint64_t MIN_PAGE_SIZE = 9;
static_assert(MIN_PAGE_SIZE == sizeof(uint64_t) + 1, "the free bytes of a page, and one");
constexpr uint32_t COUNTS_BUFFERED = 16384;

}  // namespace

merged_lexicon_file::~merged_lexicon_file() {
    if (fd_.valid()) ::unlink(path_.c_str());
}

int merged_lexicon_file::create(uint32_t terms_per_block, uint64_t page_size, warm_rc_t* rc) {
    if (terms_per_block == 0) terms_per_block = DEFAULT_TERMS_PER_BLOCK;
    if (terms_per_block > MAX_TERMS_PER_BLOCK) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "terms per block of a merged lexicon");
    }
    if (page_size != 0 && page_size < MIN_PAGE_SIZE) {
        return _set_rc_msg(rc, WARM_RC_INVALID_ARGUMENT, "page size of a merged lexicon");
    }
    fd_.reset(os_retry([&] { return ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600); }));
    if (!fd_.valid()) return _set_rc_msg(rc, WARM_RC_OPEN, path_.c_str());
    warm_header_init(&header_, "VelLex1");
    header_.d_nbits.set(1);
    int status = _lex_writer_open(false, &terms_, terms_per_block, page_size, 0);
    if (status == 0) {
        status = _aw_open(&counts_, fd_.get(), _offset_metadata(&header_), sizeof(be32), COUNTS_BUFFERED);
    }
    return status == 0 ? 0 : _set_rc(rc, status);
}

int merged_lexicon_file::put(std::string_view term, uint64_t events, warm_rc_t* rc) {
    be32 count;
    count.set(static_cast<uint32_t>(std::min<uint64_t>(events, std::numeric_limits<uint32_t>::max())));
    const uint32_t terms = terms_._cursor;
    int status = _lex_writer_put(&terms_, term.data(), term.size());
    // The writer leaves out a term that a damaged lexicon has twice; its count would be taken for the next one's.
    if (status == 0 && terms_._cursor == terms) status = WARM_RC_INVALID_ARGUMENT;
    if (status == 0) status = _aw_write(&counts_, &count, sizeof count);
    return status == 0 ? 0 : _set_rc_msg(rc, status, path_.c_str());
}

int merged_lexicon_file::finish(warm_rc_t* rc) {
    const uint32_t terms = terms_._cursor;
    if (terms == 0) return _set_rc_msg(rc, WARM_RC_ZERO_TERMS, "no term for the merged lexicon");
    ST_ASSERT(uint64_t{counts_.written} + counts_.buffered == terms);
    header_.num_terms.set(terms);
    if (const int status = _aw_close(&counts_)) return _set_rc_msg(rc, status, path_.c_str());
    ST_TRY(warm_header_write(fd_.get(), &header_, rc));
    uint64_t end;
    const int written = _lex_writer_close(false, &terms_, fd_.get(), _offset_fclex(&header_), &end);
    return written == 0 ? 0 : _set_rc_msg(rc, written, path_.c_str());
}

int merged_lexicon_file::rename_to(const std::string& path, warm_rc_t* rc) {
    if (std::rename(path_.c_str(), path.c_str()) != 0) return _set_rc_msg(rc, WARM_RC_WRITE, path.c_str());
    fd_.reset();
    return 0;
}

}  // namespace veldar

// dictscan: prints the terms of one slice that a "*" pattern matches, with their ids and event counts.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "libzero/ospath-builder.h"
#include "searchthing/base/st_init.h"
#include "searchthing/base/timed_read.h"
#include "searchthing/lexicon/fclex.h"
#include "searchthing/lexicon/matcher.h"
#include "searchthing/slice/warmslice.h"
#include "searchthing/slice/warmslice_meta.h"

using namespace veldar;

namespace {

// Standard output, formatted by hand: printf would cost more than the rest of the scan. As with printf, a terminal gets
// each line when it is complete, anything else gets full buffers, and what cannot be written is dropped.
class line_output {
  public:
    line_output() : terminal_(::isatty(STDOUT_FILENO) == 1) {}

    void needle(std::string_view text) {
        append("my needle: ");
        append(text);
        end_line();
    }

    void term(int32_t id, uint32_t count, std::string_view text) {
        if (sizeof data_ - used_ < LONGEST_TERM_LINE) flush();
        used_ += convertI32ToAscii(data_ + used_, id);
        data_[used_++] = ' ';
        used_ += convertU32ToAscii(data_ + used_, count);
        data_[used_++] = ' ';
        std::memcpy(data_ + used_, text.data(), text.size());
        used_ += text.size();
        end_line();
    }

    void flush() {
        if (!failed_) failed_ = st_file_write(STDOUT_FILENO, data_, static_cast<int64_t>(used_)) != 0;
        used_ = 0;
    }

  private:
    static constexpr size_t LONGEST_TERM_LINE = 11 + 1 + 10 + 1 + ST_MAX_TERM_LENGTH + 1;

    void append(std::string_view text) {
        while (!text.empty()) {
            if (used_ == sizeof data_) flush();
            const size_t size = std::min(text.size(), sizeof data_ - used_);
            std::memcpy(data_ + used_, text.data(), size);
            used_ += size;
            text.remove_prefix(size);
        }
    }

    void end_line() {
        append("\n");
        if (terminal_) flush();
    }

    bool terminal_;
    bool failed_ = false;
    size_t used_ = 0;
    char data_[65536];
};

struct scan_context {
    OpaqueMatcher_T* matcher;
    WARM* warm;
    line_output* out;
};

int print_if_matching(int32_t id, const char* term, size_t, void* opaque) {
    auto* context = static_cast<scan_context*>(opaque);
    if (isMatch(term, context->matcher) == 0) return 0;
    uint32_t count = 0;
    warm_rc_t rc;
    if (get_meta_count(context->warm, static_cast<uint32_t>(id), nullptr, &count, &rc) != 0) {
        context->out->flush();
        std::fprintf(stderr, "ERROR: couldn't get count for term=%s tid=%d wrc=%i msg=%s\n", term, id, rc.warm_rc,
                     rc.message);
        return 0;
    }
    context->out->term(id, count, term);
    return 0;
}

// The engine refuses an empty path as an argument; to the user it is a file that does not exist.
WARM* open_slice(const char* path, warm_rc_t* rc) {
    if (*path != '\0') return st_warm_slice_open_rdonly(path, rc);
    _set_rc_and_errno(rc, WARM_RC_OPEN, ENOENT);
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <index>.tsidx substring\n", argc > 0 ? argv[0] : "dictscan");
        return 1;
    }
    const char* path = argv[1];
    const char* needle = argv[2];
    st_init("dictscan");

    warm_rc_t rc;
    WARM* warm = open_slice(path, &rc);
    if (warm == nullptr) {
        std::fprintf(stderr, "ERROR: unable to open %s wrc=[%i,%ld]\n", path, rc.warm_rc,
                     static_cast<long>(rc.saved_errno));
        return 1;
    }
    static line_output out;
    out.needle(needle);
    OpaqueMatcher_T* matcher = createMatcher(needle);
    if (matcher == nullptr) {
        out.flush();
        std::fputs("ERROR: unable to compile the needle: out of memory\n", stderr);
        return 1;
    }
    static scan_context context;  // reachable until the end, when the process gives both back
    context = {matcher, warm, &out};
    fclex_apply_holding(warm->lexicon, nullptr, getLongestPiece(matcher), print_if_matching, &context, nullptr);
    out.flush();
    return 0;
}

// Feeds a lexicon body to every reader, in memory and from a file. Under libFuzzer run it with -close_fd_mask=2: the
// engine reports unreadable offsets on standard error.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "searchthing/lexicon/fclex.h"

using namespace veldar;

namespace {

constexpr uint32_t MAX_VISITS = 4096;  // a few bytes can claim thousands of terms

int remember(int32_t, const char* term, size_t length, void* context) {
    auto* terms = static_cast<std::vector<std::string>*>(context);
    if (length > ST_MAX_TERM_LENGTH || term[length] != '\0') std::abort();
    terms->emplace_back(term, length);
    return terms->size() < MAX_VISITS ? 1 : -1;
}

std::vector<std::string> use(FCLEX* lex) {
    std::vector<std::string> terms;
    st_fclex_apply(lex, nullptr, remember, &terms, nullptr);
    for (size_t i = 0; i < terms.size(); i += terms.size() / 8 + 1) {
        warm_rc_t rc;
        uint32_t id = 0;
        char text[ST_TERM_BUFFER_SIZE];
        if (st_fclex_get_term_from_id(lex, static_cast<uint32_t>(i), text, sizeof text, nullptr, &rc) == 0 &&
            terms[i] != std::string(text, terms[i].size())) {
            std::abort();
        }
        static_cast<void>(_fclex_get_with_status(lex, terms[i].c_str(), &id, nullptr, &rc));
        std::vector<std::string> prefixed;
        st_fclex_apply(lex, terms[i].substr(0, 2).c_str(), remember, &prefixed, nullptr);
    }
    static st_enum_answer answers[4];
    st_fclex_enum(lex, "a", answers, 4, true);
    st_fclex_size(lex);
    return terms;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> body(data, data + size);
    std::vector<std::string> from_memory, from_file;
    FCLEX* memory = _fclex_open_bounded(body);
    if (memory != nullptr) from_memory = use(memory);

    unique_fd fd(::memfd_create("lexicon", MFD_CLOEXEC));
    if (::write(fd.get(), data, size) != static_cast<ssize_t>(size)) std::abort();
    FCLEX* file = st_fclex_open_fd(fd.get(), 0);
    if (file != nullptr) from_file = use(file);

    // A file may refuse a block that memory accepts (one larger than its cache), and nothing else.
    if (memory != nullptr && file != nullptr && from_file.size() > from_memory.size()) std::abort();
    for (size_t i = 0; memory != nullptr && i < from_file.size(); i++) {
        if (from_file[i] != from_memory[i]) std::abort();
    }
    st_fclex_close(memory);
    st_fclex_close(file);
    return 0;
}

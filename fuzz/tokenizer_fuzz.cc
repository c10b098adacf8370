// Feeds a bracket text to the tokenizer, to the check of queries, and to a search over a small slice in memory. The
// first byte chooses the token case and the search's options.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "searchthing/search_frames.h"
#include "searchthing/warmslice_search.h"
#include "tools/veldar/index_writer.h"
#include "tools/veldar/progress.h"
#include "tools/veldar/slices.h"

using namespace veldar;

namespace {

void read_tokens(const std::string& text, token_case_t token_case) {
    tokenizer_t tokenizer;
    const size_t length = init_tokenizer(&tokenizer, text.c_str(), token_case);
    char token[TOKEN_CAPACITY];
    size_t position = 0, before = 0;
    token_type_t type;
    for (int got; (got = next_token(&tokenizer, token, sizeof token, &position, &type)) > 0; before = position + 1) {
        if (token[got] != '\0' || position < before || position >= length) std::abort();
    }
}

// A slice of a few hundred events; its file is gone when this returns.
warm_ptr make_slice() {
    std::string directory = std::filesystem::temp_directory_path() / "veldar-fuzz-XXXXXX";
    if (::mkdtemp(directory.data()) == nullptr) std::abort();
    index_writer writer;
    index_writer_open(&writer, directory, 4, false, index_limits{300, 1 << 16, 4096, 1024}, false);
    for (uint32_t i = 0; i < 300; i++) {
        const std::string number = "n::" + std::to_string(i % 40), letter(1, static_cast<char>('a' + i % 7));
        const std::vector<std::string_view> terms = {number, letter, i % 3 == 0 ? "host::x" : "ab"};
        st_txn txn;
        txn.time = static_cast<st_time_t>(i / 2);
        txn.address = i;
        if (!index_writer_put(&writer, txn, terms)) std::abort();
    }
    index_writer_close(&writer);
    warm_rc_t rc;
    warm_ptr warm(st_warm_slice_open_rdonly((directory + "/" + slice_names(directory).at(0)).c_str(), &rc));
    std::filesystem::remove_all(directory);
    if (warm == nullptr) std::abort();
    return warm;
}

// A count and a search that agree, or the same status from both.
void search(const std::string& text, token_case_t token_case, uint8_t options, int valid) {
    static const warm_ptr warm = make_slice();
    st_query_spec query;
    st_query_init(&query);
    query.earliest = {options & 4 ? 20 : INT32_MIN, 0};
    query.latest = {options & 8 ? 130 : INT32_MAX, 0};
    query.opt_a = options >> 6;
    query.token_case = token_case;
    query.lispy = text.c_str();
    st_tsval answers[300];
    uint64_t count = 0;
    warm_rc_t rc;
    const int found = st_warm_slice_search(warm.get(), &query, answers, 300, true);
    const int status = warm_slice_count(warm.get(), &query, &count, nullptr, &rc);
    if (found >= 0 ? status != 0 || count != static_cast<uint64_t>(found) : status != found) std::abort();
    if (found >= 0 && valid != 0) std::abort();
    for (int i = 1; i < found; i++) {
        if (answers[i].time > answers[i - 1].time) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const auto token_case = static_cast<token_case_t>(data[0] % 3);
    read_tokens(text, token_case);
    size_t position = 0;
    const int valid = validate_query_text(text.c_str(), token_case, &position);
    if (valid != 0 && position > text.size()) std::abort();
    search(text, token_case, data[0], valid);
    return 0;
}

// Query texts of arbitrary bytes in every token case: checked alone, then searched over a slice. The text is malformed
// in both or in neither.
#include <algorithm>
#include <string>

#include "fuzz/slice_walk.h"
#include "searchthing/search/query.h"
#include "searchthing/search/tokenizer.h"

using namespace veldar;

namespace {

WARM* open_slice() {
    warm_rc_t rc;
    WARM* warm = st_warm_slice_open_rdonly(VELDAR_SOURCE_DIR "/fuzz/corpus/slice/flags", &rc);
    walk_require(warm != nullptr);
    return warm;
}

void check_tokens(const char* text, token_case_t token_case) {
    tokenizer_t tokenizer;
    const size_t length = init_tokenizer(&tokenizer, text, token_case);
    char token[TOKEN_CAPACITY];
    size_t position = 0;
    token_type_t type = T_END;
    for (size_t last = 0;; last = tokenizer._pos) {
        const int size = next_token(&tokenizer, token, sizeof token, &position, &type);
        if (size < 0) break;
        walk_require(std::char_traits<char>::length(token) == static_cast<size_t>(size));
        walk_require(position >= last && tokenizer._pos > position && tokenizer._pos <= length);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static WARM* const warm = open_slice();
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    for (const token_case_t token_case : {TOKEN_CASE_ASIS, TOKEN_CASE_BLANK_PREFIX, TOKEN_CASE_LOWER}) {
        check_tokens(bytes.c_str(), token_case);
        size_t position = 0;
        const int status = validate_query_text(bytes.c_str(), token_case, &position);
        walk_require(position <= bytes.size() && walk_parse(bytes.c_str(), token_case) == status);
        st_query_spec query;
        st_query_init(&query);
        query.latest = {INT32_MAX, 0};
        query.lispy = bytes.c_str();
        query.token_case = token_case;
        st_tsval answers[8];
        const int found = st_warm_slice_search(warm, &query, answers, 8, true);
        // A field name can be too long for a lexicon that the text alone does not know.
        walk_require(status != 0 ? found == status : found >= 0 || found == WARM_RC_FAILED);
        if (status == 0) walk_query(warm, bytes.c_str(), token_case);
    }
    return 0;
}

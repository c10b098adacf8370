// Feeds a query to the translation: it is refused with a position in the text, or every plan is valid bracket notation
// and its checks can be run on any record.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "searchthing/search/query.h"
#include "tools/libveldar/query/query_language.h"
#include "tools/veldar/output/highlight.h"

using namespace veldar;
using namespace veldar::tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string scratch;
    try {
        const std::vector<query_plan> plans = translate_query(text);
        for (const query_plan& plan : plans) {
            if (validate_query_text(plan.native.c_str(), TOKEN_CASE_ASIS, nullptr) != 0) std::abort();
            const bool passes = record_passes(plan, text, &scratch);
            if (!plan.needs_raw() && !passes) std::abort();
        }
        highlight_put(highlight_of(plans), text, true, &scratch);
    } catch (const query_error& error) {
        if (error.position > size || error.expected.empty()) std::abort();
        explain_query_error(text, error);
    }
    return 0;
}

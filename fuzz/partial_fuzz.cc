// Streams of partial answers, which come from other machines: the bytes up to the last line, whose hash is made right.
// What is read is merged, written and read again, and comes out the same; and all that can be told of it is told.
#include <fmt/format.h>
#include <xxhash.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "tools/libveldar/partial/partial_merge.h"
#include "tools/libveldar/store/failure.h"

using namespace veldar;
using namespace veldar::tool;

namespace {

merged_answer merge_one(std::string_view bytes) {
    std::vector<named_partial> answers(1);
    std::string fault;
    if (!partial_take(&bytes, &answers[0].answer, &fault)) std::abort();
    return partials_merge(std::move(answers));
}

std::string written(const merged_answer& answer) {
    std::string out;
    merged_write(answer, [&](std::string_view bytes) { out.append(bytes); });
    return out;
}

// Reads every record once more behind the last one, as a view that holds them does.
void read_again(const merged_answer& answer) {
    merged_cursor cursor = merged_open(answer);
    std::vector<merged_place> places;
    for (merged_place place; merged_next(&cursor, &place);) places.push_back(place);
    for (const merged_place& place : places) {
        merged_again(&cursor, place);
        if (answer.asked.kind == "search" && merged_event(&cursor, place).origin.empty()) std::abort();
    }
}

void tell(const merged_answer& answer) {
    const std::string& kind = answer.asked.kind;
    if (kind == "stats" || kind == "metric-stats") {
        stats_result result;
        merged_stats(answer, &result);
    } else if (kind == "search" || kind == "samples") {
        read_again(answer);
    } else if (kind != "count") {
        merged_terms(answer, [](std::string_view, const term_totals_t&) { return true; });
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string stream(reinterpret_cast<const char*>(data), size);
    stream += fmt::format("end {:016x}\n", XXH64(data, size, 0));
    std::string_view rest = stream;
    partial first;
    std::string fault;
    if (!partial_take(&rest, &first, &fault)) return 0;
    try {
        const std::string once = written(merge_one(stream));
        const merged_answer again = merge_one(once);
        if (written(again) != once) std::abort();
        tell(again);
    } catch (const failure_t&) {  // a question that cannot be, a table that is none
    }
    return 0;
}

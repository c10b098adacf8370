#include "searchthing/hot/hotslice_terms.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace veldar {

bool hot_terms_allocate(hot_terms_t& table, uint32_t max_terms, uint32_t text_bytes) {
    table.capacity = max_terms;
    table.mask = 2 * max_terms - 1;
    table.text_capacity = text_bytes;
    return table.text.alloc(text_bytes + sizeof(uint64_t)) && table.terms.alloc(max_terms) &&
           table.slots.alloc(uint64_t{2} * max_terms);
}

void hot_terms_clear(hot_terms_t& table) {
    if (table.count < table.slots.size() / 64) {
        hot_remove_newest_terms(table, 0);
    } else {
        table.slots.clear();
        table.count = 0;
        table.text_used = 0;
    }
}

hot_new_terms_t hot_count_new_terms(const hot_terms_t& table, std::span<const hot_keyword_t> keywords) {
    std::vector<hot_keyword_t> fresh;
    for (const hot_keyword_t& keyword : keywords) {
        const uint32_t slot = hot_locate_term(table, keyword.text, keyword.length, keyword.hash);
        if (table.slots[slot].term_plus_1 == 0) fresh.push_back(keyword);
    }
    const auto text = [](const hot_keyword_t& keyword) { return std::string_view(keyword.text, keyword.length); };
    std::sort(fresh.begin(), fresh.end(), [&](const hot_keyword_t& a, const hot_keyword_t& b) {
        return a.hash != b.hash ? a.hash < b.hash : text(a) < text(b);
    });
    hot_new_terms_t result;
    for (size_t i = 0; i < fresh.size(); i++) {
        if (i != 0 && fresh[i].hash == fresh[i - 1].hash && text(fresh[i]) == text(fresh[i - 1])) continue;
        result.count++;
        result.bytes += fresh[i].length + 1;
    }
    return result;
}

st_hotput_rc_t hot_check_new_terms(const hot_terms_t& table, const hot_new_terms_t& fresh) {
    if (fresh.count > table.capacity - table.count) return HOT_PUT_RC_TERMS_FULL;
    if (fresh.count != 0 && !hot_lexicon_holds(table, fresh.bytes)) return HOT_PUT_RC_LEXICON_FULL;
    return HOT_PUT_RC_SUCCESS;
}

void hot_remove_newest_terms(hot_terms_t& table, uint32_t count) {
    while (table.count > count) {
        const hot_term_t& term = table.terms[--table.count];
        const char* const text = table.text.data() + term.offset;
        table.slots[hot_locate_term(table, text, term.length, hot_slice_hash(text, term.length))] = {};
        table.text_used = term.offset;
    }
}

}  // namespace veldar

// Selections over several fields of events: an ordinal for every value and field, read from the posting lists of a
// field's terms, then one pass over the matches. Values are taken 2^20 at a time, whatever the size of the slice.
#pragma once

#include <span>
#include <string>

#include "searchthing/search/select_internal.h"
#include "searchthing/search/select_match.h"

namespace veldar {

// An event with several values of a group field is in the row of each combination, one with several values of a
// projection's field adds all of them. The stretches ascend and hold all matches. May throw std::bad_alloc.
[[nodiscard]] int select_by_columns(const selection_t& selection, const select_match_t& match,
                                    std::span<const select_stretch_t> stretches, warm_rc_t* rc);

// How many texts a group field may have in one slice, and the failure when it has more.
inline uint32_t select_max_texts(const parsed_query_t& query) {
    return query.spec.opt_word == 0 ? SELECT_MAX_GROUP_TEXTS : query.spec.opt_word;
}
int select_too_many_texts(const std::string& field, warm_rc_t* rc);

}  // namespace veldar

// Merging sorted sequences that seldom overlap much: the first one goes on until it passes the second.
#pragma once

#include <algorithm>
#include <vector>

#include "searchthing/base/warm_rc.h"

namespace veldar {

// Adds a cursor to those that wait in the order that `before` gives.
template <typename Cursor, typename Before>
void merge_place(std::vector<Cursor*>* live, Cursor* cursor, Before before) {
    const auto later = [&](const Cursor* other) { return before(*cursor, *other); };
    live->insert(std::find_if(live->begin(), live->end(), later), cursor);
}

// Runs until all cursors have ended. step(cursor, &ended) uses the element on which the cursor stands and moves it on;
// what it returns beside 0 ends the merge.
template <typename Cursor, typename Before, typename Step>
[[nodiscard]] int merge_by_leader(std::vector<Cursor*>* live, Before before, Step step) {
    while (!live->empty()) {
        Cursor* const cursor = live->front();
        bool ended = false;
        do {
            ST_TRY(step(cursor, &ended));
        } while (!ended && (live->size() == 1 || before(*cursor, *(*live)[1])));
        live->erase(live->begin());
        if (!ended) merge_place(live, cursor, before);
    }
    return 0;
}

}  // namespace veldar

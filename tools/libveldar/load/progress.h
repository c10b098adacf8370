// What a load tells while it works and when it is done.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "searchthing/base/st_timeval.h"
#include "tools/libveldar/load/dating.h"

namespace veldar::tool {

struct progress {
    uint64_t total = 0;  // bytes to read; 0 when unknown
    int64_t begun_us = 0, shown_us = 0;
    bool is_hidden = false;  // nothing is shown
};

struct load_totals {
    uint64_t events = 0, samples = 0;
    uint64_t bytes_in = 0;                            // of raw text, decompressed
    uint64_t index_bytes = 0, slices = 0, terms = 0;  // of the slices written
    uint64_t refused = 0;
    uint64_t waiting = 0;  // files whose last line or record waits for its end
    st_time_t earliest = INT32_MAX, latest = INT32_MIN;

    void add_event(st_time_t time);
};

progress progress_begin(uint64_t total);
// Shows the observer how far the work is, at most ten times a second. Cheap enough for every few thousand events.
void progress_show(progress* p, uint64_t done, uint64_t events);
// The same for a merge of `total` bytes.
void progress_show_merge(progress* p, uint64_t done);
// What was shown is over.
void progress_end();
// "2015-05-17 10:05:03" in UTC.
std::string time_text(st_time_t time);
std::string bytes_text(uint64_t bytes);
// "1,234,567"
std::string number_text(uint64_t number);
// "10,000 events, 65,432 terms in 1 slice, ... to ... UTC, 2.3 MB read, 1.9 MB of index, 0 lines refused, 0.2 s"; before
// the last two how the lines of logs came to their times, when `dating` is given
std::string totals_text(const progress& p, const load_totals& totals, const dating_report* dating = nullptr);

// The names of the slices in an index directory, sorted. Throws failure_t.
std::vector<std::string> slice_names(const std::string& directory);
// Those that are not in `before` count towards the totals.
void totals_add_slices(load_totals* totals, const std::string& directory, const std::vector<std::string>& before);

}  // namespace veldar::tool

// The values of a metric merge, run by run.
#include <algorithm>

#include "libzero/assertions.h"
#include "searchthing/merge/merge_internal.h"
#include "searchthing/merge/merge_leader.h"
#include "searchthing/values/values_writer.h"

namespace veldar {

namespace {

// Where a source stands: at a value of the run that is being made.
struct run_cursor_t {
    uint32_t source = 0;
    uint32_t next_run = 0;  // of the source, not begun yet
    uint32_t number = 0;    // the value, and one past the last of its run
    uint32_t end = 0;
    st_tsval value = {};
};

// Newest first; equal times in the order of the sources.
bool is_before(const run_cursor_t& a, const run_cursor_t& b) {
    if (a.value.time != b.value.time) return a.value.time > b.value.time;
    if (a.value.subsecond != b.value.subsecond) return a.value.subsecond > b.value.subsecond;
    return a.source < b.source;
}

class run_merger {
  public:
    run_merger(warm_merge_t* merge, values_writer_t* out, warm_rc_t* rc) : merge_(merge), out_(out), rc_(rc) {}

    int run();

  private:
    const merge_metric_source_t& metric(const run_cursor_t& cursor) const {
        return merge_->metric->sources[cursor.source];
    }
    bool more_runs(const run_cursor_t& cursor) const { return cursor.next_run < metric(cursor).runs.size(); }
    uint32_t new_run(const run_cursor_t& cursor) const { return merge_->sources[cursor.source].map[cursor.next_run]; }
    int load(run_cursor_t* cursor) {
        ST_TRY(merge_->stop.after(1, rc_));
        tsval_reader_t* const reader = &merge_->sources[cursor->source].warm->tsval_reader;
        return tsval_reader_decode(reader, cursor->number, &cursor->value, false, 0, rc_);
    }
    int begin_run(run_cursor_t* cursor);
    int step(run_cursor_t* cursor);
    int put(const run_cursor_t& cursor);
    int merge_run();

    warm_merge_t* merge_;
    values_writer_t* out_;
    warm_rc_t* rc_;
    std::vector<run_cursor_t*> live_;  // sources inside the run that is being made, the next value first
    uint32_t next_value_ = 0;
    merge_metric_run_t run_ = {};
};

int run_merger::begin_run(run_cursor_t* cursor) {
    const warm_run_t& run = metric(*cursor).runs[cursor->next_run++];
    cursor->number = run.first;
    cursor->end = run.first + run.count;
    ST_TRY(load(cursor));
    metric(*cursor).spans[cursor->next_run - 1].latest = cursor->value.time;
    merge_place(&live_, cursor, is_before);
    return 0;
}

int run_merger::put(const run_cursor_t& cursor) {
    const merge_metric_source_t& source = metric(cursor);
    source.spans[cursor.next_run - 1].earliest = cursor.value.time;
    source.values[cursor.number - source.runs.size()] = next_value_++;
    if (run_.count++ == 0) run_.latest = cursor.value.time;
    run_.earliest = cursor.value.time;
    run_.end = next_value_;
    return values_writer_put(out_, cursor.value, rc_);
}

// The next value of the cursor's run, which has one.
int run_merger::step(run_cursor_t* cursor) {
    const st_tsval before = cursor->value;
    cursor->number++;
    ST_TRY(load(cursor));
    const st_tsval& value = cursor->value;
    if (value.time > before.time || (value.time == before.time && value.subsecond > before.subsecond)) {
        return _set_rc_verbose(rc_, WARM_RC_CORRUPT, cursor->source, "values are not newest first");
    }
    return 0;
}

int run_merger::merge_run() {
    return merge_by_leader(&live_, is_before, [this](run_cursor_t* cursor, bool* ended) {
        ST_TRY(put(*cursor));
        *ended = cursor->number + 1 == cursor->end;
        return *ended ? 0 : step(cursor);
    });
}

int run_merger::run() {
    const uint32_t runs = merge_->header.num_dimsets.get();
    std::vector<run_cursor_t> cursors(merge_->sources.size());
    std::vector<run_cursor_t*> waiting;  // a heap by the next run
    const auto later = [this](const run_cursor_t* a, const run_cursor_t* b) { return new_run(*a) > new_run(*b); };
    for (uint32_t i = 0; i < cursors.size(); i++) {
        cursors[i].source = i;
        if (more_runs(cursors[i])) waiting.push_back(&cursors[i]);
    }
    std::make_heap(waiting.begin(), waiting.end(), later);
    next_value_ = runs;
    std::vector<run_cursor_t*> taken;
    for (uint32_t number = 0; number < runs; number++) {
        taken.clear();
        while (!waiting.empty() && new_run(*waiting.front()) == number) {
            std::pop_heap(waiting.begin(), waiting.end(), later);
            taken.push_back(waiting.back());
            waiting.pop_back();
        }
        for (run_cursor_t* cursor : taken) ST_TRY(begin_run(cursor));
        run_ = {};
        ST_TRY(merge_run());
        ST_ASSERT(live_.empty() && run_.count > 0 && run_.earliest <= run_.latest);
        ST_TRY(values_writer_put_preamble(out_, run_.end - run_.count, run_.count, rc_));
        merge_->metric->runs[number] = run_;
        for (run_cursor_t* cursor : taken) {
            if (!more_runs(*cursor)) continue;
            // Two runs of one set cannot come from one source.
            if (new_run(*cursor) <= number)
                return _set_rc_verbose(rc_, WARM_RC_CORRUPT, cursor->source, "ordering violation");
            waiting.push_back(cursor);
            std::push_heap(waiting.begin(), waiting.end(), later);
        }
    }
    ST_ASSERT(waiting.empty() && next_value_ == merge_->totals.values);
    return 0;
}

}  // namespace

int merge_metric_values_write(warm_merge_t* merge, int fd, warm_rc_t* rc) {
    if (!merge->metric->runs.alloc(merge->header.num_dimsets.get())) {
        return _set_rc_msg(rc, WARM_RC_NO_MEMORY, "runs of a merge");
    }
    values_writer_t out;
    ST_TRY(values_writer_open(&out, &merge->header, fd, nullptr, rc));
    ST_TRY(run_merger(merge, &out, rc).run());
    return values_writer_close(&out, rc);
}

}  // namespace veldar

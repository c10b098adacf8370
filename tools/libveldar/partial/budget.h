// How long an answer may take and how much it may read; and where a later one goes on.
//
// An answer with a budget is made of windows of time, the newest first, each as wide as what is left allows. When the
// budget is used up, what the windows gave is the answer, complete back to the time at which they end.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/libveldar/partial/question.h"
#include "tools/libveldar/store/observer.h"

namespace veldar::tool {

struct answer_budget {
    int64_t deadline_ns = 0;  // from the beginning of the answer; 0: none
    uint64_t max_read = 0;    // bytes of index and logs; 0: no end
    bool is_limited() const { return deadline_ns != 0 || max_read != 0; }
};

// Where an answer ended early.
struct answer_cursor {
    st_timeval_t before;  // what is older is still to be told
    int64_t width_s = 0;  // of the window to begin with; 0: nobody knows
    // The part of the budget that one window used when even the narrowest used it up, so that going on gets on: the next
    // one is told whatever it takes. 0: the budget is enough.
    double used = 0;
    uint64_t told = 0;  // of the events or samples that the question's limit allows
};

// While it lives, work on this thread ends (work_stops) when the budget is used up.
class budget_watch {
  public:
    explicit budget_watch(const answer_budget& budget);
    bool is_over();                                            // the budget, and not whoever else may end the work
    void set_patient(bool patient) { is_patient_ = patient; }  // nothing ends for the budget's sake
    // How much of it is used: 1 is all.
    double used() const;

  private:
    static observer forwarding(budget_watch* watch);
    answer_budget budget_;
    std::chrono::steady_clock::time_point begin_;
    uint64_t read_before_ = 0;
    std::atomic<uint64_t> asked_ = 0;
    std::atomic<bool> over_ = false, is_patient_ = false;
    const observer* outer_;
    observer own_;
    observer_scope scope_;
};

// "500ms", "2s", "1m": nanoseconds. Throws failure_t with OUTCOME_USAGE.
int64_t deadline_parse(const std::string& text);

// A cursor's file: "veldar cursor 1", the question, "store IDENTITY" (index_identity, percent-encoded), "before @S.N
// width W used U told T".
// The cursor at the path, of which the question takes its times; null when there is no file. Throws failure_t, with
// OUTCOME_USAGE for a cursor of another question or store.
std::optional<answer_cursor> cursor_read(const std::string& path, const std::string& identity, question* asked);
// Writes it, or removes the file when there is nothing left to be told. Throws failure_t.
void cursor_write(const std::string& path, const std::string& identity, const question& asked,
                  const std::optional<answer_cursor>& cursor);

}  // namespace veldar::tool

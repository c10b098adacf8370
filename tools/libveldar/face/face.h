// How the functions of veldar.h are made: a guard that lets no exception out, the thread's last error, records that
// grow with versions, and tables.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "searchthing/reading/cursors.h"
#include "tools/libveldar/face/veldar.h"
#include "tools/libveldar/query/metric_ask.h"
#include "tools/libveldar/query/query_input.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/troubles.h"

// What the caller is told, and whether it wants the work to end.
struct veldar_hearing {
    veldar_observer given = {};
    std::string first_trouble;  // of this call
    std::thread::id caller;
    std::atomic<bool> stopped = false;
    int64_t asked_us = 0;
};

struct veldar_store {
    std::string path;
    veldar_hearing hearing;
};

struct veldar_table {
    struct column {
        std::string name;
        veldar_type type = VELDAR_TEXT;
        std::vector<int64_t> ints;  // and times
        std::vector<uint64_t> uints;
        std::vector<double> doubles;
        std::vector<uint64_t> offsets = {0};
        std::string bytes;
        std::vector<uint8_t> valid;
        bool has_gaps = false;
    };
    size_t rows = 0;
    std::vector<column> columns;
    uint64_t events_id = 0;               // of the events that its rows are; 0: they are none
    std::vector<veldar::event_t> events;  // one a row
};

namespace veldar::tool {

// The fields that the caller's version of a record has; the others are zero. Null gives all zeros.
template <typename R>
R record_from(const R* given) {
    R full = {};
    if (given != nullptr && given->size < sizeof given->size) {
        throw failure_t{OUTCOME_USAGE, "the size of a record is not set"};
    }
    if (given != nullptr) std::memcpy(static_cast<void*>(&full), given, std::min(given->size, sizeof full));
    full.size = sizeof full;
    return full;
}
// Writes those fields into the caller's record, which keeps its size; null is passed over.
template <typename R>
void record_to(R full, R* given) {
    if (given == nullptr) return;
    if (given->size < sizeof given->size) throw failure_t{OUTCOME_USAGE, "the size of a record is not set"};
    full.size = given->size;
    std::memcpy(static_cast<void*>(given), &full, std::min(given->size, sizeof full));
}

inline std::string text_from(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}
veldar_text text_to(std::string_view text);
query_options query_from(const veldar_query* query);
metric_question metric_question_from(const veldar_metric_query* query);
metric_stats_question metric_stats_question_from(const veldar_metric_stats_options& given, const std::string& zone);

// Set as the thread's last error; return its status.
veldar_status face_failed(const failure_t& failure) noexcept;
veldar_status face_failed_otherwise() noexcept;  // for the exception being handled

// A call begins: its observer is the handle's for the time.
class face_call {
  public:
    explicit face_call(veldar_hearing* hearing);
    // The status of an outcome; what an incomplete one lacks becomes the thread's last error: the first trouble of the
    // call, or one of `trouble`, of calls before.
    veldar_status end(outcome_t outcome, const troubles* trouble = nullptr) const;

  private:
    veldar_hearing* hearing_;
    observer observer_;
    observer_scope scope_;
};

// Runs `work(call)`, which returns a veldar_status, as one call on a handle.
template <typename F>
veldar_status face_run(veldar_hearing* hearing, F work) noexcept {
    try {
        const face_call call(hearing);
        return work(call);
    } catch (const failure_t& failure) {
        return face_failed(failure);
    } catch (...) {
        return face_failed_otherwise();
    }
}

veldar_table::column& table_column(veldar_table* table, const std::string& name, veldar_type type);
// A value more in a column, of its type.
void column_put(veldar_table::column* column, int64_t value);
void column_put(veldar_table::column* column, uint64_t value);
void column_put(veldar_table::column* column, double value);
void column_put(veldar_table::column* column, std::string_view value);
void column_put_nothing(veldar_table::column* column);
inline int64_t time_ns_of(int64_t seconds, uint64_t nanoseconds = 0) {
    return seconds * 1'000'000'000 + static_cast<int64_t>(nanoseconds);
}

}  // namespace veldar::tool

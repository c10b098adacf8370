#include "tools/libveldar/face/face.h"

#include <time.h>

#include <exception>
#include <new>

#include "searchthing/base/st_init.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

namespace {

constexpr int64_t ASKED_EVERY_US = 50'000;

struct last_error {
    std::string message, file, next_step;
    veldar_error record = {sizeof(veldar_error), VELDAR_OK, "", "", 0, UINT64_MAX, ""};
};
thread_local last_error last;

veldar_status status_of(outcome_t outcome) {
    return outcome == OUTCOME_INTERRUPTED ? VELDAR_INTERRUPTED : static_cast<veldar_status>(outcome);
}

void set_error(veldar_status status, const char* message, const char* file, uint64_t line, uint64_t offset,
               const char* next_step) noexcept {
    last.record = {sizeof(veldar_error), status, message, file, line, offset, next_step};
}

int64_t now_us() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

void say(void* context, notice_t kind, const std::string& message) {
    auto* const hearing = static_cast<veldar_hearing*>(context);
    if (kind == NOTICE_TROUBLE && hearing->first_trouble.empty()) hearing->first_trouble = message;
    if (hearing->given.message == nullptr) return;
    hearing->given.message(hearing->given.context, kind == NOTICE_TROUBLE ? VELDAR_TROUBLE : VELDAR_SUMMARY,
                           message.c_str());
}

void show(void* context, const work_progress& now) {
    auto* const hearing = static_cast<veldar_hearing*>(context);
    if (hearing->given.progress == nullptr) return;
    const veldar_progress progress = {
        sizeof progress, now.kind == work_progress::MERGING ? 1 : 0, now.done, now.total, now.events, now.seconds};
    hearing->given.progress(hearing->given.context, &progress);
}

// Only the thread that called asks its caller; the others learn it from what that one was told.
bool stops(void* context) {
    auto* const hearing = static_cast<veldar_hearing*>(context);
    if (hearing->stopped) return true;
    if (hearing->given.stop == nullptr || std::this_thread::get_id() != hearing->caller) return false;
    const int64_t now = now_us();
    if (now - hearing->asked_us < ASKED_EVERY_US) return false;
    hearing->asked_us = now;
    if (hearing->given.stop(hearing->given.context) != 0) hearing->stopped = true;
    return hearing->stopped;
}

}  // namespace

veldar_text text_to(std::string_view text) {
    return {text.data() == nullptr ? "" : text.data(), text.size()};
}

query_options query_from(const veldar_query* query) {
    const veldar_query given = record_from(query);
    query_options options;
    if (given.text != nullptr && *given.text != '\0') options.words = {given.text};
    options.since = text_from(given.since);
    options.until = text_from(given.until);
    options.zone = given.zone == nullptr ? "UTC" : given.zone;
    options.native = given.is_native != 0;
    return options;
}

veldar_status face_failed(const failure_t& failure) noexcept {
    const bool memory = failure.status == OUTCOME_IO && failure.message == "out of memory";
    const veldar_status status = memory ? VELDAR_NO_MEMORY : status_of(failure.status);
    try {
        last.message = failure.message;
        last.file = failure.file;
        last.next_step = failure.next_step;
        set_error(status, last.message.c_str(), last.file.c_str(), failure.line, failure.offset,
                  last.next_step.c_str());
    } catch (const std::bad_alloc&) {
        set_error(status, "out of memory", "", 0, UINT64_MAX, "");
    }
    return status;
}

veldar_status face_failed_otherwise() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        set_error(VELDAR_NO_MEMORY, "out of memory", "", 0, UINT64_MAX, "");
        return VELDAR_NO_MEMORY;
    } catch (const std::exception& error) {  // the library's own: a thread, a locale
        try {
            return face_failed({OUTCOME_IO, error.what()});
        } catch (const std::bad_alloc&) {
        }
    } catch (...) {
    }
    set_error(VELDAR_IO, "failed without a reason", "", 0, UINT64_MAX, "");
    return VELDAR_IO;
}

face_call::face_call(veldar_hearing* hearing)
    : hearing_(hearing),
      observer_{.context = hearing, .say = say, .show = show, .shown_all = nullptr, .stops = stops},
      scope_(&observer_) {
    hearing->first_trouble.clear();
    hearing->caller = std::this_thread::get_id();
    hearing->stopped = false;
}

veldar_status face_call::end(outcome_t outcome, const troubles* trouble) const {
    if (outcome == OUTCOME_DONE) return VELDAR_OK;
    if (outcome == OUTCOME_NOT_FOUND) return VELDAR_END;
    if (outcome == OUTCOME_INTERRUPTED) return face_failed({outcome, "interrupted"});
    if (!hearing_->first_trouble.empty()) return face_failed({outcome, hearing_->first_trouble});
    const bool known = trouble != nullptr && !trouble->said.empty();
    return face_failed({outcome, known ? *trouble->said.begin() : "something could not be read"});
}

veldar_table::column& table_column(veldar_table* table, const std::string& name, veldar_type type) {
    veldar_table::column column;
    column.name = name;
    column.type = type;
    table->columns.push_back(std::move(column));
    return table->columns.back();
}

void column_put(veldar_table::column* column, int64_t value) {
    column->ints.push_back(value);
    column->valid.push_back(1);
}

void column_put(veldar_table::column* column, uint64_t value) {
    column->uints.push_back(value);
    column->valid.push_back(1);
}

void column_put(veldar_table::column* column, double value) {
    column->doubles.push_back(value);
    column->valid.push_back(1);
}

void column_put(veldar_table::column* column, std::string_view value) {
    column->bytes.append(value);
    column->offsets.push_back(column->bytes.size());
    column->valid.push_back(1);
}

void column_put_nothing(veldar_table::column* column) {
    switch (column->type) {
        case VELDAR_INT64:
        case VELDAR_TIME:
            column->ints.push_back(0);
            break;
        case VELDAR_UINT64:
            column->uints.push_back(0);
            break;
        case VELDAR_DOUBLE:
            column->doubles.push_back(0);
            break;
        case VELDAR_TEXT:
            column->offsets.push_back(column->bytes.size());
            break;
    }
    column->valid.push_back(0);
    column->has_gaps = true;
}

}  // namespace veldar::tool

using namespace veldar::tool;

extern "C" {

const char* veldar_version(void) {
    return VELDAR_VERSION;
}

const veldar_error* veldar_last_error(void) {
    return &last.record;
}

veldar_status veldar_open(const char* path, unsigned flags, const veldar_observer* observer, veldar_store** store) {
    *store = nullptr;
    veldar_hearing nobody;
    return face_run(&nobody, [&](const face_call&) {
        static const int begun = (veldar::st_init("libveldar"), 0);
        static_cast<void>(begun);
        auto opened = std::make_unique<veldar_store>();
        opened->hearing.given = record_from(observer);
        opened->path = store_choose(text_from(path));
        if ((flags & ~VELDAR_CREATE) != 0) throw failure_t{OUTCOME_USAGE, "unknown flags"};
        if ((flags & VELDAR_CREATE) != 0) store_make(opened->path, true);
        static_cast<void>(slices_list(opened->path, false));
        *store = opened.release();
        return VELDAR_OK;
    });
}

void veldar_close(veldar_store* store) {
    delete store;
}

const char* veldar_path(const veldar_store* store) {
    return store->path.c_str();
}

size_t veldar_table_rows(const veldar_table* table) {
    return table->rows;
}

size_t veldar_table_columns(const veldar_table* table) {
    return table->columns.size();
}

veldar_status veldar_table_column(const veldar_table* table, size_t number, veldar_column* column) {
    if (number >= table->columns.size()) return VELDAR_END;
    veldar_hearing nobody;
    return face_run(&nobody, [&](const face_call&) {
        const veldar_table::column& from = table->columns[number];
        veldar_column to = {};
        to.name = from.name.c_str();
        to.type = from.type;
        to.valid = from.has_gaps ? from.valid.data() : nullptr;
        if (from.type == VELDAR_TEXT) {
            to.offsets = from.offsets.data();
            to.bytes = from.bytes.data();
        } else if (from.type == VELDAR_DOUBLE) {
            to.values = from.doubles.data();
        } else if (from.type == VELDAR_UINT64) {
            to.values = from.uints.data();
        } else {
            to.values = from.ints.data();
        }
        record_to(to, column);
        return VELDAR_OK;
    });
}

void veldar_table_free(veldar_table* table) {
    delete table;
}

}  // extern "C"

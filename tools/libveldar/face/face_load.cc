// veldar.h: loading logs and metrics, and events of the caller's own.
#include <sys/stat.h>

#include <chrono>
#include <optional>

#include "tools/libveldar/face/face.h"
#include "tools/libveldar/load/index_writer.h"
#include "tools/libveldar/load/load_paths.h"
#include "tools/libveldar/load/load_run.h"
#include "tools/libveldar/query/stats_input.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/store.h"

using namespace veldar::tool;

struct veldar_writer {
    veldar_hearing nobody;
    index_writer writer;
    bool has_failed = false;
};

namespace {

std::vector<std::string> names_from(const char* const* files, size_t count) {
    std::vector<std::string> names;
    for (size_t i = 0; i < count; i++) {
        names.push_back(text_from(files[i]));
        if (names.back().empty()) throw failure_t{OUTCOME_USAGE, "the name of a file is empty"};
    }
    return names;
}

std::string one_of(const char* text, std::initializer_list<const char*> values, const std::string& what) {
    const std::string given = text_from(text);
    std::string expected;
    for (const char* const value : values) {
        if (given == value) return given;
        expected += std::string(expected.empty() ? "" : ", ") + value;
    }
    if (!given.empty()) throw failure_t{OUTCOME_USAGE, what + " " + given + ": expected one of " + expected};
    return given;
}

load_options options_from(const veldar_load_options& given) {
    load_options options;
    options.format = text_from(given.format);
    options.zone = text_from(given.zone);
    options.host = text_from(given.host);
    options.sourcetype = text_from(given.sourcetype);
    options.time_field = text_from(given.time_field);
    options.time_format = text_from(given.time_format);
    options.date_order = one_of(given.date_order, {"dmy", "mdy", "ymd"}, "date order");
    options.year = given.year;
    options.flush = given.flush != 0;
    options.no_fsync = given.no_fsync != 0;
    options.no_optimize = given.no_optimize != 0;
    log_zone zone;
    time_place place;
    if (!options.zone.empty() && !log_zone_from_name(options.zone, &zone)) {
        throw failure_t{OUTCOME_USAGE, "unknown time zone " + options.zone};
    }
    if (options.year != 0 && (options.year < 1970 || options.year > 2037)) {
        throw failure_t{OUTCOME_USAGE, "year " + std::to_string(options.year) + ": expected 1970 to 2037"};
    }
    if (!options.time_format.empty()) {
        const char* const fault = time_place_from_pattern(options.time_format, &place);
        if (fault != nullptr) throw failure_t{OUTCOME_USAGE, options.time_format + " " + fault};
    }
    if (options.time_field.find_first_of("\t\n") != std::string::npos) {
        throw failure_t{OUTCOME_USAGE, "a field's name has no tabs or line ends"};
    }
    return options;
}

struct stopwatch {
    std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
    double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count(); }
};

void put_result(const load_totals& totals, uint64_t events, const stopwatch& watch, veldar_load_result* result) {
    record_to({.size = 0,
               .events = events,
               .refused = totals.refused,
               .bytes = totals.bytes_in,
               .slices = totals.slices,
               .seconds = watch.seconds()},
              result);
}

void require_store(const veldar_store* store) {
    if (store_is(store->path)) return;
    throw failure_t{.status = OUTCOME_USAGE,
                    .message = store->path + " is no store, which alone can be loaded into",
                    .file = store->path,
                    .next_step = "open it with VELDAR_CREATE, or another path"};
}

}  // namespace

extern "C" {

veldar_status veldar_load(veldar_store* store, const char* const* files, size_t count,
                          const veldar_load_options* options, veldar_load_result* result) {
    return face_run(&store->hearing, [&](const face_call& call) {
        const stopwatch watch;
        const veldar_load_options given = record_from(options);
        require_store(store);
        load_options loaded = options_from(given);
        const load_paths paths = load_paths_find(names_from(files, count), given.recursive != 0);
        loaded.files = paths.files;
        load_totals totals;
        const outcome_t outcome = load_logs(store->path, loaded, given.again != 0, &totals);
        put_result(totals, totals.events, watch, result);
        return call.end(outcome == OUTCOME_DONE && paths.incomplete ? OUTCOME_INCOMPLETE : outcome);
    });
}

veldar_status veldar_load_metrics(veldar_store* store, const char* const* files, size_t count,
                                  const veldar_metric_load_options* options, veldar_load_result* result) {
    return face_run(&store->hearing, [&](const face_call& call) {
        const stopwatch watch;
        const veldar_metric_load_options given = record_from(options);
        require_store(store);
        metric_load_options loaded;
        loaded.files = names_from(files, count);
        loaded.format = one_of(given.format, {"openmetrics", "prometheus", "csv"}, "format");
        loaded.time = text_from(given.time);
        loaded.csv.values = comma_parts(text_from(given.values));
        loaded.csv.dims = comma_parts(text_from(given.dims));
        loaded.csv.name = text_from(given.name);
        if (given.zone != nullptr) loaded.zone_name = given.zone;
        loaded.again = given.again != 0;
        loaded.no_fsync = given.no_fsync != 0;
        loaded.no_optimize = given.no_optimize != 0;
        loaded.flush = given.flush != 0;
        load_totals totals;
        const outcome_t outcome = load_metrics(store->path, "", &loaded, &totals);
        put_result(totals, totals.samples, watch, result);
        return call.end(outcome);
    });
}

veldar_status veldar_writer_open(const char* directory, veldar_writer** writer) {
    *writer = nullptr;
    veldar_hearing nobody;
    return face_run(&nobody, [&](const face_call&) {
        const std::string path = text_from(directory);
        if (path.empty()) throw failure_t{OUTCOME_USAGE, "the name of the directory is empty"};
        auto made = std::make_unique<veldar_writer>();
        const std::string part = store_part(path);
        if (!part.empty()) {
            throw failure_t{OUTCOME_USAGE, path + " is " + part + ": veldar_load and veldar_load_metrics fill it",
                            path};
        }
        disk_make_directory(path);
        struct stat st;
        if (::stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
            throw failure_t{OUTCOME_USAGE, path + ": " + std::strerror(ENOTDIR), path};
        }
        disk_sync_name(path);
        index_writer_open(&made->writer, path, 4, false, {}, true);
        *writer = made.release();
        return VELDAR_OK;
    });
}

veldar_status veldar_writer_put(veldar_writer* writer, int64_t time_s, uint32_t address, const veldar_text* terms,
                                size_t count) {
    return face_run(&writer->nobody, [&](const face_call&) {
        if (writer->has_failed) throw failure_t{OUTCOME_USAGE, "the writer has failed before: close it"};
        if (time_s < INT32_MIN || time_s > INT32_MAX) {
            throw failure_t{OUTCOME_USAGE, std::to_string(time_s) + " is no time of 32-bit seconds"};
        }
        if (count == 0) throw failure_t{OUTCOME_USAGE, "an event has at least one term"};
        constexpr size_t LONGEST = 2047;
        std::vector<std::string_view> texts;
        for (size_t i = 0; i < count; i++) {
            texts.emplace_back(terms[i].data, terms[i].size);
            const bool fits = terms[i].data != nullptr && terms[i].size > 0 && terms[i].size <= LONGEST;
            if (!fits || texts.back().find('\0') != std::string_view::npos) {
                throw failure_t{OUTCOME_USAGE, "a term has 1 to 2047 bytes, and none of them is NUL"};
            }
        }
        veldar::st_txn txn = {};
        txn.time = static_cast<veldar::st_time_t>(time_s);
        txn.address = address;
        try {
            if (index_writer_put(&writer->writer, txn, texts)) return VELDAR_OK;
        } catch (...) {
            writer->has_failed = true;
            throw;
        }
        throw failure_t{OUTCOME_USAGE, "the event is larger than an index can hold"};
    });
}

veldar_status veldar_writer_sync(veldar_writer* writer) {
    return face_run(&writer->nobody, [&](const face_call&) {
        if (writer->has_failed) throw failure_t{OUTCOME_USAGE, "the writer has failed before: close it"};
        writer->has_failed = true;  // unless it succeeds
        index_writer_sync(&writer->writer);
        writer->has_failed = false;
        return VELDAR_OK;
    });
}

veldar_status veldar_writer_close(veldar_writer* writer) {
    if (writer == nullptr) return VELDAR_OK;
    const std::unique_ptr<veldar_writer> closed(writer);
    return face_run(&closed->nobody, [&](const face_call&) {
        if (!closed->has_failed) index_writer_close(&closed->writer);
        return VELDAR_OK;
    });
}

}  // extern "C"

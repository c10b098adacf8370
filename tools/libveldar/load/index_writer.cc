#include "tools/libveldar/load/index_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "searchthing/hot/hotslice.h"
#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

[[noreturn]] void fail_engine(index_writer* writer, const char* what) {
    const warm_rc_t* const why = st_tsidx_last_failure(st_directory(writer->thing));
    std::string message = writer->directory + ": " + what;
    if (why->message[0] != '\0') message += std::string(": ") + why->message;
    // Errno tells of what the system refused, not of an argument or a limit.
    const bool system = why->warm_rc > WARM_RC_NO_SECTION || why->warm_rc == WARM_RC_CLOSE ||
                        why->warm_rc == WARM_RC_LOCK || why->warm_rc == WARM_RC_SHORT_READ ||
                        why->warm_rc == WARM_RC_RETRIES;
    if (system && why->saved_errno != 0) message += std::string(": ") + std::strerror(why->saved_errno);
    message += " (status " + std::to_string(why->warm_rc) + ")";
    st_abandon(std::exchange(writer->thing, nullptr));
    throw failure_t{OUTCOME_IO, message};
}

void open_directory(index_writer* writer, const std::string& directory, uint32_t flags, const TSWRITEOPTS& options,
                    const index_limits& limits, bool durable) {
    writer->directory = directory;
    errno = 0;
    writer->thing = st_open_for_write(directory.c_str(), flags, TSIDX_ORDINARY_WRITER, &options);
    if (writer->thing == nullptr) fail_io("cannot open the index", directory, errno);
    st_tsidx_set_durable(st_directory(writer->thing), durable ? 1 : 0);
    // Within what the engine takes, and with nothing to be written yet, this cannot fail.
    static_cast<void>(st_options(writer->thing, limits.lexicon_bytes, limits.max_terms,
                                 std::min<uint64_t>(limits.max_postings, st_hot_slice_max_postings()),
                                 std::min<uint64_t>(limits.max_values, st_hot_slice_max_values())));
}

int start_event(index_writer* writer, const st_txn& txn) {
    return st_txn_start_with_subseconds(writer->thing, txn.time, txn.subsecond, txn.address, txn.seek_address,
                                        txn.measure, txn.source, txn.source_type, txn.host);
}

// Whether the event was put, which is not when it is refused.
bool put_or_fail(index_writer* writer, int rc) {
    if (rc == 0) return true;
    if (st_get_warm_rc(writer->thing) != 0) fail_engine(writer, "cannot write a slice");
    return false;
}

}  // namespace

index_writer::~index_writer() {
    st_abandon(thing);
}

void index_writer_open(index_writer* writer, const std::string& directory, uint32_t level, bool streaming,
                       const index_limits& limits, bool durable) {
    TSWRITEOPTS options;
    st_tsidx_write_opts_init_write_level(&options, level);
    open_directory(writer, directory, streaming ? ST_OPEN_STREAMING : 0, options, limits, durable);
}

void index_writer_open_metrics(index_writer* writer, const std::string& directory, bool milliseconds, bool durable) {
    TSWRITEOPTS options;
    st_tsidx_write_opts_set_defaults(&options);
    options.millisecond_mode = milliseconds ? 1 : 0;
    open_directory(writer, directory, ST_OPEN_METRICS, options, {}, durable);
}

bool index_writer_put(index_writer* writer, const st_txn& txn, std::span<const std::string_view> terms) {
    return put_or_fail(writer, st_put_event(writer->thing, &txn, terms));
}

bool index_writer_put_metrics(index_writer* writer, const st_txn& txn, std::span<const std::string_view> dimensions,
                              std::span<const metric_measure> measures) {
    THING* const thing = writer->thing;
    int rc = start_event(writer, txn);
    for (size_t i = 0; rc == 0 && i < dimensions.size(); i++) {
        rc = st_txn_put(thing, dimensions[i].data(), dimensions[i].size());
    }
    for (size_t i = 0; rc == 0 && i < measures.size(); i++) {
        rc = st_txn_put_measure(thing, measures[i].name.data(), measures[i].name.size(), measures[i].value);
    }
    return put_or_fail(writer, rc == 0 ? st_txn_close(thing) : rc);
}

uint64_t index_writer_slices(const index_writer* writer) {
    return st_tsidx_slices_written(st_directory(writer->thing));
}

void index_writer_sync(index_writer* writer) {
    if (st_sync(writer->thing) != 0) fail_engine(writer, "cannot write a slice");
}

void index_writer_close(index_writer* writer) {
    if (writer->thing == nullptr) return;
    index_writer_sync(writer);
    THING* const thing = writer->thing;
    writer->thing = nullptr;
    if (st_close(thing) != 0) throw failure_t{OUTCOME_IO, writer->directory + ": cannot close the index"};
}

}  // namespace veldar::tool

// Loads logs into a store, each line once however often the load is ended and begun again.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/libveldar/load/dating.h"
#include "tools/libveldar/load/event_queue.h"
#include "tools/libveldar/load/load_files.h"
#include "tools/libveldar/load/log_event.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/store/known_files.h"
#include "tools/libveldar/store/record_reader.h"
#include "tools/libveldar/store/store.h"

namespace veldar::tool {

// A bucket takes no record that begins at or past this address; the last record may reach beyond.
inline constexpr uint64_t BUCKET_BYTES_MAX = (uint64_t{1} << 32) - 4096;

struct load_options {
    std::vector<std::string> files;
    std::string format, zone, host, sourcetype;
    std::string time_format, date_order;
    int year = 0;
    std::string time_field, formats_file;
    bool strict = false;
    bool parts = false;
    bool flush = false;  // takes unfinished last lines
    bool no_fsync = false;
    bool no_optimize = false;
    bool follows = false;  // the files are loaded again and again: see loader_follow
    uint64_t bucket_bytes = BUCKET_BYTES_MAX;
    index_limits limits;
};

struct loader : load_report {
    const load_options* options = nullptr;
    store st;
    known_files known;
    std::vector<uint32_t> closed_buckets;  // numbers of buckets that nothing may be added to
    log_zone zone;
    std::string machine;  // this machine's name

    event_queue events;    // of the last bucket, when its writer is open
    uint64_t address = 0;  // of the next record in the bucket
    uint64_t slices_seen = 0;
    uint64_t merges = 0;  // made while loading
    merge_aside merging;
    unique_fd spool;             // of the pipe being loaded
    bool has_kept_pipe = false;  // one was read to its end, and its copy is there

    log_event_maker event;
    dating_report dating;
    bool zone_taken = false;    // for a time that says no zone
    uint64_t hardly_dated = 0;  // files of which under half the records say a time

    std::set<std::string> told;   // messages, of a loader that follows
    uint64_t rewrite_map_at = 0;  // size of the source map
};

// Opens the store and settles what earlier loads left. Throws failure_t, as all of these do for the store's own
// failures.
void loader_open(loader* load, const std::string& store_path, const load_options& options);
// Loads what is new in a file ("-": standard input). False with a message when not all of it could be read; what could
// be is loaded. `source`: what its events have as their source, else the path.
bool loader_load(loader* load, const std::string& path, std::string* error, const std::string& source = {});
// For logs that are followed, as `options.follows` says. Loads what is new at `path`, which stands for the log `name` and
// may be a descriptor's (/proc/self/fd/N). Its last line waits for its end for ever, unless the file `is_over`. What has
// been told once is not told again. `number` is that of the file. False with a message as above.
struct followed_log {
    std::string path, name;
    bool is_over = false;
};
bool loader_follow(loader* load, const followed_log& log, uint32_t* number, std::string* error);
// The name that events of the log have as their source.
std::string loader_source_name(const std::string& name);
// Makes everything that has been loaded searchable and safe, and begins to merge beside.
void loader_sync(loader* load);
// Says a message, unless it was said before to somebody who follows.
void loader_tell(loader* load, const std::string& message);
// Forgets a file, so that it counts as never loaded, and deletes its events: the one with this content, or those that
// were last seen at the path. How many events; nothing when none is known. With `again` only what can be loaded anew is
// forgotten, and *error says why this cannot. For a loader that has not loaded yet.
std::optional<uint64_t> loader_forget(loader* load, const std::string& path, bool again, std::string* error);
// Whether forgetting what can be loaded anew at the path would forget the file of this number; *error says why nothing
// can be.
bool loader_means(loader* load, const std::string& path, uint32_t number, std::string* error);
// Syncs, saves the progress and closes.
void loader_close(loader* load);
// After a failure: keeps what can still be kept, and returns what the user can do about the rest. Throws std::bad_alloc
// at most.
std::string loader_give_up(loader* load);

}  // namespace veldar::tool

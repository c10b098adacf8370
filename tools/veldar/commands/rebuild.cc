// veldar rebuild: loads anew the logs whose events were in slices that salvage put aside.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include "tools/libveldar/check/slice_image.h"
#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/load/merging.h"
#include "tools/libveldar/load/progress.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/log_input.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/store.h"
#include "tools/libveldar/store/troubles.h"
#include "tools/veldar/commands/command.h"

namespace veldar::tool {

namespace {

namespace fs = std::filesystem;

constexpr char REBUILT[] = ".rebuilt";
constexpr char QUARANTINE[] = "quarantine";
// In the store's quarantine, while a rebuild is not over: the numbers of the logs that it forgets and loads, a line each.
// A rebuild that was cut off has forgotten some of them, as a user may have others for good.
constexpr char PLAN[] = "/quarantine/rebuild.plan";

struct rebuild_options {
    std::vector<std::string> slices;
    load_options load;
};

// A log to load anew.
struct lost_log {
    uint32_t number;
    std::string path, source;
    std::string host, sourcetype;  // empty: as a load without options has it
    bool operator<(const lost_log& other) const { return path < other.path; }
};

// The bucket that a slice put aside comes from: STORE/quarantine/BUCKET/NAME or STORE/BUCKET/quarantine/NAME.
const store_bucket& bucket_of(const store& st, const std::string& slice) {
    std::error_code ignored;
    const fs::path directory = fs::absolute(slice, ignored).lexically_normal().parent_path();
    const bool of_store = directory.filename() != QUARANTINE;
    const fs::path bucket =
        of_store ? directory.parent_path().parent_path() / directory.filename() : directory.parent_path();
    for (const store_bucket& one : st.buckets) {
        const bool is_aside = !of_store || directory.parent_path().filename() == QUARANTINE;
        if (is_aside && fs::equivalent(bucket, one.directory, ignored)) return one;
    }
    throw failure_t{OUTCOME_USAGE, slice + ": no slice that salvage put aside in this store"};
}

// The slices that salvage put aside.
std::vector<std::string> find_slices(const store& st) {
    std::vector<std::string> found;
    for (const store_bucket& bucket : st.buckets) {
        const std::string name = bucket.directory.substr(bucket.directory.rfind('/'));
        for (const std::string& aside : {st.path + "/" + QUARANTINE + name, bucket.directory + "/" + QUARANTINE}) {
            if (!disk_exists(aside)) continue;
            for (const std::string& slice : disk_list_directory(aside)) {
                if (slice.ends_with("tsidx")) found.push_back(aside + "/" + slice);
            }
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Which addresses the slice's events can have: all of them where its header cannot say.
std::pair<uint64_t, uint64_t> addresses_of(const std::string& slice) {
    slice_image image;
    std::string error;
    if (slice_image_open(slice, &image, &error) != IMAGE_OPEN) throw failure_t{OUTCOME_IO, error};
    const st_warm_slice_body& h = image.header;
    const bool says = image.has_header && warm_header_is_rev1(&h) && h.seek_addr_min.get() <= h.seek_addr_max.get();
    return says ? std::pair<uint64_t, uint64_t>(h.seek_addr_min.get(), h.seek_addr_max.get())
                : std::pair<uint64_t, uint64_t>(0, UINT32_MAX);
}

std::string name_of(const store_dictionary& dictionary, uint32_t number) {
    return number < dictionary.names.size() ? dictionary.names[number] : std::string();
}

lost_log log_of(const loader& load, const source_file& file, std::string path) {
    const std::string host = name_of(load.st.hosts, file.host), type = name_of(load.st.sourcetypes, file.sourcetype);
    const bool usual_type = file.format.substr(0, file.format.find_first_of(" \t\n")) == type;
    return {file.number, std::move(path), name_of(load.st.sources, file.source), host == load.machine ? "" : host,
            usual_type ? "" : type};
}

// Adds the numbers of the logs that have such addresses and were not forgotten.
void plan_slice(const store& st, const std::string& slice, std::set<uint32_t>* plan) {
    const source_map& map = bucket_of(st, slice).map;
    const auto [first, last] = addresses_of(slice);
    for (size_t i = 0; i < map.stretches.size(); i++) {
        const source_stretch& stretch = map.stretches[i];
        const uint64_t end = stretch.base + (source_map_stretch_end(map, i) - stretch.offset);
        if (stretch.base > last || end <= first || !map.files.contains(stretch.number)) continue;
        if (!map.forgotten.contains(stretch.number)) plan->insert(stretch.number);
    }
}

std::set<uint32_t> read_plan(const std::string& path) {
    std::set<uint32_t> plan;
    std::string text;
    if (!disk_exists(path)) return plan;
    if (!disk_read_file(path, &text)) throw failure_t{OUTCOME_IO, path + ": " + std::strerror(errno)};
    std::istringstream numbers(text);
    for (uint32_t number = 0; numbers >> number;) plan.insert(number);
    return plan;
}

void write_plan(const std::string& path, const std::set<uint32_t>& plan) {
    std::string text;
    for (const uint32_t number : plan) text += std::to_string(number) + "\n";
    disk_make_directory(path.substr(0, path.rfind('/')));
    if (!disk_replace_file(path, text, true)) throw failure_t{OUTCOME_IO, path + ": " + std::strerror(errno)};
}

// The logs with these numbers. False when one of them is nowhere any more.
bool find_logs(const loader& load, const std::set<uint32_t>& plan, std::set<lost_log>* logs) {
    bool all = true;
    for (const uint32_t number : plan) {
        const auto has_file = [number](const store_bucket& bucket) { return bucket.map.files.contains(number); };
        const auto bucket = std::find_if(load.st.buckets.begin(), load.st.buckets.end(), has_file);
        if (bucket == load.st.buckets.end()) continue;
        const source_file& file = bucket->map.files.at(number);
        std::string unread, path;
        if (file.kind != SOURCE_SPOOL) path = source_file_locate(file, bucket->directory, &unread);
        if (path.empty() && unread.empty()) unread = "the log is not there any more; its lost events stay lost";
        if (path.empty()) say_trouble(file.path + ": " + unread);
        all = all && !path.empty();
        if (!path.empty()) logs->insert(log_of(load, file, std::move(path)));
    }
    return all;
}

// In a load of its own, so that its options are the log's.
bool load_anew(const std::string& store, const lost_log& log, load_options options, load_totals* totals) {
    if (options.host.empty()) options.host = log.host;
    if (options.sourcetype.empty()) options.sourcetype = log.sourcetype;
    options.files = {log.path};
    loader load;
    loader_open(&load, store, options);
    std::string error;
    // A number that is not known has been forgotten, with another one of the same log or by a run that was killed. One
    // that the path does not mean, as the log could not be read a moment ago, stays, and so does all else of it; what is
    // still known would count as loaded.
    const auto is_known = [&] { return load.known.by_number.contains(log.number); };
    if (is_known() && loader_means(&load, log.path, log.number, &error)) loader_forget(&load, log.path, true, &error);
    const bool forgot = !is_known();
    if (!forgot && error.empty()) error = "it cannot be told from other logs";
    const bool read = forgot && loader_load(&load, log.path, &error, log.source);
    loader_close(&load);
    if (!read) say_trouble(log.path + ": " + error);
    totals->events += load.totals.events;
    return read;
}

int rebuild_run(const tool_context& context, const rebuild_options& options) {
    const std::string store = store_choose(context.store);
    if (!disk_exists(store) || !store_is(store)) throw failure_t{OUTCOME_USAGE, store + ": no store is there"};
    const std::string plan_path = store + PLAN;
    std::vector<std::string> slices = options.slices;
    std::set<uint32_t> plan = read_plan(plan_path);
    std::set<lost_log> logs;
    bool all = true;
    {
        loader load;
        const load_options plain;
        loader_open(&load, store, plain);
        if (slices.empty()) slices = find_slices(load.st);
        for (const std::string& slice : slices) plan_slice(load.st, slice, &plan);
        all = find_logs(load, plan, &logs);
        loader_close(&load);
    }
    if (!logs.empty()) write_plan(plan_path, plan);
    work_catch_interrupts();
    load_totals totals;
    for (const lost_log& log : logs) {
        all = load_anew(store, log, options.load, &totals) && all;
        if (work_stops()) return OUTCOME_INTERRUPTED;
    }
    std::printf("%zu slices put aside, %zu logs loaded anew, %s events\n", slices.size(), logs.size(),
                number_text(totals.events).c_str());
    if (!all) return OUTCOME_INCOMPLETE;
    for (const std::string& slice : slices) {
        if (std::rename(slice.c_str(), (slice + REBUILT).c_str()) != 0) {
            throw failure_t{OUTCOME_IO, slice + ": " + std::strerror(errno)};
        }
    }
    if (disk_exists(plan_path) && std::remove(plan_path.c_str()) != 0) {
        throw failure_t{OUTCOME_IO, plan_path + ": " + std::strerror(errno)};
    }
    merge_after_load(store_bucket_directories(store));
    return OUTCOME_DONE;
}

}  // namespace

void add_rebuild_command(const command& veldar) {
    static rebuild_options options;
    const command rebuild = veldar.subcommand("rebuild", "Load anew the logs of what salvage could not save");
    rebuild.footer(
        "For the slices in the store's quarantine/, or those given: deletes the events of every log that had events "
        "in\n"
        "them and loads these logs anew, each line once. Events of these logs that were deleted come back.\n"
        "Options of the load are given again. Then the slices are renamed to *.rebuilt; they can be removed.\n"
        "Exit status: 0, 3 when a log is not there any more.");
    rebuild.text("SLICE", &options.slices, "Slices in quarantine (else all of them)");
    rebuild.text("--host", &options.load.host, "As of load");
    rebuild.text("--sourcetype", &options.load.sourcetype, "As of load");
    rebuild.text("--format", &options.load.format, "As of load");
    rebuild.text("--tz", &options.load.zone, "As of load");
    rebuild.flag("--parts", &options.load.parts, "As of load");
    rebuild.run([](const tool_context& context) { return rebuild_run(context, options); });
}

}  // namespace veldar::tool

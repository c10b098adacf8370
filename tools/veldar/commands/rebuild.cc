// veldar rebuild: loads anew the logs whose events were in slices that salvage put aside.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>

#include "tools/veldar/check/slice_image.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/load/loader.h"
#include "tools/veldar/load/merging.h"
#include "tools/veldar/load/progress.h"
#include "tools/veldar/store/raw_reader.h"
#include "tools/veldar/store/store.h"
#include "tools/veldar/store/tool_file.h"
#include "tools/veldar/store/troubles.h"

namespace veldar::tool {

namespace {

namespace fs = std::filesystem;

constexpr char REBUILT[] = ".rebuilt";

struct rebuild_options {
    std::vector<std::string> slices;
    load_options load;
};

// A log to load anew.
struct lost_log {
    std::string path, host, sourcetype;  // empty: as a load without options has it
    bool operator<(const lost_log& other) const { return path < other.path; }
};

// The slices that salvage put aside, DIRECTORY/NAME, in the store's quarantine.
std::vector<std::string> find_slices(const std::string& store) {
    std::vector<std::string> found;
    const std::string quarantine = store + "/quarantine";
    if (!tool_exists(quarantine)) return found;
    for (const std::string& bucket : tool_list_directory(quarantine)) {
        if (!fs::is_directory(quarantine + "/" + bucket)) continue;
        for (const std::string& name : tool_list_directory(quarantine + "/" + bucket)) {
            if (name.ends_with("tsidx")) found.push_back(quarantine + "/" + bucket + "/" + name);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Which addresses the slice's events can have: all of them where its header cannot say.
std::pair<uint64_t, uint64_t> addresses_of(const std::string& slice) {
    slice_image image;
    std::string error;
    if (slice_image_open(slice, &image, &error) != IMAGE_OPEN) throw tool_failure{EXIT_IO, error};
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
    return {std::move(path), host == load.machine ? "" : host, usual_type ? "" : type};
}

// Adds the logs of the slice's bucket that have such addresses. False when one of them is nowhere any more.
bool add_logs(const loader& load, const std::string& slice, std::set<lost_log>* logs) {
    const std::string bucket = fs::path(slice).parent_path().filename();
    const auto [first, last] = addresses_of(slice);
    bool all = true;
    for (const store_bucket& one : load.st.buckets) {
        if (fs::path(one.directory).filename() != bucket) continue;
        for (size_t i = 0; i < one.map.stretches.size(); i++) {
            const source_stretch& stretch = one.map.stretches[i];
            const uint64_t end = stretch.base + (source_map_stretch_end(one.map, i) - stretch.offset);
            if (stretch.base > last || end <= first || one.map.forgotten.contains(stretch.number)) continue;
            const source_file& file = one.map.files.at(stretch.number);
            std::string path = file.kind == SOURCE_SPOOL ? "" : source_file_locate(file, one.directory);
            if (path.empty()) say_trouble(file.path + ": the log is not there any more; its lost events stay lost");
            all = all && !path.empty();
            if (!path.empty()) logs->insert(log_of(load, file, std::move(path)));
        }
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
    loader_forget(&load, log.path, true);
    std::string error;
    const bool read = loader_load(&load, log.path, &error);
    loader_close(&load);
    if (!read) say_trouble(log.path + ": " + error);
    totals->events += load.totals.events;
    return read;
}

int rebuild_run(const tool_context& context, const rebuild_options& options) {
    const std::string store = store_choose(context.store);
    if (!tool_exists(store) || !store_is(store)) throw tool_failure{EXIT_USAGE, store + ": no store is there"};
    const std::vector<std::string> slices = options.slices.empty() ? find_slices(store) : options.slices;
    std::set<lost_log> logs;
    bool all = true;
    {
        loader load;
        const load_options plain;
        loader_open(&load, store, plain);
        for (const std::string& slice : slices) all = add_logs(load, slice, &logs) && all;
        loader_close(&load);
    }
    tool_catch_interrupts();
    load_totals totals;
    for (const lost_log& log : logs) {
        if (tool_interrupted != 0) return EXIT_INTERRUPTED;
        all = load_anew(store, log, options.load, &totals) && all;
    }
    std::printf("%zu slices put aside, %zu logs loaded anew, %s events\n", slices.size(), logs.size(),
                number_text(totals.events).c_str());
    if (!all) return EXIT_INCOMPLETE;
    for (const std::string& slice : slices) {
        if (std::rename(slice.c_str(), (slice + REBUILT).c_str()) != 0) {
            throw tool_failure{EXIT_IO, slice + ": " + std::strerror(errno)};
        }
    }
    merge_after_load(store_bucket_directories(store));
    return EXIT_DONE;
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

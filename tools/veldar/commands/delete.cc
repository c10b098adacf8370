// veldar delete: marks the events that a query finds, so that no search shows them again. The logs stay as they are.
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "searchthing/upkeep/tsidx_upkeep.h"
#include "tools/libveldar/query/event_count.h"
#include "tools/libveldar/query/event_source.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

constexpr uint32_t WRITE_LEVEL = 4;  // of the handle; a delete writes no slice

struct delete_options {
    query_options query;
    bool dry_run = false;
};

// The keys of the events to delete, by directory.
std::vector<std::vector<st_tsval_encoded>> find_keys(event_cursor_t* events) {
    std::vector<std::vector<st_tsval_encoded>> found;
    event_t event;
    while (events_next(events, &event)) {
        if (found.size() <= event.source) found.resize(event.source + 1);
        found[event.source].push_back({event.value.time, event.value.address});
    }
    return found;
}

uint64_t greatest_address(const std::vector<st_tsval_encoded>& keys) {
    uint64_t greatest = 0;
    for (const st_tsval_encoded& key : keys) greatest = std::max<uint64_t>(greatest, key.address);
    return greatest;
}

// Deletes what was found in each directory. Events of one key are told apart only by the query itself; in a store no
// two events of a bucket have one key.
uint64_t delete_found(const std::string& path, const prepared_query& query) {
    troubles trouble;
    const slice_set slices = slices_list(path);
    event_source source;
    event_source_open(&source, &slices, &trouble);
    const std::vector<std::vector<st_tsval_encoded>> found = find_keys(events_open(query, 0, &source).get());
    if (trouble.incomplete) {
        throw failure_t{OUTCOME_INCOMPLETE, "not everything could be searched: nothing was deleted"};
    }
    const st_query_spec spec = query_of_plan(query, query.plans.front());
    uint64_t deleted = 0;
    for (size_t i = 0; i < found.size(); i++) {
        const std::vector<st_tsval_encoded>& keys = found[i];
        if (keys.empty()) continue;
        const slice_directory& directory = slices.directories[i];
        if (directory.has_sources) store_note_deleted(directory.path, greatest_address(keys));
        const tsidx_ptr tsidx = index_handle_open(directory.path, WRITE_LEVEL);
        const bool by_query = !directory.has_sources && query_needs_index_only(query);
        const int64_t count = by_query ? st_tsidx_delete_by_query(tsidx.get(), &spec)
                                       : st_tsidx_delete_by_key(tsidx.get(), keys.data(), keys.size());
        if (count < 0) {
            throw failure_t{OUTCOME_IO, fmt::format("{}: {}; {} events were deleted before", directory.path,
                                                    index_failure_text(tsidx.get()), deleted)};
        }
        deleted += static_cast<uint64_t>(count);
    }
    return deleted;
}

void require_directory(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        throw failure_t{OUTCOME_USAGE, path + ": a single slice; -s names the store or the index directory"};
    }
}

int delete_run(const tool_context& context, const delete_options& options) {
    const prepared_query query = query_prepare(options.query);
    const std::string path = store_choose(context.store);
    require_directory(path);
    text_output out;
    output_open(&out, "never");
    if (options.dry_run) {
        troubles trouble;
        const uint64_t found = count_events(path, query, &trouble);
        output_put(&out, fmt::format("{} events would be deleted\n", found));
        output_flush(&out);
        return answer_status(found > 0, trouble);
    }
    const uint64_t deleted = delete_found(path, query);
    output_put(&out, fmt::format("{} events deleted\n", deleted));
    output_flush(&out);
    return deleted > 0 ? OUTCOME_DONE : OUTCOME_NOT_FOUND;
}

}  // namespace

void add_delete_command(const command& veldar) {
    static delete_options options;
    const command remove = veldar.subcommand("delete", "Delete the events that a query finds");
    remove.footer(
        "The events are marked in the index and found no more; the logs stay as they are.\n"
        "Exit status: 0, 1 when nothing was found, 3 when not everything could be searched (then nothing is deleted).");
    add_query_options(remove, &options.query);
    remove.flag("--dry-run", &options.dry_run, "Only print how many events would be deleted");
    remove.run([](const tool_context& context) { return delete_run(context, options); });
}

}  // namespace veldar::tool

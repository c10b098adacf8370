// veldar health: how much the time ranges of the slices overlap, as a number and drawn.
#include "searchthing/directory/health.h"

#include <fmt/format.h>

#include <array>
#include <memory>

#include "tools/libveldar/query/time_input.h"
#include "tools/libveldar/store/index_handle.h"
#include "tools/libveldar/store/slices.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

using health_histogram_t = std::array<uint32_t, HEALTH_BUCKETS>;

// How many slices lie over each 128th of the time: a blank for none, then 1 to 9, then "+".
std::string drawing(const health_histogram_t& histogram) {
    std::string out;
    for (const uint32_t count : histogram) {
        out += count == 0 ? ' ' : count > 9 ? '+' : static_cast<char>('0' + count);
    }
    return out;
}

void put_directory(text_output* out, const slice_directory& directory, int number, const health_stat& stat,
                   const health_histogram_t& histogram) {
    output_put(out, fmt::format("{}: health {}, {} slice{}\n", directory.name, number, stat.count,
                                stat.count == 1 ? "" : "s"));
    if (stat.count == 0) return;
    const std::string earliest = event_time_text(stat.most_earliest, 0, out->zone),
                      latest = event_time_text(stat.most_latest, 0, out->zone);
    output_put(
        out, fmt::format("|{}|\n {}{:>{}}\n", drawing(histogram), earliest, latest, HEALTH_BUCKETS - earliest.size()));
}

int health_run(const tool_context& context, const std::string& path, const std::string& zone) {
    const slice_set slices = slices_list(context.path_or_store(path));
    text_output out;
    output_open(&out, "never");
    out.zone = time_zone_of(zone);
    troubles trouble;
    slices_tell_errors(slices, &trouble);
    for (const slice_directory& directory : slices.directories) {
        const tsidx_ptr tsidx = index_handle_open(directory.path, 0);
        const auto stat = std::make_unique<health_stat>();
        health_histogram_t histogram = {};
        const int number = tsidx_health_histogram(tsidx.get(), stat.get(), histogram.data());
        if (number < 0) {
            troubles_add(&trouble, directory.path + ": its slices cannot be listed: " + index_failure_text(tsidx.get()),
                         OUTCOME_IO);
        } else {
            put_directory(&out, directory, number, *stat, histogram);
        }
    }
    output_flush(&out);
    return trouble.status;
}

}  // namespace

void add_health_command(const command& veldar) {
    static std::string path, zone;
    const command health = veldar.subcommand("health", "Show how much the time ranges of slices overlap");
    health.footer(
        "0 is best: every time is in one slice. The line below it stands for the time from the earliest to the latest\n"
        "event, each column for one 128th of it: how many slices lie over it, + for more than 9.");
    health.text("PATH", &path, "A store or an index directory (else the store)");
    add_zone_option(health, &zone);
    health.run([](const tool_context& context) { return health_run(context, path, zone); });
}

}  // namespace veldar::tool

// veldar merge-answers: the partial answers of several stores as one.
#include <cerrno>
#include <cstring>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/observer.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/commands/spread.h"

namespace veldar::tool {

namespace {

struct merge_options {
    std::vector<std::string> files;
    bool is_partial = false;
    merged_view view;
};

// Throws failure_t with OUTCOME_USAGE for a format that the command which asked does not have.
void check_format(const std::string& kind, const std::string& format) {
    const std::string tables = "table tsv csv jsonl";
    std::string formats;
    if (kind == "search") formats = "raw addr " + tables;
    if (kind == "samples") formats = "text csv jsonl openmetrics";
    if (kind == "stats" || kind == "metric-stats" || kind == "new") formats = tables;
    if (format.empty() || (" " + formats + " ").find(" " + format + " ") != std::string::npos) return;
    throw failure_t{OUTCOME_USAGE, "--format " + format + ": answers of " + kind + " have " +
                                       (formats.empty() ? "no formats" : "the formats " + formats)};
}

// All answers of a file; what is none is told as lacking.
void take_answers(const std::string& name, std::string_view bytes, std::vector<named_partial>* answers,
                  std::vector<std::string>* lacks) {
    size_t number = 0;
    do {
        named_partial answer;
        std::string fault;
        number++;
        answer.name = number == 1 ? name : name + " (" + std::to_string(number) + ")";
        if (!partial_take(&bytes, &answer.answer, &fault)) {
            lacks->push_back(answer.name + ": " + fault);
            return;
        }
        answers->push_back(std::move(answer));
    } while (!bytes.empty());
}

int merge_run(merge_options options) {
    std::vector<std::string> files = options.files;
    if (files.empty()) files = {"-"};
    std::vector<std::string> bytes(files.size());
    std::vector<named_partial> answers;
    std::vector<std::string> lacks;
    for (size_t i = 0; i < files.size(); i++) {
        const std::string name = files[i] == "-" ? "standard input" : files[i];
        if (!disk_read_input(files[i], &bytes[i])) {
            lacks.push_back(name + ": " + std::strerror(errno));
            continue;
        }
        take_answers(name, bytes[i], &answers, &lacks);
    }
    if (answers.empty()) {
        for (const std::string& one : lacks) say_trouble(one);
        throw failure_t{OUTCOME_INCOMPLETE, "there is no partial answer"};
    }
    merged_answer merged = partials_merge(std::move(answers));
    merged_lack(&merged, lacks);
    check_format(merged.asked.kind, options.view.format);
    options.view.stats.colour = options.view.color;
    return options.is_partial ? merged_write_out(merged) : merged_show(merged, options.view);
}

}  // namespace

void add_merge_answers_command(const command& veldar) {
    static merge_options options;
    const command merge = veldar.subcommand("merge-answers", "Make one answer of those that --partial wrote");
    merge.footer("An answer that is cut off or damaged is left out and named; the exit status is 3 then.");
    merge.text("FILE", &options.files, "Partial answers to one question, - for standard input (the default)");
    merge.flag("--partial", &options.is_partial, "Write a partial answer again, for the next merge");
    merge
        .text("--format", &options.view.format,
              "As of the command that asked: raw, table, jsonl, csv, tsv, addr, text or openmetrics")
        .one_of({"raw", "table", "jsonl", "csv", "tsv", "addr", "text", "openmetrics"});
    merge.flag("-r,--reverse", &options.view.oldest_first, "Print the oldest events or samples first");
    merge.text("--fill", &options.view.fill, "Bins of metrics without samples: none, zero or last")
        .one_of({"none", "zero", "last"});
    merge.flag("--plot", &options.view.stats.plot, "Draw statistics, also into a pipe");
    merge.text("--color", &options.view.color, "auto, always or never").one_of({"auto", "always", "never"});
    add_zone_option(merge, &options.view.zone);
    merge.run([](const tool_context&) { return merge_run(options); });
}

}  // namespace veldar::tool

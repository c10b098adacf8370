#include "tools/libveldar/load/dating.h"

namespace veldar::tool {

namespace {

constexpr size_t EXAMPLE_BYTES = 120;

std::string example_of(const dated_line& line) {
    std::string_view text = line.text.substr(0, line.text.find('\n'));
    if (text.ends_with('\r')) text.remove_suffix(1);
    std::string example(line.path);
    if (line.number != 0) example += ":" + std::to_string(line.number);
    example.append(": ").append(text.substr(0, EXAMPLE_BYTES));
    return text.size() > EXAMPLE_BYTES ? example + "..." : example;
}

}  // namespace

void dating_add(dating_report* report, dating_t kind, const dated_line& line, uint64_t count) {
    if (report->counts[kind] == 0 && kind != DATED_ITSELF) report->examples[kind] = example_of(line);
    report->counts[kind] += count;
}

std::vector<std::string> dating_examples(const dating_report& report) {
    constexpr const char* NAMES[DATINGS] = {"", "dated by another line", "dated by its file",
                                            "joined to the line before", "refused"};
    std::vector<std::string> lines;
    for (size_t kind = 0; kind < DATINGS; kind++) {
        if (!report.examples[kind].empty()) {
            lines.push_back(std::string("the first line ") + NAMES[kind] + ": " + report.examples[kind]);
        }
    }
    return lines;
}

}  // namespace veldar::tool

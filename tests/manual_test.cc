// The manual, the help and completion: each command has its page and examples that work, and the shells ask the tool.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

#include "tests/support/damage.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/veldar/commands/examples.h"

namespace veldar {
namespace {

namespace fs = std::filesystem;

// What the examples speak of.
void make_files(const temp_dir& dir) {
    std::string access, app, metrics = "# TYPE http_requests counter\n", cpu = "time,host,value\n";
    for (int i = 0; i < 400; i++) {
        char time[64];
        std::snprintf(time, sizeof time, "01/May/2024:00:%02d:%02d +0000", i * 3 / 60, i * 3 % 60);
        access += "10.0.0." + std::to_string(i % 9) + " - - [" + time + "] \"GET /" +
                  (i % 50 == 0 ? "private" : "item/" + std::to_string(i % 7)) + " HTTP/1.1\" " +
                  (i % 11 == 0              ? "404"
                   : i > 250 && i % 17 == 0 ? "503"
                                            : "200") +
                  " " + std::to_string(i * 31) + " \"-\" \"" + (i % 13 == 0 ? "bot" : "browser") + "\"\n";
        const std::string stamp = "2024-05-01T00:" + std::string(time + 15, 5) + "Z";
        app +=
            "time=" + stamp + " level=" + (i % 40 == 0 ? "error msg=\"connection refused\"" : "info msg=fine") + "\n";
        if (i % 20 != 0) continue;
        const std::string seconds = " " + std::to_string(1714521600 + i * 3) + "\n";
        for (const char* const code : {"200", "500"}) {
            metrics += std::string("http_requests_total{code=\"") + code + "\"} " + std::to_string(i) + seconds;
        }
        cpu += stamp + ",web1," + std::to_string(i) + "\n";
    }
    fs::create_directories(dir.file("logs"));
    write_file(dir.file("access.log"), access);
    write_file(dir.file("app.log"), app);
    write_file(dir.file("logs/other.log"), app + "time=2024-05-02T00:00:00Z level=info\n");
    write_file(dir.file("scrape.om"), metrics + "# EOF\n");
    write_file(dir.file("cpu.csv"), cpu);
}

// Runs a line in a directory, as a shell does; its output goes to the files "out" and "err".
int run_line(const std::string& directory, const std::string& line) {
    const std::string all = "cd '" + directory +
                            "' && PATH=" VELDAR_TOOLS_DIR "/veldar:" VELDAR_TOOLS_DIR
                            ":$PATH VELDAR_STORE= HOME=. bash -c '" +
                            [&] {
                                std::string quoted;
                                for (const char c : line)
                                    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
                                return quoted;
                            }() +
                            "' >out 2>err";
    const int status = std::system(all.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

TEST(Manual, EveryCommandHasAPageWithExamplesThatWork) {
    const temp_dir dir;
    make_files(dir);
    ASSERT_EQ(run_line(dir.file(""),
                       "veldar load access.log app.log && veldar metrics load scrape.om cpu.csv && "
                       "veldar dump --format tsv > events.tsv && "
                       "mkdir pages && veldar __manual pages " VELDAR_SOURCE_DIR "/docs"),
              0)
        << read_file(dir.file("err"));
    std::map<std::string, int> examples;
    for (const tool::command_example& example : tool::command_examples()) {
        const std::string copy = dir.file("copy");
        examples[example.command]++;
#ifndef VELDAR_HAS_SQLITE
        if (std::string(example.command) == "sql") continue;
#endif
        fs::remove_all(copy);
        fs::create_directories(copy);
        for (const char* const name :
             {".veldar", "access.log", "app.log", "logs", "scrape.om", "cpu.csv", "events.tsv"}) {
            fs::copy(dir.file(name), copy + "/" + name, fs::copy_options::recursive);
        }
        const bool follows = std::string(example.command) == "watch";
        const std::string line = std::string(follows ? "timeout -s TERM 2 " : "") + "veldar " + example.line;
        const int status = run_line(copy, line);
        EXPECT_EQ(status, follows ? 124 : 0) << line << "\n" << read_file(copy + "/err") << read_file(copy + "/out");
    }
    size_t pages = 0;
    for (const auto& entry : fs::directory_iterator(dir.file("pages"))) {
        const std::string name = entry.path().filename(), page = read_file(entry.path());
        std::string command = entry.path().stem();
        std::istringstream lines(page);
        for (std::string line; std::getline(lines, line);) {
            const bool is_request = line.starts_with('.') || line.starts_with('\'');
            const std::string request = line.substr(0, line.find(' '));
            EXPECT_TRUE(!is_request ||
                        std::string(".TH .SH .SS .PP .TP .IP .B .nf .fi .RS .RE").find(request) != std::string::npos)
                << name << ": " << line;
            for (const char c : line) EXPECT_TRUE(static_cast<unsigned char>(c) < 0x80) << name << ": " << line;
        }
        if (!name.ends_with(".1")) continue;
        EXPECT_NE(page.find("\n.SH EXIT STATUS\n"), std::string::npos) << name;
        EXPECT_NE(page.find("\n.SH EXAMPLES\n"), std::string::npos) << name;
        if (command == "veldar" || command == "dictscan" || command == "veldar-metrics") continue;
        command = command.substr(7);
        if (command.starts_with("metrics-")) command[7] = ' ';
        EXPECT_GE(examples[command], 2) << command;
        pages++;
    }
    EXPECT_EQ(pages, examples.size());
}

TEST(Completion, KnowsCommandsOptionsAndTheStore) {
    const temp_dir dir;
    make_files(dir);
    ASSERT_EQ(run_line(dir.file(""), "veldar load access.log && veldar metrics load scrape.om"), 0);
    const std::vector<std::string> rows = data_rows("completions");
    for (size_t i = 0; i + 1 < rows.size(); i += 2) {
        EXPECT_EQ(run_line(dir.file(""), "veldar __complete " + rows[i]), 0) << rows[i];
        std::string found = read_file(dir.file("out"));
        std::replace(found.begin(), found.end(), '\n', ' ');
        EXPECT_EQ(found, rows[i + 1] + (rows[i + 1].empty() ? "" : " ")) << rows[i];
    }
    // bash takes words apart at "=".
    const std::string ask =
        "source <(veldar completion bash); COMP_WORDS=(veldar search status = 4); COMP_CWORD=4; _veldar; "
        "printf '%s\\n' \"${COMPREPLY[@]}\"; "
        "COMP_WORDS=(veldar fsck \"\"); COMP_CWORD=2; _veldar; printf '%s\\n' \"${#COMPREPLY[@]}\"";
    EXPECT_EQ(run_line(dir.file(""), ask), 0);
    EXPECT_EQ(read_file(dir.file("out")), "404\n4\n");
}

TEST(Version, TellsCommitAndLibraries) {
    const tool_result told = run_tool("veldar/veldar", {"--version"});
    EXPECT_EQ(told.status, 0);
    for (const char* const part : {"veldar 0.", "\ncommit ", "\nzlib 1.", "zstd 1."}) {
        EXPECT_NE(told.out.find(part), std::string::npos) << told.out;
    }
}

}  // namespace
}  // namespace veldar

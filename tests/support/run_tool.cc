#include "tests/support/run_tool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

constexpr unsigned STEP_US = 500;

int wait_or_signal(pid_t pid, const tool_options& options) {
    int status = 0;
    for (unsigned waited = 0; options.signal != 0 && waited < options.after_us; waited += STEP_US) {
        if (::waitpid(pid, &status, WNOHANG) == pid) return status;
        ::usleep(STEP_US);
    }
    if (options.signal != 0) ::kill(pid, options.signal);
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

pid_t spawn(const std::string& name, const std::vector<std::string>& arguments, posix_spawn_file_actions_t* actions) {
    const std::string tool = std::string(VELDAR_TOOLS_DIR) + "/" + name;
    std::vector<char*> argv = {const_cast<char*>(tool.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    EXPECT_EQ(::posix_spawn(&pid, tool.c_str(), actions, nullptr, argv.data(), environ), 0) << tool;
    ::posix_spawn_file_actions_destroy(actions);
    return pid;
}

}  // namespace

int start_tool(const std::string& name, const std::vector<std::string>& arguments, const std::string& err) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    return spawn(name, arguments, &actions);
}

tool_result run_tool(const std::string& name, const std::vector<std::string>& arguments, const tool_options& options) {
    const temp_dir dir;
    const std::string err = dir.file("err");
    const std::string out = options.output.empty() ? dir.file("out") : options.output;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    const std::string in = options.input.empty() ? "/dev/null" : options.input;
    ::posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
    ::posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
    for (int fd = 0; options.closed && fd < 3; fd++) ::posix_spawn_file_actions_addclose(&actions, fd);
    const pid_t pid = spawn(name, arguments, &actions);
    const int status = wait_or_signal(pid, options);
    return {options.output.empty() ? read_file(out) : "", read_file(err),
            WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status)};
}

}  // namespace veldar

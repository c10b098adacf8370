#include "tests/support/temp_dir.h"

#include <fcntl.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace veldar {

namespace {

// One directory a process, removed at exit, so that parallel tests never meet.
struct root_dir {
    std::string path;
    root_dir() {
        const char* base = ::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/veldar-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp " + pattern);
        path = pattern;
    }
    ~root_dir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

}  // namespace

const std::string& temp_dir::root() {
    static const root_dir root;
    return root.path;
}

temp_dir::temp_dir() {
    std::string pattern = root() + "/t-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp " + pattern);
    path_ = pattern;
}

temp_dir::~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

unique_fd open_file(const std::string& path, const std::string& content) {
    write_file(path, content);
    return unique_fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
}

}  // namespace veldar

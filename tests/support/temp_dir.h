// A fresh directory for one test, removed with everything in it when the test ends.
#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

#include "libzero/resource.h"

namespace veldar {

class temp_dir {
  public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // The parent of every temp_dir of this process: what the leak listener looks into.
    static const std::string& root();

  private:
    std::string path_;
};

// Sets an environment variable, and puts back what it was.
class variable_set {
  public:
    variable_set(const char* name, const char* value) : name_(name) {
        if (const char* const before = ::getenv(name); before != nullptr) before_ = before;
        ::setenv(name, value, 1);
    }
    ~variable_set() { before_ ? ::setenv(name_, before_->c_str(), 1) : ::unsetenv(name_); }
    variable_set(const variable_set&) = delete;
    variable_set& operator=(const variable_set&) = delete;

  private:
    const char* name_;
    std::optional<std::string> before_;
};
// The file system of a test machine need not be one that locks are sure on.
class lock_optimism : variable_set {
  public:
    lock_optimism() : variable_set("OPTIMISTIC_ABOUT_FILE_LOCKING", "1") {}
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
// The same file, open for reading and writing.
unique_fd open_file(const std::string& path, const std::string& content = "");

}  // namespace veldar

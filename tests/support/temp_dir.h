// A fresh directory for one test, removed with everything in it when the test ends.
#pragma once

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

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
// The same file, open for reading and writing.
unique_fd open_file(const std::string& path, const std::string& content = "");

}  // namespace veldar

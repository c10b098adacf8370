// A directory below TMPDIR that goes with its owner.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace veldar {

class scratch_dir {
  public:
    scratch_dir() : path_((std::filesystem::temp_directory_path() / "veldar-bench-XXXXXX").string()) {
        if (::mkdtemp(path_.data()) == nullptr) throw std::filesystem::filesystem_error("mkdtemp", path_, {});
    }
    ~scratch_dir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace veldar

// Everything that a program does to the files below a directory, and the states in which a loss of power may leave them.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace veldar {

struct file_op {
    enum kind_t { NOTE, CREATE, DATA, SIZE, SYNC, LINK, UNLINK, RENAME, SYNC_NAMES } kind = NOTE;
    uint64_t inode = 0;              // of CREATE, DATA, SIZE, SYNC
    uint64_t offset = 0;             // of DATA; of SIZE the new size; of NOTE what was noted
    std::string bytes = {};          // of DATA
    std::string path = {}, to = {};  // of operations on names; of SYNC_NAMES the directory
};

// While it lives, successful calls that change files below the directory are logged, with what they write. Marks in a
// mapping count as written when they are flushed. One at a time; the directories below it stay the same.
class file_log {
  public:
    explicit file_log(std::string directory);
    ~file_log();
    file_log(const file_log&) = delete;
    file_log& operator=(const file_log&) = delete;

    // Notes that the program has come so far.
    void note(uint64_t what) const;
    void stop();
    const std::vector<file_op>& operations() const { return operations_; }

    // The tree as it may be on the disk when the power fails behind the first `count` operations: what was flushed is
    // there, of the rest some, all or nothing, a write perhaps in part. With `ordered` the names come in the order in
    // which they were made, as file systems with a journal do it, else any of them. Relative path -> bytes.
    std::map<std::string, std::string> after_power_loss(size_t count, bool ordered, std::mt19937* random) const;

  private:
    std::string directory_;
    std::vector<file_op> operations_;
    std::map<std::string, uint64_t> names_;     // at its beginning
    std::map<uint64_t, std::string> contents_;  // of these
};

}  // namespace veldar

// What the engine does to the file system, in order.
#pragma once

#include <string>
#include <vector>

namespace veldar {

// While it lives, calls that succeed are noted: "create", "write", "sync" (fsync and fdatasync), "mark" (msync), "link",
// "rename", "unlink" and the names of the files, of a slice's name the part behind the number. Writes to one file in a
// row are one. Locks, markers and parameters are left out.
class call_record {
  public:
    call_record();
    ~call_record();
    call_record(const call_record&) = delete;
    call_record& operator=(const call_record&) = delete;

    std::vector<std::string> take();  // and begins afresh
};

}  // namespace veldar

// Reads the raw records of events back: from the address through the source map to the bytes of the log.
//
// A log that was renamed, rotated or compressed since is looked for in its directory: the same inode under another
// name, and names that begin with its name (".gz", the numbers of rotations); what is found counts only when its first
// bytes hash as they did.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/libveldar/store/log_input.h"
#include "tools/libveldar/store/source_map.h"

namespace veldar::tool {

struct raw_reader;
struct raw_reader_close {
    void operator()(raw_reader* reader) const;
};
using raw_reader_ptr = std::unique_ptr<raw_reader, raw_reader_close>;

struct raw_record {
    std::string text;                   // the whole record as it stands in the log, without the newline that ends it
    std::string path;                   // where it was read from now
    uint64_t offset = 0;                // of the record in the (decompressed) file
    uint64_t size = 0;                  // bytes of the record, its newline included
    const source_file* file = nullptr;  // of the reader's map
};

// A reader for one bucket directory. Null with a message when its source map cannot be read. Never throws but
// std::bad_alloc. For one thread.
raw_reader_ptr raw_reader_open(const std::string& bucket_directory, std::string* error);
// The record of an event. False with a message that names the file when it cannot be read.
[[nodiscard]] bool raw_reader_fetch(raw_reader* reader, uint64_t address, raw_record* out, std::string* error);
// Lines around a record that the reader gave, for context: up to `before` whole lines that end where it begins, and up
// to `after` lines behind its end, oldest first, each without its newline; at most 1 MiB on either side. False with a
// message that names the file when a failure leaves some of them out.
[[nodiscard]] bool raw_reader_context(raw_reader* reader, const raw_record& record, uint32_t before, uint32_t after,
                                      std::vector<std::string>* lines_before, std::vector<std::string>* lines_after,
                                      std::string* error);

// The path at which a file of a source map stands now, empty when it is not found: *unread then tells of what could not
// be looked at, and is empty when all could. `directory` is the bucket's.
std::string source_file_locate(const source_file& file, const std::string& directory, std::string* unread);
// Opens the very file that was loaded (its inode), when it stands in its directory under any name and begins as it did.
[[nodiscard]] bool source_file_open_original(const source_file& file, log_input* input);
// The name in a bucket of the access points of a compressed file.
std::string source_points_name(uint32_t number);
// Whether a name is that of an older piece of the log `name`, as log rotation gives them: "app.log.1", "app.log.2.gz",
// "app.log-20261122", "app.log.old".
bool is_rotation_of(const std::string& name, std::string other);

}  // namespace veldar::tool

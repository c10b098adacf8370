// The bytes of a log, whatever holds them: a plain file, a gzip file (known by its first bytes), or a pipe of either.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "libzero/resource.h"
#include "tools/veldar/store/gz_stream.h"

namespace veldar::tool {

struct log_input {
    std::string path;  // for messages
    unique_fd fd;
    bool pipe = false;  // cannot be read again
    uint64_t device = 0, inode = 0, size = 0, modified_ns = 0;
    std::string head;               // the first bytes, decompressed: at most LOG_HEAD_MAX
    std::unique_ptr<gz_stream> gz;  // null for plain bytes
    uint64_t offset = 0;            // of the next byte that log_input_read gives, decompressed
    std::string ahead;              // of a pipe: what was read before it was asked for, from `offset` on
    std::string failed;             // the failure that comes behind `ahead`
};

inline constexpr size_t LOG_HEAD_MAX = 65536;

// Opens a file, or standard input for "-", and reads its head. Other pipes than those that this process was given
// (/dev/fd/N) are refused, as nobody may ever write them. False with a message that does not name the path.
[[nodiscard]] bool log_input_open(log_input* input, const std::string& path, std::string* error);
// Up to `size` bytes: how many, 0 at the end, negative with a message.
[[nodiscard]] int64_t log_input_read(log_input* input, char* out, size_t size, std::string* error);
// Goes to an offset of the decompressed bytes. A pipe only goes forward.
[[nodiscard]] bool log_input_seek(log_input* input, uint64_t offset, std::string* error);

}  // namespace veldar::tool

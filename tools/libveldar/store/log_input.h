// The bytes of a log, whatever holds them: a plain file, a compressed one (known by its first bytes), or a pipe of
// either; a text in UTF-16 reads as UTF-8.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "libzero/resource.h"
#include "tools/libveldar/store/packed_stream.h"
#include "tools/libveldar/store/wide_text.h"

namespace veldar::tool {

struct log_input {
    std::string path;  // for messages
    unique_fd fd;
    bool pipe = false;  // cannot be read again
    uint64_t device = 0, inode = 0, size = 0, modified_ns = 0;
    std::string head;                       // the first bytes, decoded: at most LOG_HEAD_MAX
    size_t first_size = 0;                  // of a file that is not compressed: the first bytes as they are stored, and
    uint64_t first_hash = 0;                // their XXH64
    std::unique_ptr<packed_stream> packed;  // null for what is not compressed
    std::unique_ptr<wide_text> wide;        // null for what is not UTF-16
    uint64_t stored_end = ~uint64_t{0};     // of a file that is not compressed: nothing is read from here on
    uint64_t offset = 0;                    // of the next byte that log_input_read gives, decoded
    std::string ahead;                      // what was read before it was asked for, from `offset` on
    std::string failed;                     // the failure that comes behind `ahead`
};

inline constexpr size_t LOG_HEAD_MAX = 65536;

// Opens a file, or standard input for "-", and reads its head. Other pipes than those that this process was given
// (/dev/fd/N) are refused, as nobody may ever write them. False with a message that does not name the path.
[[nodiscard]] bool log_input_open(log_input* input, const std::string& path, std::string* error);
// Whether offsets are those of the bytes in a file: it is not compressed, decoded or a pipe.
inline bool log_input_is_plain(const log_input& input) {
    return !input.pipe && input.packed == nullptr && input.wide == nullptr;
}
// Whether a file that is not compressed begins as when it was opened. Else it was cut meanwhile and may be written anew,
// and what was read last may be of either content. True for what cannot be told of. False with a message when the file
// cannot be read again.
bool log_input_is_uncut(const log_input& input, std::string* error);
// Whether someone may be writing the file now: it had changed in the last five seconds.
bool log_input_is_young(const log_input& input);
// How far the file itself has been read.
uint64_t log_input_stored_offset(const log_input& input);
// Of a file that is no pipe and not compressed: sets stored_end behind the last line end. Whether that leaves bytes out;
// a message when the file cannot be read.
bool log_input_leave_last_line(log_input* input, std::string* error);
// Up to `size` bytes: how many, 0 at the end, negative with a message.
[[nodiscard]] int64_t log_input_read(log_input* input, char* out, size_t size, std::string* error);
// Goes to an offset of the decoded bytes. A pipe only goes forward.
[[nodiscard]] bool log_input_seek(log_input* input, uint64_t offset, std::string* error);

}  // namespace veldar::tool

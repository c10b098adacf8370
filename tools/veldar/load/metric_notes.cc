#include "tools/veldar/load/metric_notes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>

#include "tools/veldar/store/tool_failure.h"
#include "tools/veldar/store/tool_file.h"

namespace veldar::tool {

namespace {

constexpr uint64_t HEAD_SIZE = 4096;
constexpr size_t PIECE = size_t{1} << 20;

// Goes on to the first `size` bytes, which are not fewer than before. False with a message, also for a shorter file.
bool hash_up_to(file_hash* hash, int fd, uint64_t size, uint64_t* out, std::string* error) {
    std::vector<char> piece(static_cast<size_t>(std::min<uint64_t>(size - hash->at, PIECE)));
    while (hash->at < size) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(size - hash->at, piece.size()));
        const int64_t got = tool_read_at(fd, piece.data(), want, hash->at);
        if (got <= 0) {
            *error = got < 0 ? std::strerror(errno) : "it became shorter while it was read";
            return false;
        }
        XXH64_update(hash->state, piece.data(), static_cast<size_t>(got));
        hash->at += static_cast<uint64_t>(got);
    }
    *out = XXH64_digest(hash->state);
    return true;
}

bool hash_head(int fd, uint64_t size, uint64_t* out, std::string* error) {
    file_hash hash;
    return hash_up_to(&hash, fd, std::min(size, HEAD_SIZE), out, error);
}

bool parse_note(std::string_view line, metric_note* note) {
    for (uint64_t* const number : {&note->size, &note->hash, &note->head, &note->options, &note->offset}) {
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), *number, 16);
        if (error != std::errc()) return false;
        line.remove_prefix(static_cast<size_t>(end - line.data()));
        if (!line.empty()) line.remove_prefix(1);
    }
    return line.empty();
}

}  // namespace

file_hash::file_hash() : state(XXH64_createState()) {
    if (state == nullptr) throw std::bad_alloc();
    XXH64_reset(state, 0);
}

file_hash::~file_hash() {
    XXH64_freeState(state);
}

void metric_notes_open(metric_notes* notes, const std::string& directory, bool durable) {
    notes->path = directory + "/metrics.loaded";
    notes->durable = durable;
    notes->fd.reset(::open(notes->path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    std::string content;
    if (!notes->fd.valid() || !tool_read_file(notes->path, &content)) fail_io("cannot open " + notes->path, errno);
    std::string_view rest = content;
    for (size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
        metric_note note;
        if (parse_note(rest.substr(0, end), &note)) notes->notes.push_back(note);
    }
    notes->size = content.size() - rest.size();
    if (!rest.empty() && ::ftruncate(notes->fd.get(), static_cast<off_t>(notes->size)) != 0) {
        fail_io("cannot shorten " + notes->path, errno);
    }
}

bool metric_notes_find(const metric_notes& notes, const log_input& input, uint64_t options, uint64_t* offset,
                       std::string* error) {
    *offset = 0;
    uint64_t head = 0, found = 0;
    if (!hash_head(input.fd.get(), input.size, &head, error)) return false;
    std::vector<metric_note> candidates;
    for (const metric_note& note : notes.notes) {
        // Of a gzip file a beginning is no file, and its text may begin like that of another.
        const bool fits = input.gz != nullptr ? note.size == input.size : note.size <= input.size;
        if (note.options == options && fits && (note.size < HEAD_SIZE || note.head == head)) candidates.push_back(note);
    }
    std::sort(candidates.begin(), candidates.end(),
              [](const metric_note& a, const metric_note& b) { return a.size < b.size; });
    file_hash hash;
    for (const metric_note& note : candidates) {
        if (!hash_up_to(&hash, input.fd.get(), note.size, &found, error)) return false;
        if (found == note.hash) *offset = std::max(*offset, note.offset);
    }
    return true;
}

bool metric_note_make(file_hash* hash, const log_input& input, uint64_t options, uint64_t offset, metric_note* note,
                      std::string* error) {
    const uint64_t size = input.gz != nullptr ? input.size : offset;
    *note = {size, 0, 0, options, offset};
    return hash_head(input.fd.get(), size, &note->head, error) &&
           hash_up_to(hash, input.fd.get(), size, &note->hash, error);
}

void metric_notes_add(metric_notes* notes, const metric_note& note) {
    const std::string line =
        fmt::format("{:x} {:x} {:x} {:x} {:x}\n", note.size, note.hash, note.head, note.options, note.offset);
    if (!tool_write_at(notes->fd.get(), line, notes->size)) fail_io("cannot write " + notes->path, errno);
    if (notes->durable && ::fdatasync(notes->fd.get()) != 0) fail_io("cannot sync " + notes->path, errno);
    notes->size += line.size();
    notes->notes.push_back(note);
}

}  // namespace veldar::tool

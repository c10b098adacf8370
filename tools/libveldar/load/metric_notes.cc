#include "tools/libveldar/load/metric_notes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>

#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

namespace {

constexpr uint64_t HEAD_SIZE = 4096;
constexpr size_t PIECE = size_t{1} << 20;

// Goes on to the first `size` bytes, which are not fewer than before. False with a message, also for a shorter file.
bool hash_up_to(file_hash* hash, int fd, uint64_t size, uint64_t* out, std::string* error) {
    std::vector<char> piece(static_cast<size_t>(std::min<uint64_t>(size - hash->at, PIECE)));
    while (hash->at < size) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(size - hash->at, piece.size()));
        const int64_t got = disk_read_at(fd, piece.data(), want, hash->at);
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

uint64_t hash_text(std::string_view text) {
    return XXH64(text.data(), text.size(), 0);
}

bool parse_note(std::string_view line, metric_note* note) {
    const std::string_view whole = line;
    uint64_t check = 0;
    for (uint64_t* const number : {&note->size, &note->hash, &note->head, &note->options, &note->offset, &check}) {
        const uint64_t before = hash_text(whole.substr(0, whole.size() - line.size()));
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), *number, 16);
        if (error != std::errc()) return false;
        line.remove_prefix(static_cast<size_t>(end - line.data()));
        if (number == &check) return line.empty() && check == before;
        if (number == &note->offset && line.empty()) return true;
        if (!line.starts_with(' ')) return false;
        line.remove_prefix(1);
    }
    return false;
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
    const std::string content = line_file_open(&notes->file, directory + "/metrics.loaded", durable);
    uint64_t number = 1;
    for (size_t at = 0, end; (end = content.find('\n', at)) != std::string::npos; at = end + 1, number++) {
        metric_note note;
        if (parse_note(std::string_view(content).substr(at, end - at), &note)) {
            notes->notes.push_back(note);
        } else {
            say_trouble(notes->file.path + ": line " + std::to_string(number) +
                        " is damaged: the file that it notes counts as not loaded");
        }
    }
}

bool metric_notes_find(const metric_notes& notes, const log_input& input, uint64_t options, uint64_t* offset,
                       std::string* error) {
    *offset = 0;
    uint64_t head = 0, found = 0;
    if (!hash_head(input.fd.get(), input.size, &head, error)) return false;
    std::vector<metric_note> candidates;
    for (const metric_note& note : notes.notes) {
        // Of a compressed file a beginning is no file, and its text may begin like that of another.
        const bool fits = log_input_is_plain(input) ? note.size <= input.size : note.size == input.size;
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
    const uint64_t size = log_input_is_plain(input) ? offset : input.size;
    *note = {size, 0, 0, options, offset};
    return hash_head(input.fd.get(), size, &note->head, error) &&
           hash_up_to(hash, input.fd.get(), size, &note->hash, error);
}

std::string metric_note_line(const metric_note& note) {
    const std::string line =
        fmt::format("{:x} {:x} {:x} {:x} {:x} ", note.size, note.hash, note.head, note.options, note.offset);
    return line + fmt::format("{:x}", hash_text(line));
}

void metric_notes_add_line(metric_notes* notes, std::string_view line) {
    metric_note note;
    if (!parse_note(line, &note)) {
        return say_trouble(notes->file.path + ": a note is damaged: the file that it notes counts as not loaded");
    }
    if (std::find(notes->notes.begin(), notes->notes.end(), note) != notes->notes.end()) return;
    line_file_add(&notes->file, metric_note_line(note) + "\n");
    notes->notes.push_back(note);
}

}  // namespace veldar::tool

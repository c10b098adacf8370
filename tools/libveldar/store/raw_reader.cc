#include "tools/libveldar/store/raw_reader.h"

#include <dirent.h>
#include <sys/stat.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

#include "tools/libveldar/store/record_reader.h"

namespace veldar::tool {

namespace {

constexpr size_t FIRST_READ = 64 << 10;
constexpr uint64_t CACHE_BACK = PACKED_POINT_SPAN;  // decoded bytes kept before the wanted one
constexpr uint64_t CONTEXT_ROOM = 2 * FIRST_READ;
constexpr size_t CACHE_MAX = 2 * PACKED_POINT_SPAN;

// An open file and the piece of its decompressed bytes that was read last.
struct open_source {
    log_input input;
    uint64_t start = 0;
    std::string bytes;
    bool at_end = false;  // the piece ends where the file ends
    std::string failure;  // why it ends before
    uint64_t used = 0;    // number of the last fetch
};

bool same_head(const source_file& file, const log_input& input) {
    return input.head.size() >= file.head_size && XXH64(input.head.data(), file.head_size, 0) == file.head_hash;
}

// False also when there is something else; *unread tells of a file that is there and cannot be read.
bool open_checked(const source_file& file, const std::string& path, log_input* input, std::string* unread) {
    std::string error;
    struct stat st = {};
    *input = log_input();
    const bool is_known = ::stat(path.c_str(), &st) == 0;
    if (is_known && !S_ISREG(st.st_mode)) return false;  // a directory may be called like a log
    if (!is_known && (errno == ENOENT || errno == ENOTDIR)) return false;
    if (log_input_open(input, path, &error)) return !input->pipe && same_head(file, *input);
    if (error != std::strerror(ENOENT)) *unread = "cannot read " + path + ": " + error;
    return false;
}

// What the names of all rotations of a log begin with: "a.log" for "a.log.2.gz" and for "a.log-20240501".
std::string rotation_base(std::string name) {
    name.resize(packed_name_stem(name).size());
    const size_t number = name.find_last_not_of("0123456789");
    const bool numbered = number != std::string::npos && number > 0 && number + 1 < name.size() &&
                          (name[number] == '.' || name[number] == '-');
    if (numbered) name.resize(number);
    return name;
}

// Paths worth opening, the likeliest first. When the directory cannot be read to its end, *error says so.
std::vector<std::string> candidates(const source_file& file, std::string* error) {
    std::vector<std::string> found = {file.path};
    const size_t slash = file.path.rfind('/');
    const std::string directory = file.path.substr(0, slash + 1), name = file.path.substr(slash + 1);
    const std::string base = rotation_base(name);
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(directory.c_str()), ::closedir);
    std::vector<std::string> alike;
    errno = dir == nullptr && errno != ENOENT ? errno : 0;
    for (const dirent* entry = nullptr; dir != nullptr && (entry = ::readdir(dir.get())) != nullptr; errno = 0) {
        const std::string other = entry->d_name;
        if (entry->d_ino == file.inode && other != name) found.push_back(directory + other);
        if (entry->d_ino != file.inode && other != name && other.starts_with(base)) alike.push_back(directory + other);
    }
    if (errno != 0) *error = "cannot read " + directory + ": " + std::strerror(errno);
    std::sort(alike.begin(), alike.end());
    found.insert(found.end(), alike.begin(), alike.end());
    return found;
}

// False when it is not found; *unread tells of what could not be looked at. `directory` is the bucket's.
bool locate_and_open(const source_file& file, const std::string& directory, log_input* input, std::string* unread) {
    const bool is_spool = file.kind == SOURCE_SPOOL;
    const auto paths = is_spool ? std::vector{directory + "/" + file.path} : candidates(file, unread);
    for (const std::string& path : paths) {
        if (open_checked(file, path, input, unread)) return true;
    }
    return false;
}

// Where reading begins so that `offset` is reached: before it, as records are mostly asked for newest first; in a
// compressed file at an access point that leaves room for context lines, so that these do not ask for the point before.
uint64_t run_start(const open_source& source, uint64_t offset) {
    if (source.input.packed == nullptr) return offset / FIRST_READ * FIRST_READ;
    const uint64_t point = packed_point_before(*source.input.packed, offset > CONTEXT_ROOM ? offset - CONTEXT_ROOM : 0);
    return std::max(point, offset > CACHE_BACK ? offset - CACHE_BACK : 0);
}

// Makes the piece hold [offset, offset + size) as far as the file reaches; false with a message when a failure has left
// it shorter.
bool load_run(open_source* source, uint64_t offset, size_t size, std::string* error) {
    const bool inside = offset >= source->start && offset - source->start <= source->bytes.size() + FIRST_READ;
    if (!inside || source->bytes.size() > CACHE_MAX + size) {
        source->bytes.clear();
        source->failure.clear();
        source->at_end = false;
        source->start = run_start(*source, offset);
    }
    if (!log_input_seek(&source->input, source->start + source->bytes.size(), error)) return false;
    const uint64_t want = offset - source->start + size;
    while (source->bytes.size() < want && !source->at_end) {
        const size_t had = source->bytes.size();
        source->bytes.resize(had + std::max<size_t>(static_cast<size_t>(want) - had, FIRST_READ));
        const int64_t got =
            log_input_read(&source->input, source->bytes.data() + had, source->bytes.size() - had, error);
        source->bytes.resize(had + (got > 0 ? static_cast<size_t>(got) : 0));
        source->failure = got < 0 ? *error : "";
        // What a compressed file held before its damage is what was loaded from it.
        source->at_end = got == 0 || (got < 0 && source->input.packed != nullptr);
        if (got < 0) break;
    }
    if (source->bytes.size() >= want || source->failure.empty()) return true;
    *error = source->failure;
    return false;
}

}  // namespace

struct raw_reader {
    std::string directory;
    source_map map;
    std::map<uint32_t, std::unique_ptr<open_source>> sources;
    uint64_t fetches = 0;
    std::map<uint32_t, std::string> missing;  // and why; looked for once; many events may ask for them
};

void raw_reader_close::operator()(raw_reader* reader) const {
    delete reader;
}

namespace {

constexpr size_t MAX_OPEN = 16;

open_source* source_of(raw_reader* reader, const source_file& file, std::string* error) {
    const auto known = reader->sources.find(file.number);
    reader->fetches++;
    if (known != reader->sources.end()) {
        known->second->used = reader->fetches;
        return known->second.get();
    }
    auto source = std::make_unique<open_source>();
    source->used = reader->fetches;
    const auto missing = reader->missing.find(file.number);
    if (missing != reader->missing.end()) {
        *error = missing->second;
        return nullptr;
    }
    std::string unread;
    if (!locate_and_open(file, reader->directory, &source->input, &unread)) {
        *error = file.path + ": not found, here or renamed or compressed, with the content that was loaded";
        if (!unread.empty()) *error += "; " + unread;
        reader->missing.emplace(file.number, *error);
        return nullptr;
    }
    if (reader->sources.size() >= MAX_OPEN) {
        reader->sources.erase(
            std::min_element(reader->sources.begin(), reader->sources.end(),
                             [](const auto& a, const auto& b) { return a.second->used < b.second->used; }));
    }
    if (source->input.packed != nullptr) {
        source->input.packed->points.clear();
        packed_load_points(source->input.packed.get(), reader->directory + "/" + source_points_name(file.number));
    }
    return (reader->sources[file.number] = std::move(source)).get();
}

// The bytes of the piece from an offset on, `size` of them as far as they are there: none behind the end of a file that
// became shorter.
std::string_view run_bytes(const open_source& source, uint64_t offset, uint64_t size) {
    const std::string_view bytes = source.bytes;
    return bytes.substr(static_cast<size_t>(std::min<uint64_t>(offset - source.start, bytes.size())),
                        static_cast<size_t>(size));
}

// The bytes of the record, from the piece; more and more of them until its end is there.
bool read_record(open_source* source, const source_place& place, std::string_view* record, std::string* error) {
    const uint64_t most = place.end - place.offset;
    const record_cut cut = record_cut_of(place.file->records, place.cut);
    for (size_t size = FIRST_READ;; size *= 2) {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(size, most));
        const bool loaded = load_run(source, place.offset, wanted, error);
        const std::string_view have = run_bytes(*source, place.offset, most);
        const bool all = have.size() == most || source->at_end;
        const size_t length = record_length(cut, have, all);
        *record = have.substr(0, length);
        if (length != 0) return true;
        if (!loaded) return false;
        if (all) {
            *error = "is shorter than what was loaded from it";
            return false;
        }
    }
}

// Both read a little first and more when that holds too few lines, up to RECORD_MAX.

bool read_lines_before(open_source* source, uint64_t end, uint32_t count, std::vector<std::string>* lines,
                       std::string* error) {
    lines->clear();
    for (uint64_t span = FIRST_READ; lines->size() < count && end > 0; span *= 4) {
        const uint64_t from = end > span ? end - span : 0;
        if (!load_run(source, from, static_cast<size_t>(end - from), error)) return false;
        std::string_view bytes = run_bytes(*source, from, end - from);
        lines->clear();
        while (lines->size() < count && !bytes.empty()) {
            if (bytes.ends_with('\n')) bytes.remove_suffix(1);
            const size_t newline = bytes.rfind('\n');
            if (newline == std::string_view::npos && from > 0) break;
            const size_t begin = newline == std::string_view::npos ? 0 : newline + 1;
            lines->emplace_back(record_text(bytes.substr(begin)));
            bytes = bytes.substr(0, begin);
        }
        if (from == 0 || span >= RECORD_MAX) break;
    }
    std::reverse(lines->begin(), lines->end());
    return true;
}

bool read_lines_after(open_source* source, uint64_t from, uint32_t count, std::vector<std::string>* lines,
                      std::string* error) {
    lines->clear();
    for (uint64_t span = FIRST_READ; lines->size() < count; span *= 4) {
        const bool loaded = load_run(source, from, static_cast<size_t>(span), error);
        std::string_view bytes = run_bytes(*source, from, span);
        const bool all = bytes.size() < span || span >= RECORD_MAX;
        lines->clear();
        while (lines->size() < count && !bytes.empty()) {
            const size_t newline = bytes.find('\n');
            if (newline == std::string_view::npos && !all) break;
            const size_t size = newline == std::string_view::npos ? bytes.size() : newline + 1;
            lines->emplace_back(record_text(bytes.substr(0, size)));
            bytes.remove_prefix(size);
        }
        if (!loaded && lines->size() < count) return false;
        if (all) break;
    }
    return true;
}

}  // namespace

std::string source_points_name(uint32_t number) {
    return "points-" + std::to_string(number);
}

std::string source_file_locate(const source_file& file, const std::string& directory, std::string* unread) {
    log_input input;
    unread->clear();
    return locate_and_open(file, directory, &input, unread) ? input.path : std::string();
}

bool source_file_open_original(const source_file& file, log_input* input) {
    std::string error;
    const std::vector<std::string> paths = candidates(file, &error);
    return std::any_of(paths.begin(), paths.end(), [&](const std::string& path) {
        struct stat st;
        return ::stat(path.c_str(), &st) == 0 && st.st_ino == file.inode && st.st_dev == file.device &&
               open_checked(file, path, input, &error) && (file.kind == SOURCE_PACKED) == (input->packed != nullptr);
    });
}

raw_reader_ptr raw_reader_open(const std::string& bucket_directory, std::string* error) {
    raw_reader_ptr reader(new raw_reader);
    reader->directory = bucket_directory;
    if (!source_map_open(&reader->map, bucket_directory + "/source.map", false, error)) return nullptr;
    return reader;
}

bool is_rotation_of(const std::string& name, std::string other) {
    if (other == name + ".old") return true;
    while (other.size() > name.size()) {
        const std::string base = rotation_base(other);
        if (base.size() == other.size()) return false;
        other = base;
    }
    return other == name;
}

bool raw_reader_fetch(raw_reader* reader, uint64_t address, raw_record* out, std::string* error) {
    const std::optional<source_place> place = source_map_find(reader->map, address);
    if (!place || place->offset >= place->end) {
        *error = reader->map.path + ": no file holds address " + std::to_string(address);
        return false;
    }
    open_source* source = source_of(reader, *place->file, error);
    if (source == nullptr) return false;
    std::string_view record;
    if (!read_record(source, *place, &record, error)) {
        *error = source->input.path + ": " + *error;
        return false;
    }
    out->text = record_content(record_cut_of(place->file->records, place->cut), record, place->offset);
    out->path = source->input.path;
    out->offset = place->offset;
    out->size = record.size();
    out->file = place->file;
    return true;
}

bool raw_reader_context(raw_reader* reader, const raw_record& record, uint32_t before, uint32_t after,
                        std::vector<std::string>* lines_before, std::vector<std::string>* lines_after,
                        std::string* error) {
    open_source* source = source_of(reader, *record.file, error);
    if (source == nullptr) return false;
    const bool read = read_lines_before(source, record.offset, before, lines_before, error) &&
                      read_lines_after(source, record.offset + record.size, after, lines_after, error);
    if (!read) *error = record.path + ": " + *error;
    return read;
}

}  // namespace veldar::tool

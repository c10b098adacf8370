#include "tools/libveldar/store/source_map.h"

#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "libzero/endian.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"

namespace veldar::tool {

namespace {

enum record_kind_t : uint32_t {
    RECORD_FILE = 1,
    RECORD_STRETCH = 2,
    RECORD_MARK = 3,
    RECORD_TAIL = 4,
    RECORD_FORGOTTEN = 5
};

constexpr uint32_t NO_FILE = 0;  // files have numbers from 1 on
constexpr size_t RECORD_HEAD = 8, RECORD_CHECKSUM = 8;
constexpr size_t FILE_FIXED = 66, STRETCH_SIZE = 32, MARK_SIZE = 8, TAIL_SIZE = 32, OLD_TAIL_SIZE = 24,
                 FORGOTTEN_SIZE = 8;

void put32(std::string* out, size_t at, uint32_t value) {
    store_le32(out->data() + at, value);
}
void put64(std::string* out, size_t at, uint64_t value) {
    store_le64(out->data() + at, value);
}
uint32_t get16(const char* at) {
    return static_cast<uint32_t>(static_cast<uint8_t>(at[0]) | static_cast<uint8_t>(at[1]) << 8);
}

std::string encode_file(const source_file& file) {
    std::string p(FILE_FIXED, '\0');
    put64(&p, 0, file.device);
    put64(&p, 8, file.inode);
    put64(&p, 16, file.size);
    put64(&p, 24, file.modified_ns);
    put64(&p, 32, file.head_hash);
    put32(&p, 40, file.head_size);
    put32(&p, 44, file.number);
    put32(&p, 48, file.source);
    put32(&p, 52, file.sourcetype);
    put32(&p, 56, file.host);
    p[60] = static_cast<char>(file.kind);
    p[61] = static_cast<char>(file.crlf);
    p[62] = static_cast<char>(file.path.size() & 0xFF);
    p[63] = static_cast<char>(file.path.size() >> 8);
    p[64] = static_cast<char>(file.format.size() & 0xFF);
    p[65] = static_cast<char>(file.format.size() >> 8);
    return p + file.path + file.format + file.records;
}

std::string encode_stretch(const source_stretch& stretch) {
    std::string p(STRETCH_SIZE, '\0');
    put64(&p, 0, stretch.base);
    put32(&p, 8, stretch.number);
    put32(&p, 12, stretch.cut);
    put64(&p, 16, stretch.offset);
    put64(&p, 24, stretch.limit);
    return p;
}

std::string encode_mark(uint64_t frontier) {
    std::string p(MARK_SIZE, '\0');
    put64(&p, 0, frontier);
    return p;
}

std::string encode_tail(const source_tail& tail) {
    std::string p(TAIL_SIZE, '\0');
    put64(&p, 0, tail.end);
    put64(&p, 8, tail.hash);
    put32(&p, 16, tail.size);
    put32(&p, 20, tail.number);
    put64(&p, 24, tail.whole);
    return p;
}

std::string encode_forgotten(uint32_t number, bool deleted) {
    std::string p(FORGOTTEN_SIZE, '\0');
    put32(&p, 0, number);
    put32(&p, 4, deleted ? 1 : 0);
    return p;
}

bool decode_file(std::string_view p, source_file* file) {
    if (p.size() < FILE_FIXED) return false;
    const size_t path_size = get16(&p[62]), format_size = get16(&p[64]);
    if (p.size() < FILE_FIXED + path_size + format_size || static_cast<uint8_t>(p[60]) > SOURCE_SPOOL) return false;
    file->device = load_le64(&p[0]);
    file->inode = load_le64(&p[8]);
    file->size = load_le64(&p[16]);
    file->modified_ns = load_le64(&p[24]);
    file->head_hash = load_le64(&p[32]);
    file->head_size = load_le32(&p[40]);
    file->number = load_le32(&p[44]);
    file->source = load_le32(&p[48]);
    file->sourcetype = load_le32(&p[52]);
    file->host = load_le32(&p[56]);
    file->kind = static_cast<source_kind_t>(p[60]);
    file->crlf = p[61] != 0;
    file->path = p.substr(FILE_FIXED, path_size);
    file->format = p.substr(FILE_FIXED + path_size, format_size);
    file->records = p.substr(FILE_FIXED + path_size + format_size);
    return true;
}

void apply_stretch(source_map* map, const source_stretch& stretch) {
    while (!map->stretches.empty() && map->stretches.back().base >= stretch.base) map->stretches.pop_back();
    map->stretches.push_back(stretch);
}

bool apply_record(source_map* map, uint32_t kind, std::string_view p) {
    if (kind == RECORD_FILE) {
        source_file file;
        if (!decode_file(p, &file)) return false;
        map->files[file.number] = std::move(file);
    } else if (kind == RECORD_STRETCH && p.size() == STRETCH_SIZE) {
        apply_stretch(map,
                      {load_le64(&p[0]), load_le32(&p[8]), load_le64(&p[16]), load_le64(&p[24]), load_le32(&p[12])});
    } else if (kind == RECORD_MARK && p.size() == MARK_SIZE) {
        map->frontier = load_le64(&p[0]);
    } else if (kind == RECORD_TAIL && (p.size() == TAIL_SIZE || p.size() == OLD_TAIL_SIZE)) {
        const uint64_t whole = p.size() == TAIL_SIZE ? load_le64(&p[24]) : 0;
        map->tails.push_back({load_le32(&p[20]), load_le64(&p[0]), load_le32(&p[16]), load_le64(&p[8]), whole});
    } else if (kind == RECORD_FORGOTTEN && p.size() == FORGOTTEN_SIZE) {
        map->forgotten[load_le32(&p[0])] = load_le32(&p[4]) != 0;
    } else {
        return false;
    }
    return true;
}

// The size of the whole record at `at`, 0 when it is cut short or its checksum fails.
uint64_t record_size(std::string_view bytes, uint64_t at) {
    if (bytes.size() - at < RECORD_HEAD + RECORD_CHECKSUM) return 0;
    const uint64_t payload = load_le32(bytes.data() + at);
    if (bytes.size() - at - RECORD_HEAD - RECORD_CHECKSUM < payload) return 0;
    const uint64_t checked = RECORD_HEAD + payload;
    if (XXH64(bytes.data() + at, checked, at) != load_le64(bytes.data() + at + checked)) return 0;
    return checked + RECORD_CHECKSUM;
}

// Whether a sound record stands anywhere behind the unsound one at `at`: then that one is damage, not a torn append. So
// is what takes longer to search than any append, since each byte may look like the head of a long record.
bool sound_record_follows(std::string_view bytes, uint64_t at) {
    constexpr uint64_t HASHED_PER_BYTE = 64, HASHED_ANYWAY = 1 << 20;
    uint64_t left = HASHED_ANYWAY + HASHED_PER_BYTE * (bytes.size() - at);
    for (uint64_t next = at + 1; next + RECORD_HEAD + RECORD_CHECKSUM <= bytes.size(); next++) {
        const uint64_t hashed = RECORD_HEAD + load_le32(bytes.data() + next);
        if (hashed > bytes.size() - next - RECORD_CHECKSUM) continue;
        if (hashed > left || record_size(bytes, next) != 0) return true;
        left -= hashed;
    }
    return false;
}

bool read_records(source_map* map, std::string_view bytes, std::string* error) {
    uint64_t at = 0;
    while (at < bytes.size()) {
        const uint64_t size = record_size(bytes, at);
        if (size == 0 && !sound_record_follows(bytes, at)) break;
        const std::string_view payload =
            size == 0 ? std::string_view() : bytes.substr(at + RECORD_HEAD, size - RECORD_HEAD - RECORD_CHECKSUM);
        if (size == 0 || !apply_record(map, load_le32(bytes.data() + at + 4), payload)) {
            *error = map->path + ": damaged at byte " + std::to_string(at);
            return false;
        }
        at += size;
    }
    map->size = at;
    return true;
}

constexpr uint64_t NO_BASE = ~uint64_t{0};

uint64_t next_base(const source_map& map, size_t index) {
    return index + 1 < map.stretches.size() ? map.stretches[index + 1].base : NO_BASE;
}

// A record that begins at this offset.
std::string encode_record(uint64_t at, uint32_t kind, std::string_view payload) {
    std::string record(RECORD_HEAD, '\0');
    put32(&record, 0, static_cast<uint32_t>(payload.size()));
    put32(&record, 4, kind);
    record += payload;
    const uint64_t checksum = XXH64(record.data(), record.size(), at);
    record.resize(record.size() + RECORD_CHECKSUM);
    put64(&record, record.size() - RECORD_CHECKSUM, checksum);
    return record;
}

// Of each file the tail that its progress in this bucket reaches and that is the last such, and those beyond.
std::vector<source_tail> last_tails(const source_map& map, const std::set<uint32_t>& without) {
    std::map<uint32_t, uint64_t> progress;
    for (size_t i = 0; i < map.stretches.size(); i++) {
        uint64_t* const end = &progress[map.stretches[i].number];
        *end = std::max(*end, source_map_stretch_end(map, i));
    }
    std::map<uint32_t, source_tail> last;
    std::vector<source_tail> tails;
    for (const source_tail& tail : map.tails) {
        if (without.contains(tail.number)) continue;
        if (tail.end > progress[tail.number]) {
            tails.push_back(tail);
        } else if (tail.end >= last[tail.number].end) {
            last[tail.number] = tail;
        }
    }
    for (const auto& [number, tail] : last) tails.push_back(tail);
    return tails;
}

// Each record is on the disk before the next is written, so that after a power loss only the last can be unsound.
void append_record(source_map* map, uint32_t kind, std::string_view payload) {
    const std::string record = encode_record(map->size, kind, payload);
    if (!disk_write_at(map->fd.get(), record, map->size)) fail_io("cannot write", map->path, errno);
    if (map->durable && ::fdatasync(map->fd.get()) != 0) fail_io("cannot sync", map->path, errno);
    map->size += record.size();
}

std::string rewritten(const source_map& map, const std::set<uint32_t>& without) {
    std::string bytes;
    const auto add = [&](uint32_t kind, const std::string& payload) {
        bytes += encode_record(bytes.size(), kind, payload);
    };
    for (const auto& [number, file] : map.files) {
        if (!without.contains(number)) add(RECORD_FILE, encode_file(file));
    }
    bool in_hole = false;
    for (const source_stretch& stretch : map.stretches) {
        const bool is_hole = stretch.number == NO_FILE || without.contains(stretch.number);
        if (!is_hole) add(RECORD_STRETCH, encode_stretch(stretch));
        if (is_hole && !in_hole) add(RECORD_STRETCH, encode_stretch({stretch.base, NO_FILE, 0, 0, 0}));
        in_hole = is_hole;
    }
    if (map.frontier != 0) add(RECORD_MARK, encode_mark(map.frontier));
    for (const source_tail& tail : last_tails(map, without)) add(RECORD_TAIL, encode_tail(tail));
    for (const auto& [number, deleted] : map.forgotten) {
        if (!without.contains(number)) add(RECORD_FORGOTTEN, encode_forgotten(number, deleted));
    }
    return bytes;
}

}  // namespace

bool source_map_open(source_map* map, const std::string& path, bool writable, std::string* error) {
    map->path = path;
    if (writable) {
        map->fd = disk_open(path, O_RDWR | O_CREAT);
        if (!map->fd.valid()) {
            *error = "cannot open " + path + ": " + std::strerror(errno);
            return false;
        }
    }
    std::string bytes;
    if (!disk_read_file(path, &bytes)) {
        if (errno == ENOENT) return true;
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    if (!read_records(map, bytes, error)) return false;
    if (writable && map->size < bytes.size() && ::ftruncate(map->fd.get(), static_cast<off_t>(map->size)) != 0) {
        *error = "cannot shorten " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

uint64_t source_map_stretch_end(const source_map& map, size_t index) {
    const source_stretch& stretch = map.stretches[index];
    const uint64_t end = std::min(next_base(map, index), map.frontier);
    return end <= stretch.base ? stretch.offset : stretch.offset + (end - stretch.base);
}

std::optional<source_place> source_map_find(const source_map& map, uint64_t address) {
    auto after = std::upper_bound(map.stretches.begin(), map.stretches.end(), address,
                                  [](uint64_t a, const source_stretch& s) { return a < s.base; });
    if (after == map.stretches.begin()) return std::nullopt;
    const size_t index = static_cast<size_t>(after - map.stretches.begin()) - 1;
    const source_stretch& stretch = map.stretches[index];
    const auto file = map.files.find(stretch.number);
    if (file == map.files.end()) return std::nullopt;
    source_place place{&file->second, stretch.offset + (address - stretch.base), stretch.limit, stretch.cut};
    // Behind the last mark a load is under way or was killed: only the next stretch and the limit tell where this ends.
    const uint64_t end = address < map.frontier ? std::min(next_base(map, index), map.frontier) : next_base(map, index);
    if (end != NO_BASE) place.end = std::min(place.end, stretch.offset + (end - stretch.base));
    return place;
}

void source_map_put_file(source_map* map, const source_file& file) {
    append_record(map, RECORD_FILE, encode_file(file));
    map->files[file.number] = file;
}

void source_map_put_stretch(source_map* map, const source_stretch& stretch) {
    append_record(map, RECORD_STRETCH, encode_stretch(stretch));
    apply_stretch(map, stretch);
}

void source_map_put_mark(source_map* map, uint64_t frontier) {
    append_record(map, RECORD_MARK, encode_mark(frontier));
    map->frontier = frontier;
}

void source_map_put_tail(source_map* map, const source_tail& tail) {
    append_record(map, RECORD_TAIL, encode_tail(tail));
    map->tails.push_back(tail);
}

void source_map_put_forgotten(source_map* map, uint32_t number, bool deleted) {
    append_record(map, RECORD_FORGOTTEN, encode_forgotten(number, deleted));
    map->forgotten[number] = deleted;
}

uint64_t source_map_rewritten_size(const source_map& map, const std::set<uint32_t>& without) {
    return rewritten(map, without).size();
}

void source_map_rewrite(source_map* map, const std::set<uint32_t>& without) {
    const std::string bytes = rewritten(*map, without);
    source_map left;
    if (!disk_replace_file(map->path, bytes, map->durable)) fail_io("cannot write", map->path, errno);
    std::string error;
    left.durable = map->durable;
    if (!source_map_open(&left, map->path, true, &error)) throw failure_t{OUTCOME_IO, error};
    *map = std::move(left);
}

}  // namespace veldar::tool

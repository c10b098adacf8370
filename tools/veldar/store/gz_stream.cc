#include "tools/veldar/store/gz_stream.h"

#include <sys/stat.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "libzero/endian.h"
#include "tools/veldar/store/tool_file.h"

namespace veldar::tool {

namespace {

constexpr size_t IN_SIZE = size_t{1} << 18;
constexpr size_t WINDOW = 32768;
constexpr int GZIP_FORMAT = 15 + 16, RAW_DEFLATE = -15;
constexpr size_t GZIP_TRAILER = 8;
constexpr char POINTS_MAGIC[] = "VGZPOINT";
constexpr size_t POINTS_HEAD = 24, POINT_HEAD = 24;

bool out_of_memory(std::string* error) {
    *error = "out of memory";
    return false;
}

// Refills the input when it is used up: 1 when there is some, 0 at the end of the file, -1 with a message.
int fill_input(gz_stream* gz, std::string* error) {
    if (gz->z.avail_in != 0) return 1;
    char* const into = reinterpret_cast<char*>(gz->in.data());
    const int64_t got =
        gz->seekable ? tool_read_at(gz->fd, into, IN_SIZE, gz->in_offset) : tool_read_pipe(gz->fd, into, IN_SIZE);
    if (got < 0) {
        *error = std::strerror(errno);
        return -1;
    }
    gz->in_offset += static_cast<uint64_t>(got);
    gz->z.next_in = gz->in.data();
    gz->z.avail_in = static_cast<uInt>(got);
    return got > 0 ? 1 : 0;
}

int next_byte(gz_stream* gz, std::string* error) {
    const int more = fill_input(gz, error);
    if (more <= 0) return more < 0 ? -2 : -1;
    gz->z.avail_in--;
    return *gz->z.next_in++;
}

// Behind a member: another member follows, or the file ends. What is no member (padding) is left alone, as gzip does.
bool next_member(gz_stream* gz, std::string* error) {
    if (gz->raw) {
        for (size_t i = 0; i < GZIP_TRAILER; i++) {
            const int byte = next_byte(gz, error);
            if (byte == -2) return false;
            if (byte == -1) break;
        }
    }
    const int more = fill_input(gz, error);
    if (more < 0) return false;
    if (more == 0 || *gz->z.next_in != 0x1F) {
        gz->ended = true;
        return true;
    }
    gz->raw = false;
    return inflateReset2(&gz->z, GZIP_FORMAT) == Z_OK || out_of_memory(error);
}

std::string compress_window(const uint8_t* window, size_t size) {
    std::string packed(compressBound(static_cast<uLong>(size)), '\0');
    uLongf packed_size = static_cast<uLongf>(packed.size());
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &packed_size, window, static_cast<uLong>(size), 6) != Z_OK) {
        return {};
    }
    packed.resize(packed_size);
    return packed;
}

// At the border of a deflate block that is not a member's last: remember how to begin here.
void note_point(gz_stream* gz) {
    const uint64_t last = gz->points.empty() ? 0 : gz->points.back().out;
    if (gz->out_offset < last + gz->span) return;
    uint8_t window[WINDOW];
    uInt size = 0;
    if (inflateGetDictionary(&gz->z, window, &size) != Z_OK) return;
    gz_point point{gz->out_offset, gz->in_offset - gz->z.avail_in, static_cast<uint32_t>(gz->z.data_type & 7),
                   compress_window(window, size)};
    if (!point.window.empty()) gz->points.push_back(std::move(point));
}

bool restart(gz_stream* gz, std::string* error) {
    gz->in_offset = gz->out_offset = 0;
    gz->z.avail_in = 0;
    gz->raw = gz->ended = false;
    return inflateReset2(&gz->z, GZIP_FORMAT) == Z_OK || out_of_memory(error);
}

bool start_at_point(gz_stream* gz, const gz_point& point, std::string* error) {
    uint8_t window[WINDOW];
    uLongf size = WINDOW;
    if (uncompress(window, &size, reinterpret_cast<const Bytef*>(point.window.data()),
                   static_cast<uLong>(point.window.size())) != Z_OK ||
        inflateReset2(&gz->z, RAW_DEFLATE) != Z_OK) {
        return restart(gz, error);
    }
    gz->raw = true;
    gz->ended = false;
    gz->z.avail_in = 0;
    gz->out_offset = point.out;
    gz->in_offset = point.in - (point.bits != 0 ? 1 : 0);
    if (point.bits != 0) {
        const int byte = next_byte(gz, error);
        if (byte < 0) return false;
        inflatePrime(&gz->z, static_cast<int>(point.bits), byte >> (8 - point.bits));
    }
    inflateSetDictionary(&gz->z, window, static_cast<uInt>(size));
    return true;
}

const gz_point* point_before(const gz_stream& gz, uint64_t offset) {
    const auto after = std::upper_bound(gz.points.begin(), gz.points.end(), offset,
                                        [](uint64_t o, const gz_point& p) { return o < p.out; });
    return after == gz.points.begin() ? nullptr : &*(after - 1);
}

// The head of the points file that belongs to this gzip file; empty when it cannot be told.
std::string points_head(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(GZIP_TRAILER)) return {};
    std::string head(POINTS_HEAD, '\0');
    std::memcpy(head.data(), POINTS_MAGIC, 8);
    store_le64(&head[8], static_cast<uint64_t>(st.st_size));
    if (tool_read_at(fd, &head[16], GZIP_TRAILER, static_cast<uint64_t>(st.st_size) - GZIP_TRAILER) != GZIP_TRAILER) {
        return {};
    }
    return head;
}

}  // namespace

gz_stream::~gz_stream() {
    if (open) inflateEnd(&z);
}

bool gz_open(gz_stream* gz, int fd, bool seekable, std::string* error) {
    gz->fd = fd;
    gz->seekable = seekable;
    if (!gz->in.alloc(IN_SIZE) || inflateInit2(&gz->z, GZIP_FORMAT) != Z_OK) return out_of_memory(error);
    gz->open = true;
    return true;
}

int64_t gz_read(gz_stream* gz, char* out, size_t size, std::string* error) {
    size = std::min(size, size_t{1} << 30);
    gz->z.next_out = reinterpret_cast<Bytef*>(out);
    gz->z.avail_out = static_cast<uInt>(size);
    const auto given = [&] { return static_cast<int64_t>(size - gz->z.avail_out); };
    while (gz->z.avail_out != 0 && !gz->ended) {
        const int more = fill_input(gz, error);
        if (more <= 0) {
            if (more == 0) *error = "the compressed data is cut short at byte " + std::to_string(gz->in_offset);
            return given() > 0 ? given() : -1;
        }
        const uInt before = gz->z.avail_out;
        const int rc = inflate(&gz->z, Z_BLOCK);
        gz->out_offset += before - gz->z.avail_out;
        if (rc == Z_STREAM_END) {
            if (!next_member(gz, error)) return given() > 0 ? given() : -1;
        } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
            *error = "the compressed data is damaged before byte " + std::to_string(gz->in_offset - gz->z.avail_in) +
                     (gz->z.msg != nullptr ? std::string(" (") + gz->z.msg + ")" : "");
            return given() > 0 ? given() : -1;
        } else if (gz->seekable && (gz->z.data_type & 128) != 0 && (gz->z.data_type & 64) == 0) {
            note_point(gz);
        }
    }
    return given();
}

uint64_t gz_point_before(const gz_stream& gz, uint64_t offset) {
    const gz_point* point = point_before(gz, offset);
    return point == nullptr ? 0 : point->out;
}

bool gz_seek(gz_stream* gz, uint64_t offset, std::string* error) {
    const gz_point* point = point_before(*gz, offset);
    const uint64_t from = point == nullptr ? 0 : point->out;
    if (offset < gz->out_offset || from > gz->out_offset) {
        if (!(point == nullptr ? restart(gz, error) : start_at_point(gz, *point, error))) return false;
    }
    buffer<char> skipped;
    if (gz->out_offset < offset && !skipped.alloc(IN_SIZE)) return out_of_memory(error);
    while (gz->out_offset < offset) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(offset - gz->out_offset, skipped.size()));
        const int64_t got = gz_read(gz, skipped.data(), size, error);
        if (got == 0) *error = "the file holds only " + std::to_string(gz->out_offset) + " bytes";
        if (got <= 0) return false;
    }
    return true;
}

bool gz_save_points(const gz_stream& gz, const std::string& path) {
    std::string content = points_head(gz.fd);
    if (content.empty()) return true;
    for (const gz_point& point : gz.points) {
        std::string entry(POINT_HEAD, '\0');
        store_le64(&entry[0], point.out);
        store_le64(&entry[8], point.in);
        store_le32(&entry[16], point.bits);
        store_le32(&entry[20], static_cast<uint32_t>(point.window.size()));
        entry += point.window;
        char checksum[8];
        store_le64(checksum, XXH64(entry.data(), entry.size(), 0));
        content.append(entry).append(checksum, sizeof checksum);
    }
    return tool_replace_file(path, content, false);
}

void gz_load_points(gz_stream* gz, const std::string& path) {
    std::string content;
    const std::string head = points_head(gz->fd);
    if (head.empty() || !tool_read_file(path, &content) || content.compare(0, POINTS_HEAD, head) != 0) return;
    std::string_view left = std::string_view(content).substr(POINTS_HEAD);
    while (left.size() >= POINT_HEAD + 8) {
        const uint64_t checked = POINT_HEAD + uint64_t{load_le32(&left[20])};
        if (left.size() < checked + 8 || XXH64(left.data(), checked, 0) != load_le64(left.data() + checked)) return;
        const uint32_t bits = load_le32(&left[16]);
        const uint64_t out = load_le64(&left[0]);
        if (bits > 7 || (!gz->points.empty() && out <= gz->points.back().out)) return;
        gz->points.push_back(
            {out, load_le64(&left[8]), bits, std::string(left.substr(POINT_HEAD, checked - POINT_HEAD))});
        left.remove_prefix(checked + 8);
    }
}

}  // namespace veldar::tool

#include "tools/libveldar/store/packed_stream.h"

#include <sys/stat.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "libzero/endian.h"
#include "tools/libveldar/store/disk_file.h"

namespace veldar::tool {

namespace {

using namespace std::string_view_literals;

constexpr size_t IN_SIZE = size_t{1} << 18;
constexpr char POINTS_MAGIC[] = "VGZPOINT";
constexpr size_t POINTS_HEAD = 24, POINT_HEAD = 24, ENDING = 8;

struct format_row {
    packed_format_t format;
    std::string_view magic, suffix;
    std::unique_ptr<packed_decoder> (*decoder)();
    uint8_t member_first, member_first_until;  // what the first byte of a further member is within
};

// Skippable frames of zstd begin with 50 to 5F.
constexpr format_row FORMATS[] = {
    {PACKED_GZIP, "\x1F\x8B"sv, ".gz"sv, packed_gzip_decoder, 0x1F, 0x1F},
    {PACKED_BZIP2, "BZh"sv, ".bz2"sv, packed_bzip2_decoder, 'B', 'B'},
    {PACKED_XZ,
     "\xFD"
     "7zXZ\0"sv,
     ".xz"sv, packed_xz_decoder, 0xFD, 0xFD},
    {PACKED_ZSTD, "\x28\xB5\x2F\xFD"sv, ".zst"sv, packed_zstd_decoder, 0x28, 0x5F},
};

const format_row& row_of(packed_format_t format) {
    return *std::find_if(std::begin(FORMATS), std::end(FORMATS),
                         [&](const format_row& row) { return row.format == format; });
}

// "BZh" alone may begin a word: a block or the end of the stream follows the digit.
bool is_bzip2(std::string_view head) {
    head.remove_prefix(std::min<size_t>(head.size(), 4));
    return head.starts_with("1AY&SY") || head.starts_with("\x17\x72\x45\x38\x50\x90");
}

bool out_of_memory(std::string* error) {
    *error = "out of memory";
    return false;
}

// Reads more: 1 when there is some, 0 at the end of the file, -1 with a message.
int fill_input(packed_input* in, std::string* error) {
    char* const into = reinterpret_cast<char*>(in->bytes.data());
    const int64_t got =
        in->seekable ? disk_read_at(in->fd, into, IN_SIZE, in->offset) : disk_read_pipe(in->fd, into, IN_SIZE);
    if (got < 0) {
        *error = std::strerror(errno);
        return -1;
    }
    in->offset += static_cast<uint64_t>(got);
    in->next = in->bytes.data();
    in->left = static_cast<size_t>(got);
    return got > 0 ? 1 : 0;
}

// At a place where reading can begin: remembers it, when the last one is far enough away.
void note_point(packed_stream* packed, bool at_member) {
    const uint64_t last = packed->points.empty() ? 0 : packed->points.back().out;
    if (!packed->in.seekable || packed->out_offset < last + packed->span) return;
    packed_point point{packed->out_offset, packed->in.position(), 0, {}};
    if (!at_member) packed->decoder->note(packed->in, &point);
    if (at_member || !point.window.empty()) packed->points.push_back(std::move(point));
}

// Behind a member: another member follows, or the file ends. NULs fill up some files; what is no member behind them is
// left alone, as gzip does.
bool next_member(packed_stream* packed, std::string* error) {
    packed_input* const in = &packed->in;
    const format_row& row = row_of(packed->format);
    for (;;) {
        const int more = in->left != 0 ? 1 : fill_input(in, error);
        if (more < 0) return false;
        if (more == 0 || (*in->next != 0 && (*in->next < row.member_first || *in->next > row.member_first_until))) {
            packed->ended = true;
            return true;
        }
        if (*in->next != 0) break;
        in->take();
    }
    note_point(packed, true);
    return packed->decoder->begin(error);
}

bool start_at(packed_stream* packed, const packed_point& point, std::string* error) {
    packed_input* const in = &packed->in;
    packed->ended = false;
    packed->failure.clear();
    packed->out_offset = point.out;
    in->left = 0;
    in->offset = point.in - (point.bits != 0 ? 1 : 0);
    if (point.window.empty()) return packed->decoder->begin(error);
    const int more = fill_input(in, error);
    if (more < 0) return false;
    std::string damage;
    if (more > 0 && packed->decoder->resume(point, in, &damage)) return true;
    return start_at(packed, packed_point(), error);
}

const packed_point* point_before(const packed_stream& packed, uint64_t offset) {
    const auto after = std::upper_bound(packed.points.begin(), packed.points.end(), offset,
                                        [](uint64_t o, const packed_point& p) { return o < p.out; });
    return after == packed.points.begin() ? nullptr : &*(after - 1);
}

// The head of the points file that belongs to this file; empty when it cannot be told.
std::string points_head(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(ENDING)) return {};
    std::string head(POINTS_HEAD, '\0');
    std::memcpy(head.data(), POINTS_MAGIC, 8);
    store_le64(&head[8], static_cast<uint64_t>(st.st_size));
    if (disk_read_at(fd, &head[16], ENDING, static_cast<uint64_t>(st.st_size) - ENDING) != ENDING) return {};
    return head;
}

// What stops the stream, as a message.
void tell(const packed_stream& packed, packed_step_t step, const std::string& why, std::string* error) {
    if (step == PACKED_FAILED) {
        *error = why;
        return;
    }
    const std::string place = "byte " + std::to_string(packed.in.position());
    *error = step == PACKED_NEEDS_INPUT
                 ? "the compressed data is cut short at " + place
                 : "the compressed data is damaged before " + place + (why.empty() ? "" : " (" + why + ")");
}

}  // namespace

packed_format_t packed_format_of(std::string_view head) {
    for (const format_row& row : FORMATS) {
        if (head.starts_with(row.magic) && (row.format != PACKED_BZIP2 || is_bzip2(head))) return row.format;
    }
    return PACKED_NONE;
}

std::string_view packed_name_stem(std::string_view name) {
    for (const format_row& row : FORMATS) {
        if (name.ends_with(row.suffix)) return name.substr(0, name.size() - row.suffix.size());
    }
    return name;
}

bool packed_open(packed_stream* packed, packed_format_t format, int fd, bool seekable, std::string_view taken,
                 std::string* error) {
    packed_input* const in = &packed->in;
    packed->format = format;
    packed->decoder = row_of(format).decoder();
    in->fd = fd;
    in->seekable = seekable;
    if (!in->bytes.alloc(IN_SIZE)) return out_of_memory(error);
    std::copy(taken.begin(), taken.end(), in->bytes.data());
    in->next = in->bytes.data();
    in->left = in->offset = taken.size();
    return packed->decoder->begin(error);
}

int64_t packed_read(packed_stream* packed, char* out, size_t size, std::string* error) {
    packed_output output{out, size};
    while (output.left != 0 && !packed->ended && packed->failure.empty()) {
        std::string why;
        const size_t before = output.left;
        const packed_step_t step = packed->decoder->step(&packed->in, &output, &why);
        packed->out_offset += before - output.left;
        if (step == PACKED_AT_BORDER) {
            note_point(packed, false);
        } else if (step == PACKED_MEMBER_ENDS) {
            static_cast<void>(next_member(packed, &packed->failure));
        } else if (step != PACKED_NEEDS_INPUT || fill_input(&packed->in, &packed->failure) == 0) {
            if (step != PACKED_GOES_ON) tell(*packed, step, why, &packed->failure);
        }
    }
    if (output.left == size && size != 0 && !packed->failure.empty()) {
        *error = packed->failure;
        return -1;
    }
    return static_cast<int64_t>(size - output.left);
}

uint64_t packed_point_before(const packed_stream& packed, uint64_t offset) {
    const packed_point* point = point_before(packed, offset);
    return point == nullptr ? 0 : point->out;
}

bool packed_seek(packed_stream* packed, uint64_t offset, std::string* error) {
    const packed_point* point = point_before(*packed, offset);
    const uint64_t from = point == nullptr ? 0 : point->out;
    if (offset < packed->out_offset || from > packed->out_offset) {
        if (!start_at(packed, point == nullptr ? packed_point() : *point, error)) return false;
    }
    buffer<char> skipped;
    if (packed->out_offset < offset && !skipped.alloc(IN_SIZE)) return out_of_memory(error);
    while (packed->out_offset < offset) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(offset - packed->out_offset, skipped.size()));
        const int64_t got = packed_read(packed, skipped.data(), size, error);
        if (got == 0) *error = "the file holds only " + std::to_string(packed->out_offset) + " bytes";
        if (got <= 0) return false;
    }
    return true;
}

bool packed_save_points(const packed_stream& packed, const std::string& path) {
    std::string content = points_head(packed.in.fd);
    if (content.empty()) return true;
    for (const packed_point& point : packed.points) {
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
    return disk_replace_file(path, content, false);
}

void packed_load_points(packed_stream* packed, const std::string& path) {
    std::string content;
    const std::string head = points_head(packed->in.fd);
    if (head.empty() || !disk_read_file(path, &content) || content.compare(0, POINTS_HEAD, head) != 0) return;
    std::string_view left = std::string_view(content).substr(POINTS_HEAD);
    while (left.size() >= POINT_HEAD + 8) {
        const uint64_t checked = POINT_HEAD + uint64_t{load_le32(&left[20])};
        if (left.size() < checked + 8 || XXH64(left.data(), checked, 0) != load_le64(left.data() + checked)) return;
        const uint32_t bits = load_le32(&left[16]);
        const uint64_t out = load_le64(&left[0]);
        if (bits > 7 || (!packed->points.empty() && out <= packed->points.back().out)) return;
        packed->points.push_back(
            {out, load_le64(&left[8]), bits, std::string(left.substr(POINT_HEAD, checked - POINT_HEAD))});
        left.remove_prefix(checked + 8);
    }
}

}  // namespace veldar::tool

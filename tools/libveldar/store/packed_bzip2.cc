// A member is a stream of bzip2: "BZh" and a digit, blocks that begin at any bit with 314159265359 (hexadecimal), and
// 177245385090 with the checksum of all. libbz2 tells of no borders, so the blocks are found by those numbers, and each
// is decompressed as a stream of its own: reading can begin at any of them.
#include <bzlib.h>

#include <cstring>

#include "tools/libveldar/store/packed_decoder.h"

namespace veldar::tool {

namespace {

constexpr uint64_t BLOCK_MARK = 0x314159265359, END_MARK = 0x177245385090, MARK_MASK = 0xFFFFFFFFFFFF;
constexpr size_t MARK_BITS = 48, CHECK_BITS = 32, STREAM_HEAD = 4;
constexpr size_t BLOCK_BYTES_MAX = size_t{4} << 20;  // compressed; blocks of 900,000 bytes hardly grow
constexpr char BLOCK_WINDOW[] = "block";

// Bits, the highest of each byte first.
struct bit_string {
    std::string bytes;
    size_t count = 0;

    void put(uint64_t value, size_t size) {
        while (size-- > 0) {
            if (count % 8 == 0) bytes.push_back('\0');
            bytes.back() = static_cast<char>(bytes.back() | static_cast<int>(value >> size & 1) << (7 - count % 8));
            count++;
        }
    }
};

uint64_t bits_at(const std::string& bytes, size_t at, size_t size) {
    uint64_t value = 0;
    for (size_t i = at; i < at + size; i++) {
        value = value << 1 | (static_cast<uint8_t>(bytes[i / 8]) >> (7 - i % 8) & 1);
    }
    return value;
}

struct bzip2_decoder final : packed_decoder {
    // The compressed bytes from the one on in which the present block begins, and bit positions in them.
    std::string bytes;
    size_t block = 0;                    // of the block's mark
    size_t border = 0;                   // of the mark behind it, when `found`
    bool found = false, at_end = false;  // a border; it is the stream's end
    uint64_t recent = 0;                 // the last 64 bits of `bytes`
    size_t ignored = 0;                  // marks that begin before this bit are none
    bool in_header = true, checks = true;
    uint32_t combined = 0;
    bz_stream z = {};
    bool is_open = false, given = false;  // a block is being decompressed; some of it is out
    std::string stream;                   // of the block alone

    ~bzip2_decoder() override { close(); }
    void close() {
        if (is_open) BZ2_bzDecompressEnd(&z);
        is_open = false;
    }
    void reset(bool header) {
        close();
        bytes.clear();
        block = border = ignored = 0;
        found = at_end = given = false;
        recent = 0;
        combined = 0;
        in_header = checks = header;
    }
    bool begin(std::string*) override {
        reset(true);
        return true;
    }
    bool resume(const packed_point& point, packed_input*, std::string*) override {
        reset(false);
        block = point.bits == 0 ? 0 : 8 - point.bits;
        ignored = block + 1;
        return true;
    }

    packed_step_t step(packed_input* input, packed_output* output, std::string* why) override {
        if (in_header) return header(input);
        if (is_open) return run(output, why);
        if (at_end && block == border) return end(input);
        if (found) return open_block(why);
        while (input->left != 0 && !found) scan(input->take());
        if (bytes.size() > BLOCK_BYTES_MAX) return PACKED_DAMAGED;
        return found ? PACKED_GOES_ON : PACKED_NEEDS_INPUT;
    }

    packed_step_t header(packed_input* input) {
        while (bytes.size() < STREAM_HEAD && input->left != 0) bytes.push_back(static_cast<char>(input->take()));
        if (bytes.size() < STREAM_HEAD) return PACKED_NEEDS_INPUT;
        if (std::memcmp(bytes.data(), "BZh", 3) != 0 || bytes[3] < '1' || bytes[3] > '9') return PACKED_DAMAGED;
        bytes.clear();
        in_header = false;
        return PACKED_GOES_ON;
    }

    // Takes one byte; a mark may end in it. The first mark of a stream is that of its first block or of its end.
    void scan(uint8_t byte) {
        bytes.push_back(static_cast<char>(byte));
        recent = recent << 8 | byte;
        const size_t end = 8 * bytes.size();
        for (size_t shift = 8; shift-- > 0;) {
            const uint64_t mark = recent >> shift & MARK_MASK;
            if (mark != BLOCK_MARK && mark != END_MARK) continue;
            if (end < MARK_BITS + shift || end - MARK_BITS - shift < ignored) continue;
            border = end - MARK_BITS - shift;
            ignored = border + 1;
            at_end = mark == END_MARK;
            found = border != block || at_end;
            return;
        }
    }

    // The block as a stream: it ends with the checksum of its only block.
    packed_step_t open_block(std::string* why) {
        if (border - block < MARK_BITS + CHECK_BITS || bits_at(bytes, block, MARK_BITS) != BLOCK_MARK) return reject();
        bit_string out;
        out.bytes = "BZh9";
        out.count = 8 * out.bytes.size();
        const size_t shift = block % 8, whole = (border - block) / 8;
        out.bytes.reserve(whole + 32);
        for (size_t i = block / 8; i < block / 8 + whole; i++) {
            const auto high = static_cast<uint8_t>(bytes[i]);
            const uint8_t low = shift == 0 ? uint8_t{0} : static_cast<uint8_t>(bytes[i + 1]);
            out.bytes.push_back(static_cast<char>(high << shift | low >> (8 - shift)));
        }
        out.count += 8 * whole;
        out.put(bits_at(bytes, block + 8 * whole, (border - block) % 8), (border - block) % 8);
        out.put(END_MARK, MARK_BITS);
        out.put(bits_at(bytes, block + MARK_BITS, CHECK_BITS), CHECK_BITS);
        stream = std::move(out.bytes);
        z = {};
        if (BZ2_bzDecompressInit(&z, 0, 0) != BZ_OK) {
            *why = "out of memory";
            return PACKED_FAILED;
        }
        z.next_in = stream.data();
        z.avail_in = static_cast<unsigned>(stream.size());
        is_open = true;
        given = false;
        return PACKED_GOES_ON;
    }

    packed_step_t run(packed_output* output, std::string* why) {
        z.next_out = output->next;
        z.avail_out = static_cast<unsigned>(std::min<size_t>(output->left, size_t{1} << 30));
        const unsigned room = z.avail_out;
        const int rc = BZ2_bzDecompress(&z);
        const size_t size = room - z.avail_out;
        output->next += size;
        output->left -= size;
        given = given || size != 0;
        if (rc == BZ_MEM_ERROR) *why = "out of memory";
        if (rc == BZ_MEM_ERROR) return PACKED_FAILED;
        if (rc == BZ_OK && size == 0 && z.avail_in == 0) return reject();
        if (rc == BZ_OK) return PACKED_GOES_ON;
        if (rc != BZ_STREAM_END) return reject();
        close();
        const auto check = static_cast<uint32_t>(bits_at(bytes, block + MARK_BITS, CHECK_BITS));
        combined = (combined << 1 | combined >> 31) ^ check;
        bytes.erase(0, border / 8);
        ignored -= border / 8 * 8;
        block = border = border % 8;
        found = false;
        return at_end ? PACKED_GOES_ON : PACKED_AT_BORDER;
    }

    // A block that is none yet: the bits of a mark may stand in its data by chance. Then it goes on behind them.
    packed_step_t reject() {
        close();
        if (given || at_end) return PACKED_DAMAGED;
        found = false;
        return PACKED_GOES_ON;
    }

    // The mark of the end, the checksum and what fills the last byte.
    packed_step_t end(packed_input* input) {
        const size_t bits = block + MARK_BITS + CHECK_BITS;
        while (8 * bytes.size() < bits && input->left != 0) bytes.push_back(static_cast<char>(input->take()));
        if (8 * bytes.size() < bits) return PACKED_NEEDS_INPUT;
        const bool sound = !checks || bits_at(bytes, block + MARK_BITS, CHECK_BITS) == combined;
        return sound ? PACKED_MEMBER_ENDS : PACKED_DAMAGED;
    }

    void note(const packed_input& input, packed_point* point) override {
        point->in = input.position() - bytes.size() + (block + 7) / 8;
        point->bits = static_cast<uint32_t>((8 - block % 8) % 8);
        point->window = BLOCK_WINDOW;
    }
};

}  // namespace

std::unique_ptr<packed_decoder> packed_bzip2_decoder() {
    return std::make_unique<bzip2_decoder>();
}

}  // namespace veldar::tool

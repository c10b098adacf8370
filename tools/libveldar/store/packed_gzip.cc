// Access points into gzip after the method of Mark Adler's zran (zlib/examples): at deflate block borders the position
// in bits and the 32 KiB of output before it, which are the point's window in zlib format.
#include <zlib.h>

#include <algorithm>

#include "tools/libveldar/store/packed_decoder.h"

namespace veldar::tool {

namespace {

constexpr size_t WINDOW = 32768, TRAILER = 8;
constexpr int GZIP_FORMAT = 15 + 16, RAW_DEFLATE = -15;

std::string compress_window(const uint8_t* window, size_t size) {
    std::string packed(compressBound(static_cast<uLong>(size)), '\0');
    uLongf packed_size = static_cast<uLongf>(packed.size());
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &packed_size, window, static_cast<uLong>(size), 6) != Z_OK) {
        return {};
    }
    packed.resize(packed_size);
    return packed;
}

struct gzip_decoder final : packed_decoder {
    z_stream z = {};
    bool is_open = false, raw = false;
    size_t trailer_left = 0;  // of a member that was begun in its middle

    ~gzip_decoder() override {
        if (is_open) inflateEnd(&z);
    }
    bool reset(int format, std::string* error) {
        const bool ready = is_open ? inflateReset2(&z, format) == Z_OK : inflateInit2(&z, format) == Z_OK;
        if (!ready) *error = "out of memory";
        is_open = is_open || ready;
        raw = format == RAW_DEFLATE;
        trailer_left = 0;
        return ready;
    }
    bool begin(std::string* error) override { return reset(GZIP_FORMAT, error); }

    bool resume(const packed_point& point, packed_input* input, std::string* error) override {
        uint8_t window[WINDOW];
        uLongf size = WINDOW;
        if (uncompress(window, &size, reinterpret_cast<const Bytef*>(point.window.data()),
                       static_cast<uLong>(point.window.size())) != Z_OK) {
            *error = "damaged";
            return false;
        }
        if (!reset(RAW_DEFLATE, error)) return false;
        if (point.bits != 0) inflatePrime(&z, static_cast<int>(point.bits), input->take() >> (8 - point.bits));
        inflateSetDictionary(&z, window, static_cast<uInt>(size));
        return true;
    }

    packed_step_t step(packed_input* input, packed_output* output, std::string* why) override {
        if (trailer_left != 0) return skip_trailer(input);
        z.next_in = const_cast<Bytef*>(input->next);
        z.avail_in = static_cast<uInt>(input->left);
        z.next_out = reinterpret_cast<Bytef*>(output->next);
        z.avail_out = static_cast<uInt>(std::min<size_t>(output->left, size_t{1} << 30));
        const uInt room = z.avail_out;
        const int rc = inflate(&z, Z_BLOCK);
        const size_t taken = input->left - z.avail_in, given = room - z.avail_out;
        input->next += taken;
        input->left -= taken;
        output->next += given;
        output->left -= given;
        if (rc == Z_STREAM_END) {
            trailer_left = raw ? TRAILER : 0;
            return raw ? PACKED_GOES_ON : PACKED_MEMBER_ENDS;
        }
        if (rc == Z_BUF_ERROR || (rc == Z_OK && taken == 0 && given == 0)) {
            return input->left == 0 ? PACKED_NEEDS_INPUT : PACKED_GOES_ON;
        }
        if (rc == Z_OK) return (z.data_type & 128) != 0 && (z.data_type & 64) == 0 ? PACKED_AT_BORDER : PACKED_GOES_ON;
        if (z.msg != nullptr) *why = z.msg;
        return PACKED_DAMAGED;
    }

    packed_step_t skip_trailer(packed_input* input) {
        const size_t size = std::min(trailer_left, input->left);
        input->next += size;
        input->left -= size;
        trailer_left -= size;
        return trailer_left == 0 ? PACKED_MEMBER_ENDS : PACKED_NEEDS_INPUT;
    }

    void note(const packed_input& input, packed_point* point) override {
        uint8_t window[WINDOW];
        uInt size = 0;
        if (inflateGetDictionary(&z, window, &size) != Z_OK) return;
        point->in = input.position();
        point->bits = static_cast<uint32_t>(z.data_type & 7);
        point->window = compress_window(window, size);
    }
};

}  // namespace

std::unique_ptr<packed_decoder> packed_gzip_decoder() {
    return std::make_unique<gzip_decoder>();
}

}  // namespace veldar::tool

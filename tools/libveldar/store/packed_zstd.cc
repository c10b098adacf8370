// A zstd file is frames, and frames that are to be skipped; reading can begin at any of them, so there are no other
// points than members.
#include <zstd.h>

#include "tools/libveldar/store/packed_decoder.h"

namespace veldar::tool {

namespace {

struct zstd_decoder final : packed_decoder {
    std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx*)> context{ZSTD_createDCtx(), ZSTD_freeDCtx};

    bool begin(std::string* error) override {
        if (context == nullptr || ZSTD_isError(ZSTD_DCtx_reset(context.get(), ZSTD_reset_session_only)) != 0) {
            *error = "out of memory";
            return false;
        }
        return true;
    }
    bool resume(const packed_point&, packed_input*, std::string* error) override { return begin(error); }

    packed_step_t step(packed_input* input, packed_output* output, std::string* why) override {
        ZSTD_inBuffer in = {input->next, input->left, 0};
        ZSTD_outBuffer out = {output->next, output->left, 0};
        const size_t rc = ZSTD_decompressStream(context.get(), &out, &in);
        input->next += in.pos;
        input->left -= in.pos;
        output->next += out.pos;
        output->left -= out.pos;
        if (ZSTD_isError(rc) != 0) {
            *why = ZSTD_getErrorName(rc);
            return PACKED_DAMAGED;
        }
        if (rc == 0) return PACKED_MEMBER_ENDS;
        return input->left == 0 && output->left != 0 ? PACKED_NEEDS_INPUT : PACKED_GOES_ON;
    }
    void note(const packed_input&, packed_point*) override {}
};

}  // namespace

std::unique_ptr<packed_decoder> packed_zstd_decoder() {
    return std::make_unique<zstd_decoder>();
}

}  // namespace veldar::tool

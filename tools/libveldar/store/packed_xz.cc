// A member is a stream of xz: a header of 12 bytes, blocks, an index, a footer of 12 bytes. Reading can begin at any
// block; the point's window is the kind of check that the blocks carry.
#include <lzma.h>

#include <algorithm>

#include "tools/libveldar/store/packed_decoder.h"

namespace veldar::tool {

namespace {

enum xz_part_t { STREAM_HEADER, BLOCK_OR_INDEX, BLOCK_HEADER, BLOCK, INDEX, STREAM_FOOTER };

struct xz_decoder final : packed_decoder {
    lzma_stream z = LZMA_STREAM_INIT;
    lzma_block block = {};
    lzma_index* index = nullptr;       // of a stream that was begun in its middle
    lzma_index_hash* sizes = nullptr;  // of the blocks so far, which the index has to tell as well
    lzma_check check = LZMA_CHECK_NONE;
    xz_part_t part = STREAM_HEADER;
    bool from_begin = false;
    std::string head;  // what has come of a header or footer

    ~xz_decoder() override {
        lzma_end(&z);
        lzma_index_end(index, nullptr);
        lzma_index_hash_end(sizes, nullptr);
    }
    bool begin(std::string* error) override {
        part = STREAM_HEADER;
        head.clear();
        from_begin = true;
        lzma_index_hash* const fresh = lzma_index_hash_init(sizes, nullptr);
        if (fresh == nullptr) *error = "out of memory";
        if (fresh == nullptr) return false;  // the old one stays allocated
        sizes = fresh;
        return true;
    }
    bool resume(const packed_point& point, packed_input*, std::string*) override {
        part = BLOCK_OR_INDEX;
        head.clear();
        from_begin = false;
        check = static_cast<lzma_check>(point.window[0]);
        return true;
    }
    void note(const packed_input& input, packed_point* point) override {
        point->in = input.position();
        point->window = static_cast<char>(check);
    }

    // Whether `size` bytes have come.
    bool collect(packed_input* input, size_t size) {
        const size_t more = std::min(size - std::min(size, head.size()), input->left);
        head.append(reinterpret_cast<const char*>(input->next), more);
        input->next += more;
        input->left -= more;
        return head.size() >= size;
    }
    const uint8_t* head_bytes() const { return reinterpret_cast<const uint8_t*>(head.data()); }

    packed_step_t step(packed_input* input, packed_output* output, std::string* why) override {
        switch (part) {
            case STREAM_HEADER:
                return stream_header(input, why);
            case BLOCK_OR_INDEX:
                return block_or_index(input, why);
            case BLOCK_HEADER:
                return block_header(input, why);
            case BLOCK:
                return run(input, output, why);
            case INDEX:
                return from_begin ? check_index(input) : run(input, output, why);
            case STREAM_FOOTER:
                return stream_footer(input);
        }
        return PACKED_DAMAGED;
    }

    packed_step_t stream_header(packed_input* input, std::string* why) {
        lzma_stream_flags flags;
        if (!collect(input, LZMA_STREAM_HEADER_SIZE)) return PACKED_NEEDS_INPUT;
        const lzma_ret rc = lzma_stream_header_decode(&flags, head_bytes());
        if (rc != LZMA_OK) return failed(rc, why);
        check = flags.check;
        part = BLOCK_OR_INDEX;
        head.clear();
        return PACKED_GOES_ON;
    }

    packed_step_t block_or_index(packed_input* input, std::string* why) {
        if (input->left == 0) return PACKED_NEEDS_INPUT;
        part = *input->next == 0 ? INDEX : BLOCK_HEADER;
        if (part != INDEX || from_begin) return PACKED_GOES_ON;
        lzma_index_end(index, nullptr);
        index = nullptr;
        const lzma_ret rc = lzma_index_decoder(&z, &index, PACKED_MEMORY_MAX);
        return rc == LZMA_OK ? PACKED_GOES_ON : failed(rc, why);
    }

    packed_step_t block_header(packed_input* input, std::string* why) {
        static_cast<void>(collect(input, 1));  // which is there: it told that this is no index
        const uint32_t size = lzma_block_header_size_decode(head_bytes()[0]);
        if (!collect(input, size)) return PACKED_NEEDS_INPUT;
        lzma_filter filters[LZMA_FILTERS_MAX + 1];
        block = {};
        block.version = 1;
        block.check = check;
        block.header_size = size;
        block.filters = filters;
        lzma_ret rc = lzma_block_header_decode(&block, nullptr, head_bytes());
        if (rc != LZMA_OK) return failed(rc, why);
        const uint64_t memory = lzma_raw_decoder_memusage(filters);
        rc = memory > PACKED_MEMORY_MAX ? LZMA_MEMLIMIT_ERROR : lzma_block_decoder(&z, &block);
        lzma_filters_free(filters, nullptr);
        block.filters = nullptr;
        part = BLOCK;
        head.clear();
        return rc == LZMA_OK ? PACKED_GOES_ON : failed(rc, why);
    }

    packed_step_t run(packed_input* input, packed_output* output, std::string* why) {
        z.next_in = input->next;
        z.avail_in = input->left;
        z.next_out = reinterpret_cast<uint8_t*>(output->next);
        z.avail_out = output->left;
        const lzma_ret rc = lzma_code(&z, LZMA_RUN);
        const bool still = z.avail_in == input->left && z.avail_out == output->left;
        input->next = z.next_in;
        input->left = z.avail_in;
        output->next += output->left - z.avail_out;
        output->left = z.avail_out;
        if (rc == LZMA_STREAM_END) return part == BLOCK ? block_ends() : index_ends();
        if (rc != LZMA_OK && rc != LZMA_BUF_ERROR) return failed(rc, why);
        return still && input->left == 0 ? PACKED_NEEDS_INPUT : PACKED_GOES_ON;
    }
    packed_step_t block_ends() {
        part = BLOCK_OR_INDEX;
        const bool sound = !from_begin || lzma_index_hash_append(sizes, lzma_block_unpadded_size(&block),
                                                                 block.uncompressed_size) == LZMA_OK;
        return sound ? PACKED_AT_BORDER : PACKED_DAMAGED;
    }
    packed_step_t index_ends() {
        part = STREAM_FOOTER;
        return PACKED_GOES_ON;
    }

    packed_step_t check_index(packed_input* input) {
        if (input->left == 0) return PACKED_NEEDS_INPUT;
        size_t taken = 0;
        const lzma_ret rc = lzma_index_hash_decode(sizes, input->next, &taken, input->left);
        input->next += taken;
        input->left -= taken;
        if (rc == LZMA_STREAM_END) return index_ends();
        return rc == LZMA_OK ? PACKED_NEEDS_INPUT : PACKED_DAMAGED;
    }

    packed_step_t stream_footer(packed_input* input) {
        if (!collect(input, LZMA_STREAM_HEADER_SIZE)) return PACKED_NEEDS_INPUT;
        lzma_stream_flags flags;
        const bool sound = lzma_stream_footer_decode(&flags, head_bytes()) == LZMA_OK && flags.check == check;
        head.clear();
        return sound ? PACKED_MEMBER_ENDS : PACKED_DAMAGED;
    }

    packed_step_t failed(lzma_ret rc, std::string* why) const {
        if (rc == LZMA_MEM_ERROR) *why = "out of memory";
        if (rc == LZMA_MEMLIMIT_ERROR) {
            *why = "needs more than " + std::to_string(PACKED_MEMORY_MAX >> 20) + " MiB of memory to be decompressed";
        }
        if (rc == LZMA_OPTIONS_ERROR) *why = "compressed with a filter that is not known here";
        return why->empty() ? PACKED_DAMAGED : PACKED_FAILED;
    }
};

}  // namespace

std::unique_ptr<packed_decoder> packed_xz_decoder() {
    return std::make_unique<xz_decoder>();
}

}  // namespace veldar::tool

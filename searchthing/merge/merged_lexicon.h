// Writing the file of a merged lexicon: terms and how many events have them, and no values.
//
//   merged_lexicon.lex, offset   size                              field
//   0                            60                                header "VelLex1" (warmslice_header.h) without values
//   120                          4 x terms, down to 8, plus 8      event counts, big-endian
//   then                                                           lexicon (fclex.h)
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "libzero/resource.h"
#include "searchthing/base/packed_array.h"
#include "searchthing/format/warmslice_header.h"
#include "searchthing/lexicon/fclex_io.h"

namespace veldar {

// A file that goes away with this record unless it has been renamed.
class merged_lexicon_file {
  public:
    explicit merged_lexicon_file(std::string path) : path_(std::move(path)) {}
    ~merged_lexicon_file();
    merged_lexicon_file(const merged_lexicon_file&) = delete;
    merged_lexicon_file& operator=(const merged_lexicon_file&) = delete;

    const std::string& path() const { return path_; }
    // 64 terms a block and pages of 1 MiB when they are 0. 0; WARM_RC_INVALID_ARGUMENT for other numbers that cannot
    // be; WARM_RC_OPEN.
    [[nodiscard]] int create(uint32_t terms_per_block, uint64_t page_size, warm_rc_t* rc);
    // Appends a term above the one before; a count above 2^32 - 1 is stored as that. 0, or the writer's failure.
    [[nodiscard]] int put(std::string_view term, uint64_t events, warm_rc_t* rc);
    // Completes the file. 0; WARM_RC_ZERO_TERMS without a term; WARM_RC_WRITE, WARM_RC_DOES_NOT_FIT.
    [[nodiscard]] int finish(warm_rc_t* rc);
    // 0 or WARM_RC_WRITE.
    [[nodiscard]] int rename_to(const std::string& path, warm_rc_t* rc);

  private:
    std::string path_;
    unique_fd fd_;
    st_warm_slice_body header_;
    array_writer_t counts_;
    lex_writer_t terms_;
};

}  // namespace veldar

// The status record of every fallible operation, and its codes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "searchthing/base/language.h"

namespace veldar {

struct string_builder;

// Codes of warm_rc_t. The query tokenizer and the hot slice's puts have negative numbers of their own (tokenizer.h,
// st_tsval.h), whatever the same numbers mean here.
//
// What takes memory may fail with WARM_RC_NO_MEMORY, and what reads a file with the status of a read (timed_read.h);
// the comments of such functions name only what there is beside them.
enum warm_status_t : int32_t {
    WARM_RC_OK = 0,
    WARM_RC_FAILED = -1,
    WARM_RC_NO_MEMORY = -2,
    WARM_RC_MAP = -3,
    WARM_RC_OPEN = -4,
    WARM_RC_EMPTY_FILE = -5,
    WARM_RC_FILE_SIZE = -6,
    WARM_RC_READ = -8,
    WARM_RC_WRITE = -9,
    WARM_RC_NO_SECTION = -10,
    WARM_RC_CLOSE = -11,
    WARM_RC_CORRUPT = -12,
    WARM_RC_BAD_MAGIC = -13,
    WARM_RC_NO_LEXICON = -14,
    WARM_RC_CAPACITY = -15,
    WARM_RC_UNSUPPORTED = -17,
    WARM_RC_DIMSET_BUFFER = -18,
    WARM_RC_TOKEN_TOO_BIG = -19,
    WARM_RC_QUERY_END = -20,
    WARM_RC_QUERY_TOKEN = -21,
    WARM_RC_QUERY_FOLD = -22,
    WARM_RC_QUERY_COMPARISON = -23,
    WARM_RC_TIME_BINS = -25,
    WARM_RC_REWIND = -27,
    WARM_RC_MANIFEST_EXISTS = -28,
    WARM_RC_LOCK = -29,
    WARM_RC_FEW_SLICES = -30,
    WARM_RC_FEW_SOURCES = -31,
    WARM_RC_TIME_MISMATCH = -33,
    WARM_RC_FUTURE_TIME = -34,
    WARM_RC_RETRIES = -35,
    WARM_RC_DOES_NOT_FIT = -36,
    WARM_RC_INVALID_ARGUMENT = -37,
    WARM_RC_NOT_FOUND = -38,
    WARM_RC_ZERO_TERMS = -39,
    WARM_RC_MINIFIED = -44,
    WARM_RC_FILE_NAME = -45,
    WARM_RC_PATH_TOO_LONG = -47,
    WARM_RC_SHORT_READ = -48,
    WARM_RC_END_OF_FILE = -49,
    WARM_RC_NO_DIMSETS = -50,
    WARM_RC_LEGACY_PROJECTION = -51,
    WARM_RC_FOOTER_OFFSET = -52,
    WARM_RC_SPLIT_LIST = -53,
    WARM_RC_TIME_BINS_LIMIT = -55,
    WARM_RC_CANCELLED = -56,
};

inline constexpr uint32_t WARM_RC_NO_DETAIL = 0xFFFFFFFF;

struct warm_rc_t {
    // Of the message only the first byte is set: readers make a record for every term.
    warm_rc_t() { message[0] = '\0'; }

    int32_t warm_rc = 0;                  // 0 or a negative warm_status_t
    int32_t saved_errno = 0;              // errno when the failure was recorded, or one given explicitly
    uint32_t detail = WARM_RC_NO_DETAIL;  // position, index or line of the reporting site; all-ones for none
    char message[512];                    // NUL-terminated, at most 511 characters
};

static_assert(sizeof(warm_rc_t) == 524 && offsetof(warm_rc_t, message) == 12);

// What a code means, in a few words that end without a full stop; never null. A plain text for numbers that have none.
const char* warm_status_text(int status);

// The setters return the code that they store, so that a failing site is one line: return _set_rc(rc, ...).

// Stores the code. For a failure also stores the current errno and clears detail and message; success touches nothing
// else.
int _set_rc(warm_rc_t* rc, int status);
// _set_rc, then the given errno value.
int _set_rc_and_errno(warm_rc_t* rc, int status, int errno_value);
// Fills every field, also for status 0: code, current errno, detail and at most 511 characters of the message.
int _set_rc_verbose(warm_rc_t* rc, int status, uint32_t detail, const char* message);
// _set_rc_verbose without a detail.
int _set_rc_msg(warm_rc_t* rc, int status, const char* message);
// Copies a record (onto itself: nothing happens) and returns its code.
int _cpy_rc(warm_rc_t* destination, const warm_rc_t* source);

// Of a slice: WARM_RC_EMPTY_FILE, WARM_RC_CORRUPT, WARM_RC_BAD_MAGIC, WARM_RC_NO_LEXICON.
bool warm_status_indicates_corruption(int status);
// Of a call to the system.
bool warm_status_is_of_system(int status);
// Whether such a call failed for a reason that saved_errno tells. EINVAL of a read is none: an offset out of a damaged
// file is an invalid argument.
bool warm_rc_has_cause(const warm_rc_t* rc);
bool warm_status_indicates_oomem(int status);  // WARM_RC_NO_MEMORY
bool st_error_is_eminified(int code);          // WARM_RC_MINIFIED

// Appends the record as "{code,errno,message}"; safe in a signal handler.
void annotator_print_warm_rc(string_builder* out, const warm_rc_t* rc) noexcept;

}  // namespace veldar

// Returns from the calling function when the expression yields a status other than 0.
#define ST_TRY(expr)                                        \
    do {                                                    \
        if (const int st_try_rc = (expr); st_try_rc != 0) { \
            return st_try_rc;                               \
        }                                                   \
    } while (0)

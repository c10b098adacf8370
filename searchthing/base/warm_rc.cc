#include "searchthing/base/warm_rc.h"

#include <cerrno>
#include <cstring>

#include "libzero/assertions.h"
#include "libzero/ospath-builder.h"

namespace veldar {

namespace {

// The message may be (a part of) the record's own.
void store_message(warm_rc_t* rc, const char* message) {
    const size_t length = message == nullptr ? 0 : ::strnlen(message, sizeof rc->message - 1);
    if (length != 0) std::memmove(rc->message, message, length);
    rc->message[length] = '\0';
}

}  // namespace

const char* warm_status_text(int status) {
    switch (static_cast<warm_status_t>(status)) {
        case WARM_RC_OK:
            return "success";
        case WARM_RC_FAILED:
            return "an internal step failed";
        case WARM_RC_NO_MEMORY:
            return "out of memory";
        case WARM_RC_MAP:
            return "a file could not be mapped";
        case WARM_RC_OPEN:
            return "a file could not be opened";
        case WARM_RC_EMPTY_FILE:
            return "a slice file is empty";
        case WARM_RC_FILE_SIZE:
            return "a file's size could not be read, or a slice could not be written";
        case WARM_RC_READ:
            return "a read failed";
        case WARM_RC_WRITE:
            return "a write failed";
        case WARM_RC_NO_SECTION:
            return "a section lies outside the file";
        case WARM_RC_CLOSE:
            return "a file could not be closed";
        case WARM_RC_CORRUPT:
            return "damaged: counts, offsets or orders disagree";
        case WARM_RC_BAD_MAGIC:
            return "damaged: not a known kind of file";
        case WARM_RC_NO_LEXICON:
            return "damaged: a lexicon is missing or unusable";
        case WARM_RC_CAPACITY:
            return "a buffer is too small or an index out of range";
        case WARM_RC_UNSUPPORTED:
            return "not supported here";
        case WARM_RC_DIMSET_BUFFER:
            return "a dimension set does not fit its buffer";
        case WARM_RC_TOKEN_TOO_BIG:
            return "a token of the query is too long";
        case WARM_RC_QUERY_END:
            return "the query ends too early";
        case WARM_RC_QUERY_TOKEN:
            return "a token of the query stands where it does not belong";
        case WARM_RC_QUERY_FOLD:
            return "groups of the query cannot be combined";
        case WARM_RC_QUERY_COMPARISON:
            return "a comparison of the query takes a field and a number";
        case WARM_RC_TIME_BINS:
            return "time bins could not be set up, or a bad escape in the query";
        case WARM_RC_REWIND:
            return "a file could not be read from its start";
        case WARM_RC_MANIFEST_EXISTS:
            return "another merge is at work";
        case WARM_RC_LOCK:
            return "the directory could not be locked";
        case WARM_RC_FEW_SLICES:
            return "fewer than two slices to merge";
        case WARM_RC_FEW_SOURCES:
            return "fewer than two slices are due for a merge";
        case WARM_RC_TIME_MISMATCH:
            return "times disagree with the values that they describe";
        case WARM_RC_FUTURE_TIME:
            return "a time lies in the future";
        case WARM_RC_RETRIES:
            return "tried again without success";
        case WARM_RC_DOES_NOT_FIT:
            return "a value does not fit its field";
        case WARM_RC_INVALID_ARGUMENT:
            return "invalid argument";
        case WARM_RC_NOT_FOUND:
            return "not found";
        case WARM_RC_ZERO_TERMS:
            return "no terms or blocks";
        case WARM_RC_MINIFIED:
            return "the slice is minified: the data is gone";
        case WARM_RC_FILE_NAME:
            return "not a slice's name";
        case WARM_RC_PATH_TOO_LONG:
            return "a path is too long";
        case WARM_RC_SHORT_READ:
            return "a file ends too early";
        case WARM_RC_END_OF_FILE:
            return "a file ends where data was expected";
        case WARM_RC_NO_DIMSETS:
            return "no dimension sets";
        case WARM_RC_LEGACY_PROJECTION:
            return "old metric slices are grouped by metric name only";
        case WARM_RC_FOOTER_OFFSET:
            return "a column store is too large";
        case WARM_RC_SPLIT_LIST:
            return "a posting list lies both in memory and on the disk";
        case WARM_RC_TIME_BINS_LIMIT:
            return "too many time bins";
        case WARM_RC_CANCELLED:
            return "ended early, as was asked";
    }
    return "unknown status";
}

int _set_rc(warm_rc_t* rc, int status) {
    rc->warm_rc = status;
    if (status == WARM_RC_OK) return status;
    ST_ASSERT(status < WARM_RC_OK);  // whoever tells failures by their sign must not miss one
    rc->saved_errno = errno;
    rc->detail = WARM_RC_NO_DETAIL;
    rc->message[0] = '\0';
    return status;
}

int _set_rc_and_errno(warm_rc_t* rc, int status, int errno_value) {
    _set_rc(rc, status);
    rc->saved_errno = errno_value;
    return status;
}

int _set_rc_verbose(warm_rc_t* rc, int status, uint32_t detail, const char* message) {
    rc->warm_rc = status;
    rc->saved_errno = errno;
    rc->detail = detail;
    store_message(rc, message);
    return status;
}

int _set_rc_msg(warm_rc_t* rc, int status, const char* message) {
    return _set_rc_verbose(rc, status, WARM_RC_NO_DETAIL, message);
}

int _cpy_rc(warm_rc_t* destination, const warm_rc_t* source) {
    if (destination == source) return source->warm_rc;
    destination->saved_errno = source->saved_errno;
    destination->detail = source->detail;
    store_message(destination, source->message);
    destination->warm_rc = source->warm_rc;
    return destination->warm_rc;
}

bool warm_status_indicates_corruption(int status) {
    return status == WARM_RC_EMPTY_FILE || status == WARM_RC_CORRUPT || status == WARM_RC_BAD_MAGIC ||
           status == WARM_RC_NO_LEXICON;
}

bool warm_status_is_of_system(int status) {
    return status == WARM_RC_MAP || status == WARM_RC_OPEN || status == WARM_RC_FILE_SIZE || status == WARM_RC_READ ||
           status == WARM_RC_WRITE || status == WARM_RC_CLOSE || status == WARM_RC_LOCK;
}

bool warm_rc_has_cause(const warm_rc_t* rc) {
    const bool is_bad_offset = rc->warm_rc == WARM_RC_READ && rc->saved_errno == EINVAL;
    return warm_status_is_of_system(rc->warm_rc) && rc->saved_errno != 0 && !is_bad_offset;
}

bool warm_status_indicates_oomem(int status) {
    return status == WARM_RC_NO_MEMORY;
}

bool st_error_is_eminified(int code) {
    return code == WARM_RC_MINIFIED;
}

void annotator_print_warm_rc(string_builder* out, const warm_rc_t* rc) noexcept {
    string_builder_append1(out, '{');
    string_builder_append_decimal_i64(out, rc->warm_rc);
    string_builder_append1(out, ',');
    string_builder_append_decimal_i64(out, rc->saved_errno);
    string_builder_append1(out, ',');
    string_builder_appendn(out, rc->message, ::strnlen(rc->message, sizeof rc->message));
    string_builder_append1(out, '}');
}

}  // namespace veldar

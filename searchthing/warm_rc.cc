#include "searchthing/warm_rc.h"

#include <cerrno>
#include <cstring>

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

int _set_rc(warm_rc_t* rc, int status) {
    rc->warm_rc = status;
    if (status == WARM_RC_OK) return status;
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

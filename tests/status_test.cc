#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

#include "libzero/ospath-builder.h"
#include "searchthing/base/log.h"
#include "searchthing/base/st_init.h"
#include "searchthing/base/warm_rc.h"

namespace veldar {

namespace {

TEST(WarmRc, Setters) {
    warm_rc_t rc;
    errno = ENOSPC;
    EXPECT_EQ(_set_rc_verbose(&rc, WARM_RC_CORRUPT, 7, "seven"), WARM_RC_CORRUPT);
    errno = EIO;
    EXPECT_EQ(_set_rc(&rc, WARM_RC_OK), 0);
    EXPECT_EQ(rc.warm_rc, 0);
    EXPECT_EQ(rc.saved_errno, ENOSPC);
    EXPECT_EQ(rc.detail, 7u);
    EXPECT_STREQ(rc.message, "seven");
    EXPECT_EQ(_set_rc_msg(&rc, WARM_RC_OK, "unsupported"), 0);
    EXPECT_EQ(rc.saved_errno, EIO);
    EXPECT_EQ(rc.detail, WARM_RC_NO_DETAIL);
    EXPECT_STREQ(rc.message, "unsupported");
    EXPECT_EQ(_set_rc_and_errno(&rc, WARM_RC_RETRIES, EMFILE), WARM_RC_RETRIES);
    EXPECT_EQ(rc.saved_errno, EMFILE);
    EXPECT_STREQ(rc.message, "");
    _set_rc_msg(&rc, WARM_RC_FAILED, std::string(600, 'm').c_str());
    EXPECT_EQ(std::string(rc.message), std::string(511, 'm'));
    EXPECT_EQ(_cpy_rc(&rc, &rc), WARM_RC_FAILED);
    _set_rc_msg(&rc, WARM_RC_READ, rc.message + 508);
    char text[64];
    string_builder out;
    string_builder_start(&out, text, sizeof text);
    annotator_print_warm_rc(&out, &rc);
    EXPECT_EQ(string_builder_finish(&out), 0);
    EXPECT_STREQ(text, "{-8,5,mmm}") << "a message that is part of the record's own";
}

TEST(WarmRc, Classes) {
    for (int code = -60; code <= 0; code++) {
        const bool corrupt = code == -5 || code == -12 || code == -13 || code == -14;
        EXPECT_EQ(warm_status_indicates_corruption(code), corrupt) << code;
        EXPECT_EQ(warm_status_indicates_oomem(code), code == -2) << code;
        EXPECT_EQ(st_error_is_eminified(code), code == -44) << code;
        const bool unnamed =
            std::set{-7, -16, -24, -26, -32, -40, -41, -42, -43, -46, -54}.contains(code) || code < -56;
        EXPECT_EQ(std::string(warm_status_text(code)) == warm_status_text(1), unnamed) << code;
    }
}

// What reaches standard error from the setup call, a debug line and a warning.
std::string logged(int verbose, int log2veldar) {
    testing::internal::CaptureStderr();
    stSetupLogger(verbose, log2veldar);
    errno = ENOENT;
    _log(1, "DEBUG d=%d\n", 1);
    _log(0, "WARN  w=%s\n", "x");
    EXPECT_EQ(errno, ENOENT);
    stSetupLogger(0, 0);
    std::string text = testing::internal::GetCapturedStderr();
    for (size_t at = 0; (at = text.find("tm= ", at)) != std::string::npos; at += 3) {
        const size_t digits = text.find_first_not_of("0123456789", at + 4) - (at + 4);
        EXPECT_EQ(digits, 10u) << text;
        text.erase(at + 2, digits + 2);
    }
    return text;
}

TEST(Log, FlagsDecideWhatIsWrittenAndWithWhichPrefix) {
    EXPECT_EQ(logged(0, 0), "");
    EXPECT_EQ(logged(0, 1), "WARN  w=x\n");
    EXPECT_EQ(logged(1, 0), "Logging configuration: verbose=1, log2veldar=0\ntm DEBUG d=1\ntm WARN  w=x\n");
    EXPECT_EQ(logged(1, 1), "Logging configuration: verbose=1, log2veldar=1\nDEBUG d=1\nWARN  w=x\n");
}

}  // namespace

}  // namespace veldar

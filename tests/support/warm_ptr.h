// An open slice that a test owns; it must close without a failure.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "searchthing/slice/warmslice.h"

namespace veldar {

struct checked_warm_closer {
    void operator()(WARM* warm) const { EXPECT_EQ(st_warm_slice_close(warm), 0); }
};
using warm_ptr = std::unique_ptr<WARM, checked_warm_closer>;

}  // namespace veldar

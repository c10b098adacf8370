// Runs the tests under a listener that fails any test which leaves a descriptor open or a temporary file behind.
#include <gtest/gtest.h>

#include "tests/support/leak_listener.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new veldar::leak_listener);
    return RUN_ALL_TESTS();
}

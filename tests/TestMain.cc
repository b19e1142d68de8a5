#include <gtest/gtest.h>

#include "marl/Log.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Keep test output quiet unless a test captures logs itself.
    MarlLogger::Log::setLevel(0);
    return RUN_ALL_TESTS();
}

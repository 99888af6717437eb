// The main program of the tests: GoogleTest's, with a watch.
#include <gtest/gtest.h>

#include "TestWatch.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    watchTests();
    return RUN_ALL_TESTS();
}

// Shared main of every test binary: into the sandbox first, then a clean
// /conf and /var before each test case.
#include <gtest/gtest.h>

#include "support/sandbox.h"

namespace {

class FreshState : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { brask::test::resetState(); }
};

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new FreshState);
    return RUN_ALL_TESTS();
}

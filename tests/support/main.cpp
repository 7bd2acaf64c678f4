// Shared main of every test binary: into the sandbox first, then a clean
// /conf and /var before each test case.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace {

class FreshState : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { brask::test::resetState(); }
};

// BRASK_TEST_WRAPPER holds words that run the suite inside the sandbox, for
// example "valgrind --error-exitcode=1 --leak-check=full": the checker must
// wrap the process inside, as bubblewrap itself cannot run under it.  The
// first process inside re-executes itself through them, once, by the path of
// its binary (/proc/self/exe would name the checker once it runs).
void runThroughWrapper(char** argv) {
    const char* wrapper = std::getenv("BRASK_TEST_WRAPPER");
    if (wrapper == nullptr || *wrapper == '\0' || std::getenv("BRASK_TEST_WRAPPED") != nullptr) return;
    std::string exe = std::filesystem::read_symlink("/proc/self/exe").string();
    std::string script = "exec $BRASK_TEST_WRAPPER \"$0\" \"$@\"";
    std::vector<char*> args = {const_cast<char*>("sh"), const_cast<char*>("-c"), script.data(), exe.data()};
    for (int i = 1; argv[i] != nullptr; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    ::setenv("BRASK_TEST_WRAPPED", "1", 1);
    std::fflush(nullptr);
    ::execvp("sh", args.data());
    std::fprintf(stderr, "cannot start %s from BRASK_TEST_WRAPPER\n", wrapper);
    std::exit(127);
}

}  // namespace

int main(int argc, char** argv) {
    brask::sandbox::enterSandbox(argc, argv);
    runThroughWrapper(argv);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new FreshState);
    return RUN_ALL_TESTS();
}

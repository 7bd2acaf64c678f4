// Shared main of every test binary: into the sandbox first, then a clean
// /conf and /var before each test case.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
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
// first process inside re-executes itself through them, once.
void runThroughWrapper(char** argv) {
    const char* wrapper = std::getenv("BRASK_TEST_WRAPPER");
    if (wrapper == nullptr || *wrapper == '\0' || std::getenv("BRASK_TEST_WRAPPED") != nullptr) return;
    std::vector<std::string> words;
    std::istringstream in(wrapper);
    for (std::string w; in >> w;) words.push_back(w);
    // The binary's own path: /proc/self/exe would name the checker once it runs.
    char exe[4096];
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return;
    exe[n] = '\0';
    words.emplace_back(exe);
    for (int i = 1; argv[i] != nullptr; ++i) words.emplace_back(argv[i]);
    std::vector<char*> args;
    for (std::string& w : words) args.push_back(w.data());
    args.push_back(nullptr);
    ::setenv("BRASK_TEST_WRAPPED", "1", 1);
    std::fflush(nullptr);
    ::execvp(args[0], args.data());
    std::fprintf(stderr, "cannot start %s from BRASK_TEST_WRAPPER\n", args[0]);
    std::exit(127);
}

}  // namespace

int main(int argc, char** argv) {
    brask::test::enterSandbox(argc, argv);
    runThroughWrapper(argv);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new FreshState);
    return RUN_ALL_TESTS();
}

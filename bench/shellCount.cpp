// Counts the shell commands the library starts: this definition of system()
// takes precedence over the C library's for the whole program (the library is
// linked in statically), counts the call and the time spent in it and hands
// it to the real one.
#include <dlfcn.h>

#include <atomic>
#include <chrono>

#include "benchSupport.h"

namespace {

std::atomic<unsigned long> gShellCommands{0};
std::atomic<long long> gShellNanoseconds{0};

}  // namespace

extern "C" int system(const char* command) {
    using SystemFn = int (*)(const char*);
    static const auto real = reinterpret_cast<SystemFn>(::dlsym(RTLD_NEXT, "system"));
    if (command == nullptr) return real(command);
    const auto start = std::chrono::steady_clock::now();
    const int status = real(command);
    const auto spent = std::chrono::steady_clock::now() - start;
    gShellCommands.fetch_add(1, std::memory_order_relaxed);
    gShellNanoseconds.fetch_add(std::chrono::duration_cast<std::chrono::nanoseconds>(spent).count(),
                                std::memory_order_relaxed);
    return status;
}

namespace brask::bench {

unsigned long shellCommandCount() { return gShellCommands.load(std::memory_order_relaxed); }
double shellSeconds() {
    return 1e-9 * static_cast<double>(gShellNanoseconds.load(std::memory_order_relaxed));
}

}  // namespace brask::bench

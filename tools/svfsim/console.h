// svfsim's terminal and the library's diagnostics.  The library writes its
// BRASK_DEBUG / BRASK_ERR / BRASK_MSG lines with write(2) on descriptors 1
// and 2, and so do the children it starts; while svfsim runs, both point at
// a log file in the state directory, and svfsim prints through duplicates of
// the original descriptors.  --verbose copies new log lines to the terminal
// as they come.
#pragma once

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace svfsim {

// The log inside the sandbox (in the state directory on the host).
inline constexpr char kLogFile[] = "/var/log/svfsim.log";

class Console {
public:
    // Redirects descriptors 1 and 2 to the log (appending); false with
    // `error` set when the log cannot be opened (nothing changed then).
    bool begin(bool verbose, std::string& error);
    // Opens the log afresh (after the state directory was emptied).
    void reopen();
    // Copies what the log gained to the terminal (verbose) and puts
    // descriptors 1 and 2 back.
    void end();
    // Copies new log lines to the terminal now (verbose only): called after
    // each library call so that its lines come before svfsim's own.
    void sync();
    ~Console() { end(); }

    std::FILE* out() const { return out_ != nullptr ? out_ : stdout; }
    std::FILE* err() const { return err_ != nullptr ? err_ : stderr; }

    // The last line this run added to the log that reports an error
    // (BRASK_ERR, or BRASK_MSG at level 2 or 3); "" when none.
    std::string lastErrorLine() const;

private:
    std::FILE* out_ = nullptr;
    std::FILE* err_ = nullptr;
    int savedOut_ = -1;
    int savedErr_ = -1;
    bool verbose_ = false;
    long startOffset_ = 0;  // the log's size when this run began
    long shownOffset_ = 0;  // how far verbose output has copied it
    std::mutex showing_;
    std::atomic<bool> stop_{false};
    std::thread follower_;  // copies the log while a long call runs
};

Console& console();

// printf to svfsim's standard output, one line; "\n" is added.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A failure: "svfsim: <reason>", then where the log is and its last error line.
int fail(const std::string& reason);

}  // namespace svfsim

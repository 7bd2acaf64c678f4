#include "support/transcript.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

#include "support/interpose.h"

namespace brask::test {
namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::abort();
}

// Descriptors 1 and 2 on memory files until destroyed, also when the body
// throws.  Its own calls are not the body's: armed faults leave them alone.
class Redirect {
public:
    Redirect() {
        Unwatched own;
        std::fflush(nullptr);
        for (int i = 0; i < 2; ++i) {
            file_[i] = ::memfd_create(i == 0 ? "stdout" : "stderr", MFD_CLOEXEC);
            saved_[i] = ::dup(i + 1);
            if (file_[i] < 0 || saved_[i] < 0 || ::dup2(file_[i], i + 1) < 0) fail("captureOutput");
        }
    }
    ~Redirect() {
        Unwatched own;
        std::fflush(nullptr);
        for (int i = 0; i < 2; ++i) {
            (void)::dup2(saved_[i], i + 1);
            ::close(saved_[i]);
            ::close(file_[i]);
        }
    }
    Redirect(const Redirect&) = delete;
    Redirect& operator=(const Redirect&) = delete;

    std::string taken(int i) {
        Unwatched own;
        std::fflush(nullptr);
        std::string text;
        char buf[4096];
        for (ssize_t n; (n = ::pread(file_[i], buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;) {
            text.append(buf, static_cast<std::size_t>(n));
        }
        return text;
    }

private:
    int file_[2] = {-1, -1};
    int saved_[2] = {-1, -1};
};

}  // namespace

Transcript captureOutput(const std::function<void()>& body) {
    Redirect redirect;
    body();
    return Transcript{redirect.taken(0), redirect.taken(1)};
}

std::string maskLineNumbers(std::string_view text) {
    static const std::regex kTag(R"((BRASK_(?:DEBUG|ERR|MSG\[\d\]) +: \w+)\(\d+\)( : ))");
    return std::regex_replace(std::string(text), kTag, "$1(#)$2");
}

std::vector<std::string> lines(std::string_view text) {
    std::vector<std::string> result;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        result.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return result;
}

std::vector<std::string> errorLines(std::string_view text) {
    std::vector<std::string> out;
    for (const std::string& line : lines(maskLineNumbers(text))) {
        if (line.starts_with("BRASK_ERR ")) out.push_back(line);
    }
    return out;
}

}  // namespace brask::test

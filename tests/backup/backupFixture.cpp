#include "backupFixture.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {

int Output::count(const std::string& text) const {
    const std::string wanted = !text.empty() && text.back() == '\n' ? text.substr(0, text.size() - 1) : text;
    int n = 0;
    for (const std::string* s : {&out, &err}) {
        std::istringstream lines(*s);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(wanted) != std::string::npos) ++n;
        }
    }
    return n;
}

Resources resources() {
    Resources r;
    r.fds = static_cast<std::size_t>(openDescriptorCount());
    r.maps = static_cast<std::size_t>(mappingCount());
    return r;
}

FailingCommand::FailingCommand(const std::string& name) {
    const char* path = std::getenv("PATH");
    savedPath_ = path != nullptr ? path : "";
    const std::string dir = "/tmp/failing-commands";
    writeFile(dir + "/" + name, "#!/bin/sh\nexit 1\n", 0755);
    ::setenv("PATH", (dir + ":" + savedPath_).c_str(), 1);
}

FailingCommand::~FailingCommand() {
    ::setenv("PATH", savedPath_.c_str(), 1);
    std::system("rm -rf /tmp/failing-commands");
}

std::vector<hostFruAccess_T> fruAccesses() {
    std::vector<hostFruAccess_T> log(1024);
    const int n = hostFruAccessLog(log.data(), static_cast<int>(log.size()));
    log.resize(n < 0 ? 0 : std::min<std::size_t>(n, log.size()));
    return log;
}

long fruHeaderSize(const std::string& path) {
    const std::vector<std::uint8_t> bytes = readBytes(path);
    if (bytes.size() < 4) return -1;
    return static_cast<long>(bytes[0] | bytes[1] << 8 | bytes[2] << 16 |
                             static_cast<std::uint32_t>(bytes[3]) << 24);
}

int runInChild(int (*f)()) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) _exit(f() & 0xFF);
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1000;
    return WEXITSTATUS(status);
}

}  // namespace brask::test

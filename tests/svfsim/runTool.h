// Runs one of the tools as a user would inside the sandbox: through the
// emulator of a cross build, each standard stream into a file (no pipe that
// a large output could fill).  Shared by the svfsim and svfdump suites.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "sandbox/sandbox.h"
#include "support/scenario.h"

extern char** environ;

namespace brask::test {

struct ToolRun {
    int exit = -1;   // exit status, -1 when killed
    int signal = 0;  // the signal that killed it
    std::string out, err;
};

// `env` entries ("NAME=value") are added to the tool's environment.
inline ToolRun runTool(const std::string& exe, const std::vector<std::string>& args,
                       std::vector<std::string> env = {}) {
    std::vector<std::string> words = sandbox::emulatorPrefix();
    words.push_back(exe);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv, envp;
    for (std::string& w : words) argv.push_back(w.data());
    for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
    for (std::string& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t io;
    posix_spawn_file_actions_init(&io);
    posix_spawn_file_actions_addopen(&io, 1, "/tmp/tool.out", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&io, 2, "/tmp/tool.err", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &io, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&io);
    ToolRun r;
    int status = 0;
    if (rc != 0 || ::waitpid(pid, &status, 0) != pid) return r;
    if (WIFEXITED(status)) r.exit = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) r.signal = WTERMSIG(status);
    r.out = readFile("/tmp/tool.out");
    r.err = readFile("/tmp/tool.err");
    return r;
}

}  // namespace brask::test

// Helpers of the host platform tests: IPMI requests and forked workers.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfPlatform.h"

namespace brask::test {

// Response bytes (completion code first) of one request, or {} when
// API_ExecuteCmd itself failed.
inline std::vector<INT8U> ipmi(INT8U netFnLun, INT8U cmd, std::vector<INT8U> request) {
    auto pkt = std::make_unique<MsgPkt_T>();
    pkt->NetFnLUN = netFnLun;
    pkt->Cmd = cmd;
    pkt->Size = static_cast<INT32U>(request.size());
    std::copy(request.begin(), request.end(), pkt->Data);
    if (API_ExecuteCmd(pkt.get(), 1) != 0) return {};
    return std::vector<INT8U>(pkt->Data, pkt->Data + pkt->Size);
}

inline std::vector<INT8U> storage(INT8U cmd, std::vector<INT8U> request) {
    return ipmi(SVF_NETFNLUN_STORAGE, cmd, std::move(request));
}

// Runs `body` in a child process; its result becomes the exit status.
inline pid_t spawn(const std::function<bool()>& body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body() ? 0 : 1);
    return pid;
}

// True when the child exited with status 0.
inline bool succeeded(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace brask::test

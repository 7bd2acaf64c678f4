#include "ipmiSim.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/scenario.h"

namespace brask::test {
namespace {

constexpr char kStateDir[] = "/var/ipmi_sim";
constexpr char kLogFile[] = "/var/log/ipmi_sim.log";
// One attempt with a long time-out: the OEM handlers are not idempotent, and
// ipmitool's retry after a short time-out would run a slow backup twice.
constexpr char kSessionTiming[] = "-N 60 -R 1";

bool onPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (!dir.empty() && ::access((dir + "/" + name).c_str(), X_OK) == 0) return true;
    }
    return false;
}

std::map<std::string, std::string> readEnv() {
    std::map<std::string, std::string> env;
    std::ifstream in(BRASK_IPMI_ENV_FILE);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        if (eq != std::string::npos) env[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return env;
}

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace

std::string IpmiSim::skipReason() {
    if (!onPath("ipmi_sim")) return "ipmi_sim is not installed (Debian package openipmi)";
    if (!onPath("ipmitool")) return "ipmitool is not installed (Debian package ipmitool)";
    if (std::string(BRASK_IPMI_ENV_FILE).empty()) {
        return "the ipmi_sim module is not part of this build (no OpenIPMI headers, Debian package "
               "libopenipmi-dev, at configure time, or a cross build)";
    }
    if (readEnv().empty()) return std::string("the build has no ") + BRASK_IPMI_ENV_FILE;
    return "";
}

IpmiSim::IpmiSim() : env_(readEnv()) {}

IpmiSim::~IpmiSim() {
    if (pid_ > 0) stop();
}

std::string IpmiSim::setting(const std::string& key) const {
    const auto it = env_.find(key);
    return it == env_.end() ? std::string() : it->second;
}

std::string IpmiSim::log() { return readFile(kLogFile); }

bool IpmiSim::start(std::string& error) {
    ::mkdir(kStateDir, 0755);
    const std::string conf = setting("BRASK_IPMI_CONF_DIR");
    const std::string lan = conf + "/lan.conf";
    const std::string emu = conf + "/bmc.emu";
    const std::string preload = setting("BRASK_IPMI_PRELOAD");
    pid_ = ::fork();
    if (pid_ < 0) {
        error = "fork failed";
        return false;
    }
    if (pid_ == 0) {
        const int out = ::open(kLogFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (out < 0 || in < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(out, 2) < 0) _exit(126);
        // A sanitizer build's module needs the sanitizer runtimes loaded first.
        if (!preload.empty()) {
            ::setenv("LD_PRELOAD", preload.c_str(), 1);
            ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
        }
        ::execlp("ipmi_sim", "ipmi_sim", "-c", lan.c_str(), "-f", emu.c_str(), "-s", kStateDir, "-n",
                 static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int attempt = 0; attempt < 50; ++attempt) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            error = "ipmi_sim exited at start-up:\n" + log();
            return false;
        }
        if (ipmitool("-N 1 -R 1 mc info").status == 0) return true;
        sleepMs(100);
    }
    error = "ipmi_sim did not answer:\n" + log();
    stop();
    return false;
}

bool IpmiSim::stop() {
    if (pid_ <= 0) return false;
    ::kill(pid_, SIGTERM);
    int status = 0;
    for (int i = 0; i < 100; ++i) {
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) ||
                   (WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        sleepMs(50);
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return false;
}

IpmitoolResult IpmiSim::ipmitool(const std::string& args) const {
    // Later -N/-R options win, so a caller's timing replaces the default.
    const std::string cmd = "ipmitool -I lanplus -C 3 " + std::string(kSessionTiming) +
                            " -H 127.0.0.1 -p " + setting("BRASK_IPMI_PORT") + " -U " +
                            setting("BRASK_IPMI_USER") + " -P " + setting("BRASK_IPMI_PASSWORD") +
                            " " + args + " 2>&1";
    IpmitoolResult result;
    FILE* p = ::popen(cmd.c_str(), "r");
    if (p == nullptr) return result;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) result.output.append(buf, n);
    const int status = ::pclose(p);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

RawAnswer IpmiSim::raw(std::uint8_t netfn, std::uint8_t cmd,
                       const std::vector<std::uint8_t>& request) const {
    char word[8];
    std::string args = "raw";
    std::snprintf(word, sizeof word, " 0x%02x", netfn);
    args += word;
    std::snprintf(word, sizeof word, " 0x%02x", cmd);
    args += word;
    for (std::uint8_t b : request) {
        std::snprintf(word, sizeof word, " 0x%02x", b);
        args += word;
    }
    const IpmitoolResult r = ipmitool(args);
    RawAnswer answer;
    if (r.status == 0) {
        // ipmitool prints the response data after the completion code.
        answer.completionCode = 0;
        std::istringstream in(r.output);
        std::string hex;
        while (in >> hex) answer.data.push_back(static_cast<std::uint8_t>(std::stoul(hex, nullptr, 16)));
        return answer;
    }
    const auto at = r.output.find("rsp=0x");
    if (at != std::string::npos) answer.completionCode = std::stoi(r.output.substr(at + 6, 2), nullptr, 16);
    return answer;
}

}  // namespace brask::test

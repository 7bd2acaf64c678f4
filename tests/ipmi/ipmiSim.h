// ipmi_sim with the library's module, run as a child inside the test's
// sandbox, and ipmitool sessions to it over RMCP+ on the loopback address.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace brask::test {

struct IpmitoolResult {
    int status = -1;     // exit status of ipmitool
    std::string output;  // standard output and error together
};

// A raw command's answer: the completion code and the response data after it.
struct RawAnswer {
    int completionCode = -1;  // -1: no answer
    std::vector<std::uint8_t> data;
};

class IpmiSim {
public:
    // Why the suite cannot run here ("" when it can): ipmi_sim or ipmitool
    // missing, or the module not built.
    static std::string skipReason();

    IpmiSim();
    ~IpmiSim();
    IpmiSim(const IpmiSim&) = delete;
    IpmiSim& operator=(const IpmiSim&) = delete;

    // Starts ipmi_sim (state in /var/ipmi_sim, output in /var/log/ipmi_sim.log)
    // and waits until it answers; false with the reason in `error`.
    bool start(std::string& error);
    // SIGTERM, then waits; true when it ended from that signal or with
    // status 0 within a few seconds (otherwise it is killed).
    bool stop();
    bool running() const { return pid_ > 0; }

    // One ipmitool command: "ipmitool -I lanplus ... <args>".
    IpmitoolResult ipmitool(const std::string& args) const;
    // "raw <netfn> <cmd> <bytes...>".
    RawAnswer raw(std::uint8_t netfn, std::uint8_t cmd, const std::vector<std::uint8_t>& request) const;

    // A value of the build's ipmi-sim.env ("" when missing).
    std::string setting(const std::string& key) const;
    static std::string log();

private:
    std::map<std::string, std::string> env_;
    pid_t pid_ = -1;
};

}  // namespace brask::test

// The ipmi_sim module that hosts libBraskSvf.so.1 (loadlib in the LAN
// configuration): it registers the library's OEM commands, provides the
// platform functions on ipmi_sim's own BMC, and runs the library's tick once
// a second on ipmi_sim's timers.
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "BraskSvf/hostPlatformControl.h"
#include "BraskSvf/svfApi.h"
#include "oemCommands.h"
#include "simContext.h"

namespace {

sys_data_t* gSys = nullptr;
lmc_data_t* gBmc = nullptr;
ipmi_timer_t* gTick = nullptr;

constexpr char kModuleName[] = "libBraskSvf ipmi_sim module";

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitizerBuild = true;
#elif defined(__has_feature)
constexpr bool kSanitizerBuild = __has_feature(address_sanitizer);
#else
constexpr bool kSanitizerBuild = false;
#endif

int armTick() noexcept {
    struct timeval second = {1, 0};
    return gSys->start_timer(gTick, &second);
}

// The firmware's periodic task: one svfRestoreTimer per second.
void tick(void*) {
    svfRestoreTimer();
    if (armTick() != 0) gSys->log(gSys, OS_ERROR, nullptr, "%s: tick timer stopped", kModuleName);
}

}  // namespace

namespace ipmisim {

lmc_data_t* bmc() noexcept { return gBmc; }
void setBmc(lmc_data_t* mc) noexcept { gBmc = mc; }

}  // namespace ipmisim

extern "C" {

__attribute__((visibility("default"))) void ipmi_sim_module_print_version(sys_data_t*, char*) {
    std::printf("%s %s\n", kModuleName, BRASK_IPMI_MODULE_VERSION);
}

__attribute__((visibility("default"))) int ipmi_sim_module_init(sys_data_t* sys, char* options) {
    (void)options;
    gSys = sys;
    // A sanitizer build loads into ipmi_sim behind the runtimes named in
    // LD_PRELOAD; the programs the library starts (cp, dd, the init scripts)
    // must not inherit them.
    if (kSanitizerBuild) (void)::unsetenv("LD_PRELOAD");
    // The platform's state files (semi-volatile area, EEPROM, locks) live here.
    if (::mkdir(HOST_STATE_DIR, 0755) != 0 && errno != EEXIST) {
        sys->log(sys, SETUP_ERROR, nullptr, "%s: cannot make %s", kModuleName, HOST_STATE_DIR);
        return errno;
    }
    int rc = ipmisim::registerOemCommands();
    if (rc != 0) {
        sys->log(sys, SETUP_ERROR, nullptr, "%s: cannot register the OEM commands: %d", kModuleName, rc);
        return rc;
    }
    rc = sys->alloc_timer(sys, tick, nullptr, &gTick);
    if (rc == 0) rc = armTick();
    if (rc != 0) {
        sys->log(sys, SETUP_ERROR, nullptr, "%s: cannot start the tick timer: %d", kModuleName, rc);
        return rc;
    }
    return 0;
}

// The command file has made the MCs by now: take the BMC's.
__attribute__((visibility("default"))) void ipmi_sim_module_post_init(sys_data_t* sys) {
    if (gBmc == nullptr) gBmc = sys->ipmb_addrs[sys->bmc_ipmb];
    if (gBmc == nullptr) {
        sys->log(sys, SETUP_ERROR, nullptr, "%s: no BMC at 0x%02x", kModuleName, sys->bmc_ipmb);
    }
}

}  // extern "C"

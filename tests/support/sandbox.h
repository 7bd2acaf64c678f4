// The test layer over the sandbox core (sandbox/sandbox.h): main() enters
// the sandbox first, then resetState() gives every test case a clean BMC.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/sandbox.h"

namespace brask::test {

// The sandbox core (probes, controls, file helpers) as the test layer's own.
using namespace sandbox;

// sandbox::resetTree(), then /var/hsl with hostPlatformInit(); clears the
// library's countdowns and pending restore and the host platform's fault
// controls, counters, SEL time, FRU access log and firmware-update state.
// Called before every test case by the runner; aborts outside the sandbox.
void resetState();

// Descriptors open in this process and its file-backed mappings: tests compare
// them before and after a call to prove nothing was left open or mapped.
int openDescriptorCount();
int mappingCount();

// Event data bytes of the host platform's SEL records, in order.
std::vector<std::uint8_t> selEvents();

// Writes one byte of the status table straight into the shared area
// (set-up); aborts when the host platform's area is not there.
void setStatusByte(unsigned index, std::uint8_t state);

}  // namespace brask::test

// Functions and data that ipmi_sim exports to its modules but that the
// installed OpenIPMI headers (lanserv.h, mcserv.h) do not declare.  The
// prototypes follow the exported code of the packaged ipmi_sim; every result
// is 0 or an errno value.
#pragma once

extern "C" {

// mcserv.h has no C++ guard of its own.
#include <OpenIPMI/mcserv.h>

// Length of FRU `device_id` of `mc`: ENOSYS when the MC has no FRU inventory
// support, EINVAL when that FRU does not exist.
int ipmi_mc_get_fru_data_len(lmc_data_t* mc, unsigned char device_id, unsigned int* length);

// Copies the first `length` bytes of the FRU (at most its length) into `data`,
// under the FRU's semaphore.
int ipmi_mc_get_fru_data(lmc_data_t* mc, unsigned char device_id, unsigned int length, unsigned char* data);

// Replaces the FRU's contents: with a null `io`, a copy of `length` bytes of
// `data` (the form of FRUs given as "data" in the command file).
typedef int (*sim_fru_io_f)(void* cb_data, int op, unsigned char* data, unsigned int offset,
                            unsigned int length);
int ipmi_mc_add_fru_data(lmc_data_t* mc, unsigned char device_id, unsigned int length, sim_fru_io_f io,
                         void* data);

// Appends a record to the MC's SEL.  `event` holds the 13 bytes after the
// record type; for record types below 0xE0 ipmi_sim stamps bytes 0 to 3 with
// its SEL clock.  EOPNOTSUPP without a SEL, EAGAIN when it is full.
int ipmi_mc_add_to_sel(lmc_data_t* mc, unsigned char record_type, unsigned char event[13],
                       unsigned int* recid);

// ipmi_sim's own handlers of the Storage network function, by command.
extern cmd_handler_f storage_netfn_handlers[256];

}  // extern "C"

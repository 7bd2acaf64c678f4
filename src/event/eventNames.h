// Names of the event state codes and of the state machine's operations, as
// the transition table's debug lines print them; svfsim decodes with the same
// table.
#pragma once

#include <array>
#include <cstddef>

#include "BraskSvf/svfTypes.h"

namespace brask::events {

struct Name {
    INT8U code;
    const char* text;
};

constexpr std::array<Name, 11> kStateNames{{
    {ST_NOTHING, "ST_NOTHING"},
    {ST_GENERATED, "ST_GENERATED"},
    {ST_STANDBY, "ST_STANDBY"},
    {ST_PROCESSING, "ST_PROCESSING"},
    {ST_COMPLETION, "ST_COMPLETION"},
    {ST_FAIL, "ST_FAIL"},
    {ST_INVALID_DATA, "ST_INVALID_DATA"},
    {ST_PROCESSING_AND_GENERATED, "ST_PROCESSING_AND_GENERATED"},
    {ST_COMPLETION_AND_GENERATED, "ST_COMPLETION_AND_GENERATED"},
    {ST_FAIL_AND_GENERATED, "ST_FAIL_AND_GENERATED"},
    {ST_INVALID_DATA_AND_GENERATED, "ST_INVALID_DATA_AND_GENERATED"},
}};

constexpr std::array<Name, 13> kOperationNames{{
    {SVP_BACKUP_TRANS_REQ, "SVP_BACKUP_TRANS_REQ"},
    {SVP_BACKUP_TRANS_SUCCESS, "SVP_BACKUP_TRANS_SUCCESS"},
    {SVP_BACKUP_TRANS_FAIL, "SVP_BACKUP_TRANS_FAIL"},
    {SVP_RESTORE_PROC_REQ, "SVP_RESTORE_PROC_REQ"},
    {SVP_RESTORE_SUCCESS_OK, "SVP_RESTORE_SUCCESS_OK"},
    {SVP_RESTORE_FAIL_OK, "SVP_RESTORE_FAIL_OK"},
    {BMC_GENERATE_EVENT, "BMC_GENERATE_EVENT"},
    {BMC_START, "BMC_START"},
    {BMC_COMPLETE_SUCCESS, "BMC_COMPLETE_SUCCESS"},
    {BMC_COMPLETE_INVALID, "BMC_COMPLETE_INVALID"},
    {BMC_COMPLETE_FAIL, "BMC_COMPLETE_FAIL"},
    {BMC_FORCE_FAIL, "BMC_FORCE_FAIL"},
    {BMC_FORCE_CLEAR, "BMC_FORCE_CLEAR"},
}};

template <std::size_t N>
constexpr const char* nameOf(const std::array<Name, N>& names, INT8U code) {
    for (const Name& n : names) {
        if (n.code == code) return n.text;
    }
    return "?";  // unreachable for the codes the table uses
}

}  // namespace brask::events

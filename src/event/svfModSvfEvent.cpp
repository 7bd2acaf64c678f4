// Transition table of the backup/restore event states (unit svfModSvfEvent).
// The same table serves restore and backup slots; it does not know which
// slot a byte belongs to.
#include "event/svfModSvfEvent.h"

#include <array>

#include "common/diag.h"
#include "event/eventNames.h"

static constexpr const char kUnit[] = "svfModSvfEvent";

namespace {

using brask::events::kOperationNames;
using brask::events::kStateNames;
using brask::events::nameOf;

constexpr int kAnyState = -1;

// Text between the operation's name and the next state's name.  Row 40 has
// always printed one closing parenthesis fewer; it is kept as it stands.
constexpr char kClosed[] = ") > ";
constexpr char kUnclosed[] = " > ";

struct Transition {
    int now;  // state code, or kAnyState
    INT8U operation;
    INT8U next;
    const char* beforeNext;  // kClosed / kUnclosed for the rows matched by state
    const char* fixedText;   // the whole debug line of the any-state rows
};

constexpr Transition row(INT8U now, INT8U operation, INT8U next, const char* beforeNext = kClosed) {
    return {now, operation, next, beforeNext, nullptr};
}
constexpr Transition anyState(INT8U operation, INT8U next, const char* text) {
    return {kAnyState, operation, next, nullptr, text};
}

// Searched in order; the rows are disjoint, so order only fixes which line is printed.
constexpr std::array<Transition, 42> kTransitions{{
    row(ST_NOTHING, BMC_GENERATE_EVENT, ST_GENERATED),
    row(ST_GENERATED, SVP_BACKUP_TRANS_REQ, ST_STANDBY),
    row(ST_GENERATED, SVP_RESTORE_PROC_REQ, ST_STANDBY),
    row(ST_GENERATED, BMC_GENERATE_EVENT, ST_GENERATED),
    row(ST_STANDBY, SVP_BACKUP_TRANS_REQ, ST_STANDBY),
    row(ST_STANDBY, SVP_RESTORE_PROC_REQ, ST_STANDBY),
    row(ST_STANDBY, BMC_GENERATE_EVENT, ST_GENERATED),
    row(ST_STANDBY, BMC_START, ST_PROCESSING),
    row(ST_PROCESSING, SVP_BACKUP_TRANS_REQ, ST_PROCESSING),
    row(ST_PROCESSING, SVP_RESTORE_PROC_REQ, ST_PROCESSING),
    row(ST_PROCESSING, BMC_GENERATE_EVENT, ST_PROCESSING_AND_GENERATED),
    row(ST_PROCESSING, BMC_COMPLETE_SUCCESS, ST_COMPLETION),
    row(ST_PROCESSING, BMC_COMPLETE_INVALID, ST_INVALID_DATA),
    row(ST_PROCESSING, BMC_COMPLETE_FAIL, ST_FAIL),
    row(ST_COMPLETION, SVP_BACKUP_TRANS_SUCCESS, ST_NOTHING),
    row(ST_COMPLETION, SVP_BACKUP_TRANS_FAIL, ST_NOTHING),
    row(ST_COMPLETION, SVP_RESTORE_SUCCESS_OK, ST_NOTHING),
    row(ST_COMPLETION, BMC_GENERATE_EVENT, ST_COMPLETION_AND_GENERATED),
    row(ST_INVALID_DATA, SVP_BACKUP_TRANS_FAIL, ST_NOTHING),
    row(ST_INVALID_DATA, SVP_RESTORE_FAIL_OK, ST_NOTHING),
    row(ST_INVALID_DATA, BMC_GENERATE_EVENT, ST_INVALID_DATA_AND_GENERATED),
    row(ST_FAIL, SVP_BACKUP_TRANS_FAIL, ST_NOTHING),
    row(ST_FAIL, SVP_RESTORE_FAIL_OK, ST_NOTHING),
    row(ST_FAIL, BMC_GENERATE_EVENT, ST_FAIL_AND_GENERATED),
    row(ST_PROCESSING_AND_GENERATED, SVP_BACKUP_TRANS_REQ, ST_PROCESSING_AND_GENERATED),
    row(ST_PROCESSING_AND_GENERATED, SVP_RESTORE_PROC_REQ, ST_PROCESSING_AND_GENERATED),
    row(ST_PROCESSING_AND_GENERATED, BMC_GENERATE_EVENT, ST_PROCESSING_AND_GENERATED),
    row(ST_PROCESSING_AND_GENERATED, BMC_COMPLETE_SUCCESS, ST_COMPLETION_AND_GENERATED),
    row(ST_PROCESSING_AND_GENERATED, BMC_COMPLETE_INVALID, ST_INVALID_DATA_AND_GENERATED),
    row(ST_PROCESSING_AND_GENERATED, BMC_COMPLETE_FAIL, ST_FAIL_AND_GENERATED),
    row(ST_COMPLETION_AND_GENERATED, SVP_BACKUP_TRANS_SUCCESS, ST_GENERATED),
    row(ST_COMPLETION_AND_GENERATED, SVP_BACKUP_TRANS_FAIL, ST_GENERATED),
    row(ST_COMPLETION_AND_GENERATED, SVP_RESTORE_SUCCESS_OK, ST_GENERATED),
    row(ST_COMPLETION_AND_GENERATED, BMC_GENERATE_EVENT, ST_COMPLETION_AND_GENERATED),
    row(ST_INVALID_DATA_AND_GENERATED, SVP_BACKUP_TRANS_FAIL, ST_GENERATED),
    row(ST_INVALID_DATA_AND_GENERATED, SVP_RESTORE_FAIL_OK, ST_GENERATED),
    row(ST_INVALID_DATA_AND_GENERATED, BMC_GENERATE_EVENT, ST_INVALID_DATA_AND_GENERATED),
    row(ST_FAIL_AND_GENERATED, SVP_BACKUP_TRANS_FAIL, ST_GENERATED),
    row(ST_FAIL_AND_GENERATED, SVP_RESTORE_FAIL_OK, ST_GENERATED),
    row(ST_FAIL_AND_GENERATED, BMC_GENERATE_EVENT, ST_FAIL_AND_GENERATED, kUnclosed),
    // Forced transitions hold for any byte, also one that is no state code.
    anyState(BMC_FORCE_FAIL, ST_FAIL, "peration == BMC_FORCE_FAIL > ST_FAIL"),
    anyState(BMC_FORCE_CLEAR, ST_NOTHING, "Operation == BMC_FORCE_CLEAR > ST_NOTHING"),
}};

}  // namespace

INT8U svfModSvfEvent(INT8U NowEvent, INT8U Operation) {
    for (const Transition& t : kTransitions) {
        if (t.operation != Operation) continue;
        if (t.now == kAnyState) {
            SVF_DEBUG("%s", t.fixedText);
            return t.next;
        }
        if (t.now == NowEvent) {
            SVF_DEBUG("(NowEvent == %s) && (Operation== %s%s%s", nameOf(kStateNames, NowEvent),
                      nameOf(kOperationNames, Operation), t.beforeNext, nameOf(kStateNames, t.next));
            return t.next;
        }
    }
    return SVF_EVENT_REJECTED;
}

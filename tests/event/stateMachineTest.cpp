// The event state machine, checked against the transition table written out
// here independently of the library's copy.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BraskSvf/svfApi.h"
#include "event/eventTestSupport.h"
#include "event/svfModSvfEvent.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

struct Row {
    INT8U now, op, next;
};

// The 40 transitions that depend on the current state, as the event life is described.
const std::vector<Row> kRows = {
    {0x00, 0x30, 0x01}, {0x01, 0x01, 0x02}, {0x01, 0x11, 0x02}, {0x01, 0x30, 0x01},
    {0x02, 0x01, 0x02}, {0x02, 0x11, 0x02}, {0x02, 0x30, 0x01}, {0x02, 0x31, 0x03},
    {0x03, 0x01, 0x03}, {0x03, 0x11, 0x03}, {0x03, 0x30, 0x13}, {0x03, 0x32, 0x04},
    {0x03, 0x33, 0x06}, {0x03, 0x34, 0x05}, {0x04, 0x02, 0x00}, {0x04, 0x03, 0x00},
    {0x04, 0x12, 0x00}, {0x04, 0x30, 0x14}, {0x06, 0x03, 0x00}, {0x06, 0x13, 0x00},
    {0x06, 0x30, 0x16}, {0x05, 0x03, 0x00}, {0x05, 0x13, 0x00}, {0x05, 0x30, 0x15},
    {0x13, 0x01, 0x13}, {0x13, 0x11, 0x13}, {0x13, 0x30, 0x13}, {0x13, 0x32, 0x14},
    {0x13, 0x33, 0x16}, {0x13, 0x34, 0x15}, {0x14, 0x02, 0x01}, {0x14, 0x03, 0x01},
    {0x14, 0x12, 0x01}, {0x14, 0x30, 0x14}, {0x16, 0x03, 0x01}, {0x16, 0x13, 0x01},
    {0x16, 0x30, 0x16}, {0x15, 0x03, 0x01}, {0x15, 0x13, 0x01}, {0x15, 0x30, 0x15},
};

const std::vector<INT8U> kOperations = {0x01, 0x02, 0x03, 0x11, 0x12, 0x13, 0x30,
                                        0x31, 0x32, 0x33, 0x34, 0xFE, 0xFF};

const std::string kDebug = "BRASK_DEBUG  : svfModSvfEvent(N) : ";
const std::string kErr = "BRASK_ERR  : svfModSvfEvent(N) : ";
const std::string kForceFailLine = kDebug + "peration == BMC_FORCE_FAIL > ST_FAIL\n";
const std::string kForceClearLine = kDebug + "Operation == BMC_FORCE_CLEAR > ST_NOTHING\n";

// The table's answer, 0xFF when it rejects the pair.
int expectedNext(int now, int op) {
    if (op == BMC_FORCE_FAIL) return ST_FAIL;
    if (op == BMC_FORCE_CLEAR) return ST_NOTHING;
    for (const Row& r : kRows) {
        if (r.now == now && r.op == op) return r.next;
    }
    return 0xFF;
}

TEST(ModSvfEvent, EveryByteAndOperationFollowsTheTableAndPrintsOnlyWhenAccepted) {
    int accepted = 0;
    CaptureStdout();
    for (int now = 0; now < 256; ++now) {
        for (int op = 0; op < 256; ++op) {
            const int want = expectedNext(now, op);
            if (want != 0xFF) ++accepted;
            const INT8U got = svfModSvfEvent(static_cast<INT8U>(now), static_cast<INT8U>(op));
            if (got != want) {
                ADD_FAILURE() << "now " << now << " op " << op << ": " << int(got) << " != " << want;
            }
        }
    }
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(accepted, 40 + 2 * 256);
    int lines = 0;
    for (char c : out) lines += c == '\n';
    EXPECT_EQ(lines, accepted);
}

TEST(SetSvfEvent, EveryByteAndOperationEndsInTheExpectedState) {
    for (int now = 0; now < 256; ++now) {
        for (INT8U op : kOperations) {
            int wantByte = expectedNext(now, op);
            int wantResult = wantByte;
            bool rejected = false, forced = false;
            if (wantByte == 0xFF) {
                rejected = true;
                // A rejected operation on an event being processed fails it ...
                wantByte = wantResult = expectedNext(now, BMC_COMPLETE_FAIL);
                if (wantByte == 0xFF) {
                    // ... anything else is forced to ST_FAIL and says so by 0xFF.
                    forced = true;
                    wantByte = ST_FAIL;
                    wantResult = 0xFF;
                }
            }
            INT8U status = static_cast<INT8U>(now);
            CaptureStdout();
            CaptureStderr();
            const INT32S result = svfSetSvfEvent(&status, op);
            const std::string err = GetCapturedStderr();
            (void)GetCapturedStdout();
            SCOPED_TRACE("now " + std::to_string(now) + " op " + std::to_string(op));
            EXPECT_EQ(status, wantByte);
            EXPECT_EQ(result, wantResult);
            EXPECT_EQ(err.find("UNJUST_OPERATION") != std::string::npos, rejected);
            EXPECT_EQ(err.find("TargetStatus = BMC_FORCE_FAIL") != std::string::npos, forced);
            if (HasFailure()) return;  // one broken pair says enough
        }
    }
}

struct OutputCase {
    INT8U now, op;
    INT8U byte;
    INT32S result;
    std::string out, err;
};

TEST(SetSvfEvent, PrintsTheExactLines) {
    const std::vector<OutputCase> cases = {
        {ST_PROCESSING, BMC_COMPLETE_SUCCESS, ST_COMPLETION, ST_COMPLETION,
         kDebug + "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_SUCCESS) > ST_COMPLETION\n",
         ""},
        {ST_NOTHING, SVP_BACKUP_TRANS_REQ, ST_FAIL, 0xFF, kForceFailLine,
         kErr + "UNJUST_OPERATION\n" + kErr + "TargetStatus = BMC_FORCE_FAIL\n"},
        {ST_PROCESSING, SVP_BACKUP_TRANS_SUCCESS, ST_FAIL, ST_FAIL,
         kDebug + "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_FAIL) > ST_FAIL\n",
         kErr + "UNJUST_OPERATION\n"},
        {ST_PROCESSING_AND_GENERATED, BMC_START, ST_FAIL_AND_GENERATED, ST_FAIL_AND_GENERATED,
         kDebug + "(NowEvent == ST_PROCESSING_AND_GENERATED) && (Operation== BMC_COMPLETE_FAIL) > "
                  "ST_FAIL_AND_GENERATED\n",
         kErr + "UNJUST_OPERATION\n"},
        {ST_COMPLETION_AND_GENERATED, SVP_RESTORE_FAIL_OK, ST_FAIL, 0xFF, kForceFailLine,
         kErr + "UNJUST_OPERATION\n" + kErr + "TargetStatus = BMC_FORCE_FAIL\n"},
        {ST_FAIL_AND_GENERATED, BMC_GENERATE_EVENT, ST_FAIL_AND_GENERATED, ST_FAIL_AND_GENERATED,
         kDebug + "(NowEvent == ST_FAIL_AND_GENERATED) && (Operation== BMC_GENERATE_EVENT > "
                  "ST_FAIL_AND_GENERATED\n",
         ""},
        {0x42, BMC_FORCE_CLEAR, ST_NOTHING, ST_NOTHING, kForceClearLine, ""},
        {0x42, BMC_GENERATE_EVENT, ST_FAIL, 0xFF, kForceFailLine,
         kErr + "UNJUST_OPERATION\n" + kErr + "TargetStatus = BMC_FORCE_FAIL\n"},
    };
    for (const OutputCase& c : cases) {
        SCOPED_TRACE("now " + std::to_string(c.now) + " op " + std::to_string(c.op));
        INT8U status = c.now;
        CaptureStdout();
        CaptureStderr();
        const INT32S result = svfSetSvfEvent(&status, c.op);
        const std::string err = GetCapturedStderr();
        const std::string out = GetCapturedStdout();
        EXPECT_EQ(status, c.byte);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(brask::test::withoutLineNumbers(out), c.out);
        EXPECT_EQ(brask::test::withoutLineNumbers(err), c.err);
    }
}

}  // namespace

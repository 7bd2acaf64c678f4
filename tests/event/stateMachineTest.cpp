// The event state machine, checked against the transition table written out
// here independently of the library's copy.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "event/eventTestSupport.h"
#include "event/svfModSvfEvent.h"

namespace {

using brask::test::captured;

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
    const std::string out = captured([&] {
        for (int now = 0; now < 256; ++now) {
            for (int op = 0; op < 256; ++op) {
                const int want = expectedNext(now, op);
                accepted += want != 0xFF;
                const INT8U got = svfModSvfEvent(static_cast<INT8U>(now), static_cast<INT8U>(op));
                EXPECT_EQ(got, want) << "now " << now << " op " << op;
            }
        }
    }).out;
    EXPECT_EQ(accepted, 40 + 2 * 256);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), accepted);
}

TEST(SetSvfEvent, EveryByteAndOperationEndsInTheExpectedStateAndErrors) {
    for (int now = 0; now < 256; ++now) {
        for (INT8U op : kOperations) {
            int wantByte = expectedNext(now, op);
            int wantResult = wantByte;
            std::string wantErr;
            if (wantByte == 0xFF) {
                wantErr = kErr + "UNJUST_OPERATION\n";
                // A rejected operation on an event being processed fails it ...
                wantByte = wantResult = expectedNext(now, BMC_COMPLETE_FAIL);
                if (wantByte == 0xFF) {
                    // ... anything else is forced to ST_FAIL and says so by 0xFF.
                    wantErr += kErr + "TargetStatus = BMC_FORCE_FAIL\n";
                    wantByte = ST_FAIL;
                    wantResult = 0xFF;
                }
            }
            INT8U status = static_cast<INT8U>(now);
            INT32S result = 0;
            const std::string err = captured([&] { result = svfSetSvfEvent(&status, op); }).err;
            SCOPED_TRACE("now " + std::to_string(now) + " op " + std::to_string(op));
            EXPECT_EQ(status, wantByte);
            EXPECT_EQ(result, wantResult);
            EXPECT_EQ(err, wantErr);
            if (HasFailure()) return;  // one broken pair says enough
        }
    }
}

TEST(SetSvfEvent, PrintsTheLineOfTheTransitionTaken) {
    const struct {
        INT8U now, op;
        std::string out;
    } cases[] = {
        {ST_PROCESSING, BMC_COMPLETE_SUCCESS,
         "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_SUCCESS) > ST_COMPLETION"},
        {ST_PROCESSING, SVP_BACKUP_TRANS_SUCCESS,
         "(NowEvent == ST_PROCESSING) && (Operation== BMC_COMPLETE_FAIL) > ST_FAIL"},
        {ST_PROCESSING_AND_GENERATED, BMC_START,
         "(NowEvent == ST_PROCESSING_AND_GENERATED) && (Operation== BMC_COMPLETE_FAIL) > "
         "ST_FAIL_AND_GENERATED"},
        {ST_FAIL_AND_GENERATED, BMC_GENERATE_EVENT,
         "(NowEvent == ST_FAIL_AND_GENERATED) && (Operation== BMC_GENERATE_EVENT > ST_FAIL_AND_GENERATED"},
        {0x42, BMC_FORCE_CLEAR, "Operation == BMC_FORCE_CLEAR > ST_NOTHING"},
        {0x42, BMC_GENERATE_EVENT, "peration == BMC_FORCE_FAIL > ST_FAIL"},
    };
    for (const auto& c : cases) {
        INT8U status = c.now;
        EXPECT_EQ(captured([&] { svfSetSvfEvent(&status, c.op); }).out, kDebug + c.out + "\n")
            << "now " << int(c.now) << " op " << int(c.op);
    }
}

}  // namespace

#include "restoreTestSupport.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "BraskSvf/svfApi.h"
#include "archive/format.h"
#include "support/sandbox.h"
#include "support/scenario.h"

namespace brask::test {

ByteVec sampleBackup(BackupLayout shape) {
    shape.blocks = {test::block({}), test::block({entry("/conf/resolv.conf", "restored\n"),
                                                  entry("/conf/hid.conf", "hid\n")})};
    return test::backup(shape);
}

ByteVec flipped(std::size_t at) {
    ByteVec f = sampleBackup();
    f[at] ^= 0x10;
    return f;
}

std::vector<std::string> deleteFirstPaths() {
    std::vector<std::string> paths;
    for (const BackupFileList_T& row : BmcBackupFileList) {
        if (row.RestoreType == RESTORE_DELETE_FIRST) paths.emplace_back(row.FilePass);
    }
    return paths;
}

bool waitForCommand(const std::string& line) {
    for (int i = 0; i < 500; ++i) {
        if (commandLog().find(line) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool inOrder(const std::string& text, std::initializer_list<const char*> parts) {
    std::vector<std::size_t> at;
    for (const char* p : parts) at.push_back(text.find(p));
    return std::find(at.begin(), at.end(), std::string::npos) == at.end() &&
           std::adjacent_find(at.begin(), at.end(), std::greater_equal<>()) == at.end();
}

}  // namespace brask::test

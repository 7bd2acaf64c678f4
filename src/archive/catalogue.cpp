// The backup catalogue (which /conf files a backup holds, and how each is
// restored) and the naming rules that tie an active file to its ".bak" copy
// and a backup file to its block files.  Pure data and rules: no file is
// touched and nothing is printed here.
#include "archive/catalogue.h"

#include <cstring>
#include <string_view>

#include "BraskSvf/svfApi.h"
#include "common/paths.h"
#include "common/shellCommand.h"

namespace {

constexpr std::string_view kBackupSuffix = ".bak";

// The three kinds of BMC rows: mandatory, optional, optional and deleted
// before the restore so that a file absent from the backup stays absent.
enum class Kind { M, O, D };

// Not constexpr: reaching it while building a row stops the compilation.
void catalogue_path_does_not_take_bak_suffix() {}

constexpr BackupFileList_T makeRow(std::string_view path, Kind kind) {
    if (path.size() > brask::catalogue::kMaxActivePathLength) {
        catalogue_path_does_not_take_bak_suffix();
    }
    BackupFileList_T row{};
    for (std::size_t i = 0; i < path.size(); ++i) row.FilePass[i] = path[i];
    row.ExistencType = kind == Kind::M ? STATIC : DYNAMIC;
    row.TargetPart = WHOLE;
    row.RestoreType = kind == Kind::D ? RESTORE_DELETE_FIRST : RESTORE_OVERWRITE;
    row.TargetArcBlock = 1;
    return row;
}

// Row k (0..4) of user directory bmcuserN: authorized_keys, then sshpubkey1..4.
constexpr BackupFileList_T userRow(unsigned user, unsigned k) {
    constexpr std::string_view kHome = "/conf/brask/bum_home/bmcuser";
    constexpr std::string_view kFiles[] = {"/.ssh/authorized_keys", "/sshpubkey1", "/sshpubkey2",
                                           "/sshpubkey3", "/sshpubkey4"};
    char path[SVF_FILE_PASS_SIZE]{};
    std::size_t n = 0;
    for (char c : kHome) path[n++] = c;
    if (user >= 10) path[n++] = static_cast<char>('0' + user / 10);
    path[n++] = static_cast<char>('0' + user % 10);
    for (char c : kFiles[k]) path[n++] = c;
    return makeRow(std::string_view(path, n), Kind::D);
}

}  // namespace

#define BMC_USER_ROWS(n) userRow(n, 0), userRow(n, 1), userRow(n, 2), userRow(n, 3), userRow(n, 4)

// Archive entries follow this order; PMConfig.dat must stay last in its block.
constexpr BackupFileList_T BmcBackupFileList[SVF_BMC_BACKUP_FILE_COUNT] = {
    makeRow("/conf/resolv.conf", Kind::M),
    makeRow("/conf/dhcpc-config", Kind::O),
    makeRow("/conf/interfaces", Kind::M),
    makeRow("/conf/ldap.conf.disabled", Kind::M),
    makeRow("/conf/brask/DeconfigInfo.dat", Kind::O),
    makeRow("/conf/hid.conf", Kind::M),
    makeRow("/conf/adviserd.conf", Kind::M),
    makeRow("/conf/vmedia.conf", Kind::M),
    makeRow("/conf/brask/ssh/sshd_not_to_be_run", Kind::D),
    makeRow("/conf/brask/inetd.conf", Kind::O),
    makeRow("/conf/brask/services", Kind::O),
    makeRow("/conf/brask/rkvm_port", Kind::O),
    makeRow("/conf/brask/http_port", Kind::O),
    makeRow("/conf/brask/https_port", Kind::O),
    makeRow("/conf/all.stunnel.conf", Kind::O),
    makeRow("/conf/ssh_host_dsa_key", Kind::D),
    makeRow("/conf/ssh_host_dsa_key.pub", Kind::D),
    makeRow("/conf/ssh_host_rsa_key", Kind::D),
    makeRow("/conf/ssh_host_rsa_key.pub", Kind::D),
    makeRow("/conf/sshd_config", Kind::O),
    makeRow("/conf/brask/NTPInfo.dat", Kind::M),
    makeRow("/conf/brask/TimeInfo.dat", Kind::M),
    makeRow("/conf/brask/ScheduleData.dat", Kind::M),
    makeRow("/conf/brask/AssetInfoServerAssetInfo", Kind::D),
    makeRow("/conf/passwd", Kind::M),
    makeRow("/conf/shadow", Kind::M),
    makeRow("/conf/group", Kind::M),
    makeRow(brask::paths::kBmcUserInfoFile, Kind::O),
    BMC_USER_ROWS(0),
    BMC_USER_ROWS(1),
    BMC_USER_ROWS(2),
    BMC_USER_ROWS(3),
    BMC_USER_ROWS(4),
    BMC_USER_ROWS(5),
    BMC_USER_ROWS(6),
    BMC_USER_ROWS(7),
    BMC_USER_ROWS(8),
    BMC_USER_ROWS(9),
    BMC_USER_ROWS(10),
    BMC_USER_ROWS(11),
    makeRow("/conf/brask/AssetInfoServerName", Kind::D),
    makeRow("/conf/brask/WebConsLanguageSetting", Kind::D),
    makeRow("/conf/SysName.dat", Kind::O),
    makeRow("/conf/CPUIDString.dat", Kind::O),
    makeRow(brask::paths::kCapabilityFile, Kind::O),
    makeRow("/conf/brask/SvpLanInfo.dat", Kind::O),
    makeRow("/conf/brask/SvpConfigInfo1.dat", Kind::O),
    makeRow("/conf/brask/SvpConfigInfo2.dat", Kind::O),
    makeRow("/conf/brask/SvpConfigInfo3.dat", Kind::O),
    makeRow("/conf/brask/net.cfg", Kind::O),
    makeRow("/conf/brask/OEMConfig.dat", Kind::O),
    makeRow(brask::paths::kFruBackupFile, Kind::O),
    makeRow("/conf/BMC1/SDR.dat", Kind::O),
    makeRow("/conf/brask/NetFilterConfig", Kind::O),
    makeRow("/conf/brask/iptables_data", Kind::D),
    makeRow("/conf/brask/SvpHaPort.dat", Kind::O),
    makeRow(brask::paths::kPostCheckCodeFile, Kind::O),
    makeRow(brask::paths::kWatchdogParametersFile, Kind::O),
    makeRow("/conf/brask/ServerInfoData.dat", Kind::O),
    makeRow("/conf/brask/FRUData.dat", Kind::O),
    makeRow(brask::paths::kPmConfigFile, Kind::M),
};

#undef BMC_USER_ROWS

// The EFI catalogue has no rows; its symbol still exists for the firmware.
__extension__ const BackupFileList_T EfiBackupFileList[0] = {};

// Bytes of PMConfig.dat taken from the backup on a part restore.
constexpr PartOffsetList_T PmconfigList[SVF_PMCONFIG_PART_COUNT] = {{0, 2}, {4, 5}};

namespace {

constexpr int countRows(INT8U existence, INT8U restore) {
    int n = 0;
    for (const BackupFileList_T& r : BmcBackupFileList) {
        if (r.ExistencType == existence && r.RestoreType == restore) ++n;
    }
    return n;
}
constexpr bool allInBlockOne() {
    for (const BackupFileList_T& r : BmcBackupFileList) {
        if (r.TargetArcBlock != 1 || r.TargetPart != WHOLE) return false;
    }
    return true;
}
constexpr bool samePath(const char* a, std::string_view b) { return std::string_view(a) == b; }
static_assert(countRows(STATIC, RESTORE_OVERWRITE) == 13);
static_assert(countRows(DYNAMIC, RESTORE_OVERWRITE) == 27);
static_assert(countRows(DYNAMIC, RESTORE_DELETE_FIRST) == 69);
static_assert(allInBlockOne());
static_assert(samePath(BmcBackupFileList[28].FilePass, "/conf/brask/bum_home/bmcuser0/.ssh/authorized_keys"));
static_assert(samePath(BmcBackupFileList[87].FilePass, "/conf/brask/bum_home/bmcuser11/sshpubkey4"));
static_assert(samePath(BmcBackupFileList[108].FilePass, brask::paths::kPmConfigFile));

}  // namespace

namespace brask::catalogue {

Selection select(INT8U fwType) {
    if (fwType != 0) {
        return {BmcBackupFileList, SVF_BMC_BACKUP_FILE_COUNT, paths::kBmcBackupFile};
    }
    return {EfiBackupFileList, SVF_EFI_BACKUP_FILE_COUNT, paths::kEfiBackupFile};
}

const BackupFileList_T* find(const Selection& cat, std::string_view activePath) {
    for (const BackupFileList_T& row : cat) {
        if (std::string_view(row.FilePass, ::strnlen(row.FilePass, sizeof row.FilePass)) == activePath) {
            return &row;
        }
    }
    return nullptr;
}

INT8U blockCount(const Selection& cat) {
    unsigned largest = 0;
    for (const BackupFileList_T& row : cat) {
        if (row.TargetArcBlock > largest) largest = row.TargetArcBlock;
    }
    return static_cast<INT8U>(largest + 1);
}

}  // namespace brask::catalogue

bool brask::catalogue::appendBackupSuffix(const char* src, char* dst) {
    const std::size_t n = ::strnlen(src, SVF_FILE_PASS_SIZE);
    if (n > kMaxActivePathLength) return false;
    std::memcpy(dst, src, n);
    std::memcpy(dst + n, kBackupSuffix.data(), kBackupSuffix.size());
    dst[n + kBackupSuffix.size()] = '\0';
    return true;
}

bool brask::catalogue::cutAtBackupSuffix(char* name) {
    // The first ".bak" wins, even when the name carries a later one.
    char* suffix = std::strstr(name, kBackupSuffix.data());
    if (suffix == nullptr) return false;
    *suffix = '\0';
    return true;
}

bool brask::catalogue::blockFileName(std::span<char> name, const char* backupFile, unsigned block) {
    return formatInto(name, "%s-%u", backupFile, block);
}

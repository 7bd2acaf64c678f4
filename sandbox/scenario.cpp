// One generator of a realistic BMC /conf tree; every suite and svfsim take
// their files from here.  Content is deterministic (fixed seed) so failures reproduce.
#include "sandbox/scenario.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

#include "BraskSvf/svfTypes.h"

namespace brask::sandbox {

namespace {

void makeParents(const std::string& path) {
    for (std::size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        const std::string dir = path.substr(0, pos);
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            throw std::runtime_error("mkdir " + dir + ": " + std::strerror(errno));
        }
    }
}

void writeRaw(const std::string& path, const void* data, std::size_t size, mode_t mode) {
    makeParents(path);
    std::FILE* fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) throw std::runtime_error("fopen " + path + ": " + std::strerror(errno));
    const bool ok = size == 0 || std::fwrite(data, 1, size, fp) == size;
    if (std::fclose(fp) != 0 || !ok) throw std::runtime_error("write " + path + " failed");
    if (::chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("chmod " + path + ": " + std::strerror(errno));
    }
}

using Rng = std::mt19937;

std::string base64ish(Rng& rng, std::size_t n) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string s;
    s.reserve(n);
    for (std::size_t i = 0; i < n; ++i) s += kAlphabet[rng() % 64];
    return s;
}

std::string pemKey(Rng& rng, const char* kind, std::size_t bodyLines) {
    std::string s = std::string("-----BEGIN ") + kind + " PRIVATE KEY-----\n";
    for (std::size_t i = 0; i < bodyLines; ++i) s += base64ish(rng, 64) + "\n";
    return s + "-----END " + kind + " PRIVATE KEY-----\n";
}

std::string publicKey(Rng& rng, const char* type, const std::string& comment) {
    return std::string(type) + " AAAA" + base64ish(rng, 368) + " " + comment + "\n";
}

std::string repeatLines(const std::string& line, unsigned times) {
    std::string s;
    for (unsigned i = 0; i < times; ++i) s += line;
    return s;
}

std::string bytes(Rng& rng, std::size_t n, bool avoidFF = false) {
    std::string s(n, '\0');
    for (char& c : s) {
        unsigned v = rng() & 0xFFu;
        if (avoidFF && v == 0xFF) v = 0xFE;
        c = static_cast<char>(v);
    }
    return s;
}

template <typename T>
std::string asBytes(const T& v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

std::string userInfo(Rng& rng) {
    bumUserInfo_t info{};
    info.header.version = 1;
    info.header.users = 3;
    for (unsigned i = 0; i < info.header.users; ++i) {
        bumUserAttr_t& u = info.user[i];
        u.header.length = sizeof(bumUserAttr_t);
        u.bmcUid = static_cast<uint8_t>(i + 2);
        u.passwdFlag = 1;
        u.role_value = i == 0 ? 4u : 2u;
        for (uint8_t& b : u.hashedPasswd) b = static_cast<uint8_t>(rng());
        for (unsigned k = 0; k < 8; ++k) u.prevLogin[k] = 1700000000u + i * 1000u + k;
    }
    return asBytes(info);
}

std::string capability() {
    INI_BMC_CAPABILITY_T cap{};
    std::memcpy(cap.BMCtype, "BRASK-BMC", 9);
    std::memcpy(cap.InterfaceREV, "01.20", 5);
    cap.rKVMVer = 0x0102;
    cap.WebConsoleVer = 0x0300;
    cap.PhysicsSVPCard = 1;
    cap.LogicSVP = 1;
    cap.rKVMFunction = 1;
    cap.rKVMMaxClient = 2;
    cap.VirtualStorage = 1;
    cap.VirtualStorageMaxClient = 1;
    cap.WebConsole = 1;
    cap.WebConsoleMaxClient = 4;
    cap.login = 1;
    cap.Calendar = 1;
    cap.WDT = 1;
    cap.AgentSEL = 1;
    return asBytes(cap);
}

// A FRU backup file: the 16-byte header counting the image that follows.  The
// image holds no 0xFF, which the FRU restore takes as the end of the data.
std::string fruBackup(Rng& rng, unsigned scale) {
    const std::size_t size = 512u * scale;
    std::string image = bytes(rng, size, true);
    image[0] = 0x01;  // common header format version
    SVF_BACKUP_FRUDAT_HEADER_T header{};
    header.Size = static_cast<INT32U>(size);
    return asBytes(header) + image;
}

std::map<std::string, std::pair<std::string, mode_t>> contents(bool optional, unsigned scale) {
    Rng rng(0x5EED);
    std::map<std::string, std::pair<std::string, mode_t>> f;
    auto text = [&](const char* path, std::string s, mode_t mode = 0644) { f[path] = {std::move(s), mode}; };

    // Every mandatory row.
    text("/conf/resolv.conf", "search bmc.example.net\nnameserver 192.0.2.53\nnameserver 192.0.2.54\n");
    text("/conf/interfaces",
         "auto lo\niface lo inet loopback\n\nauto eth0\niface eth0 inet static\n"
         "    address 192.0.2.10\n    netmask 255.255.255.0\n    gateway 192.0.2.1\n");
    text("/conf/ldap.conf.disabled", "BASE dc=example,dc=net\nURI ldap://192.0.2.20\n");
    text("/conf/hid.conf", "mouse_mode=absolute\nkeyboard_layout=us\n");
    text("/conf/adviserd.conf", repeatLines("session_timeout=1800\nmax_sessions=4\n", 8 * scale));
    text("/conf/vmedia.conf", "cd_num=1\nfd_num=1\nhd_num=1\nencryption=0\n");
    text("/conf/brask/NTPInfo.dat", bytes(rng, 64));
    text("/conf/brask/TimeInfo.dat", bytes(rng, 32));
    text("/conf/brask/ScheduleData.dat", bytes(rng, 256));
    std::string passwd = "root:x:0:0:root:/root:/bin/sh\nsshd:x:74:74::/var/empty:/sbin/nologin\n";
    std::string shadow = "root:$1$abcdefgh$0123456789abcdef012345:19000:0:99999:7:::\n";
    for (int u = 0; u < 3; ++u) {
        const std::string name = "bmcuser" + std::to_string(u);
        passwd +=
            name + ":x:" + std::to_string(1000 + u) + ":100::/conf/brask/bum_home/" + name + ":/bin/sh\n";
        shadow += name + ":$1$" + base64ish(rng, 8) + "$" + base64ish(rng, 22) + ":19000:0:99999:7:::\n";
    }
    text("/conf/passwd", passwd);
    text("/conf/shadow", shadow, 0600);
    text("/conf/group", "root:x:0:\nusers:x:100:bmcuser0,bmcuser1,bmcuser2\n");
    // PMConfig.dat: the part restore takes bytes 0..1 and 4..8 from a backup.
    text("/conf/BMC1/PMConfig.dat", bytes(rng, 64));
    if (!optional) return f;

    // A good sample of the optional rows.
    text("/conf/dhcpc-config", "hostname=bmc\nclientid=1\n");
    text("/conf/brask/DeconfigInfo.dat", bytes(rng, 48));
    text("/conf/brask/ssh/sshd_not_to_be_run", "");
    text("/conf/brask/inetd.conf", "telnet stream tcp nowait root /usr/sbin/telnetd telnetd\n");
    std::string services;
    for (unsigned port = 1; port <= 700 * scale; ++port) {
        services += "svc" + std::to_string(port) + "\t\t" + std::to_string(port) + "/tcp\n";
    }
    text("/conf/brask/services", services);
    text("/conf/brask/rkvm_port", "7578\n");
    text("/conf/brask/http_port", "80\n");
    text("/conf/brask/https_port", "443\n");
    text("/conf/ssh_host_dsa_key", pemKey(rng, "DSA", 10), 0600);
    text("/conf/ssh_host_dsa_key.pub", publicKey(rng, "ssh-dss", "root@bmc"));
    text("/conf/ssh_host_rsa_key", pemKey(rng, "RSA", 25), 0600);
    text("/conf/ssh_host_rsa_key.pub", publicKey(rng, "ssh-rsa", "root@bmc"));
    text("/conf/sshd_config", "Port 22\nPermitRootLogin no\nPasswordAuthentication yes\n");
    text("/conf/brask/AssetInfoServerAssetInfo", "ASSET-000123\n");
    text("/conf/brask/bum_home/bmcUserInfo.data", userInfo(rng));
    for (int u = 0; u < 3; ++u) {
        const std::string home = "/conf/brask/bum_home/bmcuser" + std::to_string(u);
        f[home + "/.ssh/authorized_keys"] = {
            publicKey(rng, "ssh-rsa", "admin" + std::to_string(u) + "@console"), 0600};
        f[home + "/sshpubkey1"] = {publicKey(rng, "ssh-rsa", "key1"), 0644};
        if (u == 0) f[home + "/sshpubkey2"] = {publicKey(rng, "ssh-ed25519", "key2"), 0644};
    }
    text("/conf/brask/AssetInfoServerName", "rack7-node3\n");
    text("/conf/brask/WebConsLanguageSetting", "en\n");
    text("/conf/SysName.dat", "BRASK-SERVER\n");
    text("/conf/CPUIDString.dat", "GenuineIntel 06_8F\n");
    text("/conf/BMCCapability.dat", capability());
    text("/conf/brask/SvpLanInfo.dat", bytes(rng, 40));
    text("/conf/brask/SvpConfigInfo1.dat", bytes(rng, 128));
    text("/conf/brask/net.cfg", "[eth0]\nipv4_mode=static\nipv6_mode=auto\nvlan=0\n");
    text("/conf/brask/OEMConfig.dat", bytes(rng, 32768u * scale));
    text("/conf/brask/FRUBACKUP.dat", fruBackup(rng, scale));
    text("/conf/BMC1/SDR.dat", bytes(rng, 196608u * scale));
    text("/conf/brask/iptables_data", repeatLines("-A INPUT -p tcp --dport 623 -j ACCEPT\n", 20));
    text("/conf/brask/PostCheckCode.dat", bytes(rng, 16));
    text("/conf/brask/WatchdogParameters.dat", bytes(rng, 16));
    text("/conf/brask/ServerInfoData.dat", bytes(rng, 512));
    return f;
}

}  // namespace

void writeFile(const std::string& path, std::string_view content, mode_t mode) {
    writeRaw(path, content.data(), content.size(), mode);
}

void writeBytes(const std::string& path, const std::vector<std::uint8_t>& data, mode_t mode) {
    writeRaw(path, data.data(), data.size(), mode);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::uint8_t> readBytes(const std::string& path) {
    const std::string s = readFile(path);
    return std::vector<std::uint8_t>(s.begin(), s.end());
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

void writeBiosConfig() {
    Rng rng(0xB105);
    std::string sections;
    auto section = [&](std::uint8_t type, std::size_t dataSize) {
        const std::size_t len = dataSize + 4;
        sections += static_cast<char>(type);
        sections += '\0';
        sections += static_cast<char>(len & 0xFFu);
        sections += static_cast<char>((len >> 8) & 0xFFu);
        sections += bytes(rng, dataSize);
    };
    section(1, 60);   // boot order
    section(3, 124);  // device settings
    section(2, 252);  // variable store: not compared
    section(4, 28);
    const std::size_t recordLen = 8 + sections.size();
    std::string file;
    file += '\x01';  // FormatRev
    file += static_cast<char>(recordLen & 0xFFu);
    file += static_cast<char>((recordLen >> 8) & 0xFFu);
    file += static_cast<char>((recordLen >> 16) & 0xFFu);
    file += '\x01';  // RevMajor
    file += '\x17';  // RevMinor: 1.23
    file += std::string(2, '\0');
    writeFile("/conf/brask/BIOSConfig.dat", file + sections);
}

std::vector<std::string> populateConf(std::span<const BackupFileList_T> catalogue,
                                      const ScenarioOptions& options) {
    const unsigned scale = options.scale == 0 ? 1 : options.scale;
    const auto files = contents(options.optionalFiles, scale);
    std::vector<std::string> written;
    for (const BackupFileList_T& row : catalogue) {
        const auto it = files.find(row.FilePass);
        if (it == files.end()) continue;
        const auto& [content, mode] = it->second;
        writeFile(it->first, content, mode);
        if (options.backupCopies) writeFile(it->first + ".bak", content, mode);
        written.push_back(it->first);
    }
    return written;
}

}  // namespace brask::sandbox

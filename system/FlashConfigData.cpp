#include "system/FlashConfigData.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <cstring>

#include "platform/flash/Flash.h"
#include "util/ConsoleCommand.h"
#include "util/Trace.h"

const char* const FlashConfigData::ScaleFactor = "scalefactor";
const char* const FlashConfigData::DemoMode = "demomode";
const char* const FlashConfigData::ClearDisk = "cleardisk";
const char* const FlashConfigData::RegionScaleFactor = "regionscalefactor";
const char* const FlashConfigData::AllowHostCommand = "allowhostcommand";
const char* const FlashConfigData::EncryptDiag = "encryptdiag";
const char* const FlashConfigData::MaxLunSize = "maxlunsize";
const char* const FlashConfigData::DisplayElm = "displayelm";
const char* const FlashConfigData::NoBgThreads = "nobgthreads";
const char* const FlashConfigData::ReadOnly = "readonly";
const char* const FlashConfigData::HostReadOnly = "hreadonly";
const char* const FlashConfigData::NoHost = "nohost";
const char* const FlashConfigData::NetConfigUseDefault = "netconfigusedefault";
const char* const FlashConfigData::NetConfigIPAddr = "netconfigipaddr";
const char* const FlashConfigData::NetConfigSubnet = "netconfigsubnet";
const char* const FlashConfigData::NetClearConfig = "netclearconfig";
const char* const FlashConfigData::DDRMode = "ddrmode";
const char* const FlashConfigData::ESXCert = "esxcert";
const char* const FlashConfigData::LedDimmingLevel = "leddimminglevel";

namespace {
struct KeyHelp {
    const char* key;
    const char* help;
};
const KeyHelp kKeys[] = {
    {FlashConfigData::ScaleFactor, "sets the total capacity scaling factor when used with demomode"},
    {FlashConfigData::DemoMode,
     "0 or 1; the system goes to demo mode at the next boot if the cleardisk button is pressed"},
    {FlashConfigData::ClearDisk, "clear the disks at each start"},
    {FlashConfigData::RegionScaleFactor, "scale factor for the size of regions, set in demo mode"},
    {FlashConfigData::AllowHostCommand, "0 or 1; allow the host to send debugging commands over USB"},
    {FlashConfigData::EncryptDiag, "0 or 1; controls whether diagnostics are scrambled"},
    {FlashConfigData::MaxLunSize, "maximum LUN size in TiB that the system exports to the host"},
    {FlashConfigData::DisplayElm, "0 or 1; display the event log on pack load"},
    {FlashConfigData::NoBgThreads, "0 or 1; suspend all background threads at start"},
    {FlashConfigData::ReadOnly, "0 or 1; prevent writes to disk"},
    {FlashConfigData::HostReadOnly, "0 or 1; throw away writes from the host"},
    {FlashConfigData::NoHost, "0 or 1; do not bring up the host connection"},
    {FlashConfigData::NetConfigUseDefault, "iSCSI address: 1 use the default"},
    {FlashConfigData::NetConfigIPAddr, "iSCSI address"},
    {FlashConfigData::NetConfigSubnet, "iSCSI subnet mask"},
    {FlashConfigData::NetClearConfig, "a clear of the disks also resets the network settings"},
    {FlashConfigData::DDRMode, "dual disk redundancy is wanted for the next pack"},
    {FlashConfigData::ESXCert, "0 or 1; enable or disable ESX certification mode"},
    {FlashConfigData::LedDimmingLevel, "1 to 200; LED dimming level"},
};

// The board keeps values as 32-bit words: a value read back takes the word
// its text names, "-1" and "4294967295" alike; text beyond 32 bits saturates.
unsigned long wordOf(const std::string& text) {
    long long v = std::strtoll(text.c_str(), nullptr, 10);
    if (v > (long long)UINT32_MAX) v = UINT32_MAX;
    if (v < (long long)INT32_MIN) v = INT32_MIN;
    return (unsigned long)uint32_t(v);
}

ConsoleCommand gFlash("flash", "commands to set flash variables", FlashConfigData::ConsoleCommandHandler);
}  // namespace

FlashConfigData* FlashConfigData::GetInstance() {
    static FlashConfigData instance;
    return &instance;
}

std::string FlashConfigData::filePath() const { return flashPath("/RFA/FlashConfigData"); }

void FlashConfigData::parseLine(const char* line) {
    if (line[0] == '\0' || line[0] == '#') return;
    while (*line == ' ' || *line == '\t') ++line;
    const char* blank = line;
    while (*blank && *blank != ' ' && *blank != '\t') ++blank;
    std::string name(line, size_t(blank - line));
    if (name.empty()) return;
    std::string value = *blank ? std::string(blank + 1) : std::string();
    if (!value.empty() && value.back() == '\r') value.pop_back();
    mValues.push_back(nvp{name, value});
}

StatusCode FlashConfigData::ReadConfigData() {
    mValues.clear();
    mLoaded = true;
    std::string path = filePath();
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f) {
        ESA_CONSOLE("Unable to open the FlashConfigFile: " << path);
        return StatusCode::InternalError;
    }
    struct stat st;
    if (::fstat(fileno(f), &st) == 0) {
        mModTime = st.st_mtim;
        mFileSize = st.st_size;
        mFileInode = st.st_ino;
    }
    char buf[kMaxFileBytes + 1] = {};
    size_t n = std::fread(buf, 1, kMaxFileBytes, f);
    if (std::ferror(f)) {
        ESA_CONSOLE("Error reading data from FlashConfigFile: " << path << ", " << std::strerror(errno));
        std::fclose(f);
        return StatusCode::Success;
    }
    if (n == 0) {
        ESA_CONSOLE("Unable to read any data from FlashConfigFile: " << path);
        std::fclose(f);
        return StatusCode::Success;
    }
    // Cut at each newline of what was read; a line that the size limit cuts
    // is parsed as it stands, and a NUL ends only its own line.
    char* start = buf;
    char* end = buf + n;
    while (start < end) {
        char* nl = static_cast<char*>(std::memchr(start, '\n', size_t(end - start)));
        if (nl) *nl = '\0';
        parseLine(start);
        if (!nl) break;
        start = nl + 1;
    }
    std::fclose(f);
    return StatusCode::Success;
}

StatusCode FlashConfigData::GetValueUint32(const char* key, unsigned long& value) {
    if (!mLoaded) {
        StatusCode s = ReadConfigData();
        if (s != StatusCode::Success) return s;
    }
    size_t len = std::strlen(key);
    for (const nvp& p : mValues) {
        if (p.name.size() == len && std::memcmp(p.name.data(), key, len) == 0) {
            // A bad number takes the value of its leading digits; a value the
            // board wrote in 32-bit signed form ("-1") reads back as the same word.
            value = wordOf(p.value);
            return StatusCode::Success;
        }
    }
    return StatusCode::DiskNotPresent;
}

StatusCode FlashConfigData::SetValueUint32(const char* key, unsigned long value) {
    struct stat st;
    // The flash file system's timestamps are coarse: size and inode catch an
    // outside edit made within the same tick as our last read.
    bool same = ::stat(filePath().c_str(), &st) == 0 && st.st_mtim.tv_sec == mModTime.tv_sec &&
                st.st_mtim.tv_nsec == mModTime.tv_nsec && st.st_size == mFileSize && st.st_ino == mFileInode;
    if (!same || !mLoaded) {
        mLoaded = false;
        ReadConfigData();
    }
    char text[32];
    std::snprintf(text, sizeof text, "%ld", long(int32_t(uint32_t(value))));
    size_t len = std::strlen(key);
    for (nvp& p : mValues) {
        if (p.name.size() == len && std::memcmp(p.name.data(), key, len) == 0) {
            p.value = text;
            return WriteConfigData();
        }
    }
    mValues.push_back(nvp{key, text});
    return WriteConfigData();
}

StatusCode FlashConfigData::WriteConfigData() {
    if (!mWriteEnabled) return StatusCode::Success;
    FILE* f = std::fopen(filePath().c_str(), "w");
    if (!f) {
        ESA_CONSOLE("Unable to open the FlashConfigFile for write: " << filePath());
        return StatusCode::FLASH_WriteFail;
    }
    for (const nvp& p : mValues) std::fprintf(f, "%s %s\n", p.name.c_str(), p.value.c_str());
    std::fclose(f);
    ESA_CONSOLE("WriteConfigData: FlashConfigData is updated.");
    return StatusCode::Success;
}

void FlashConfigData::DisplayConfigData(std::ostream& out) {
    if (!mLoaded) ReadConfigData();
    out << "FlashConfigData (" << mValues.size() << " settings):\n";
    for (const nvp& p : mValues) out << "  " << p.name << " = " << p.value << "\n";
}

StatusCode FlashConfigData::DeleteConfigFile() {
    mValues.clear();
    mLoaded = false;
    if (::unlink(filePath().c_str()) != 0 && errno != ENOENT) {
        ESA_CONSOLE("Unexpected error code trying to unlink " << filePath());
        return StatusCode::InternalError;
    }
    return StatusCode::Success;
}

void FlashConfigData::ListKeys(std::ostream& out) {
    for (const KeyHelp& k : kKeys) out << k.key << " - " << k.help << "\n";
}

bool FlashConfigData::IsKnownKey(const std::string& name) {
    for (const KeyHelp& k : kKeys)
        if (name == k.key) return true;
    return false;
}

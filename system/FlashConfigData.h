#pragma once
// FlashConfigData: the key and value store in the flash file
// /RFA/FlashConfigData, one "name value" line per setting, held in file order.
// At most 4,096 bytes of the file are read. Reads come from the copy in memory;
// a write re-reads the file first when it changed behind our back, then
// replaces the whole file. A key set twice in the file reads as the first.
#include <sys/types.h>

#include <ctime>
#include <ostream>
#include <string>
#include <vector>

#include "util/StatusCode.h"

class FlashConfigData {
public:
    static FlashConfigData* GetInstance();

    static const char* const ScaleFactor;
    static const char* const DemoMode;
    static const char* const ClearDisk;
    static const char* const RegionScaleFactor;
    static const char* const AllowHostCommand;
    static const char* const EncryptDiag;
    static const char* const MaxLunSize;
    static const char* const DisplayElm;
    static const char* const NoBgThreads;
    static const char* const ReadOnly;
    static const char* const HostReadOnly;
    static const char* const NoHost;
    static const char* const NetConfigUseDefault;
    static const char* const NetConfigIPAddr;
    static const char* const NetConfigSubnet;
    static const char* const NetClearConfig;
    static const char* const DDRMode;
    static const char* const ESXCert;
    static const char* const LedDimmingLevel;

    static constexpr size_t kMaxFileBytes = 4096;

    StatusCode GetValueUint32(const char* key, unsigned long& value);
    StatusCode SetValueUint32(const char* key, unsigned long value);
    StatusCode ReadConfigData();
    StatusCode WriteConfigData();
    void DisplayConfigData(std::ostream& out);
    StatusCode DeleteConfigFile();

    // The help texts of the keys, as `flash list` prints them.
    static void ListKeys(std::ostream& out);
    static bool IsKnownKey(const std::string& name);
    // The `flash` console command.
    static int ConsoleCommandHandler(int argc, char** argv, std::ostream& out);

    std::string filePath() const;

    // Tests build their own instances to model a restart.
    FlashConfigData() = default;

private:
    struct nvp {
        std::string name;
        std::string value;
    };
    void parseLine(const char* line);

    std::vector<nvp> mValues;
    bool mLoaded = false;
    bool mWriteEnabled = true;
    timespec mModTime{};
    off_t mFileSize = -1;
    ino_t mFileInode = 0;
};

// The handler of the `flash` console command over FlashConfigData. It is
// registered beside the store (FlashConfigData.cpp), so that every program
// that uses the store has the command.
#include <cstdint>
#include <cstring>

#include "system/FlashConfigData.h"
#include "util/ConsoleCommand.h"

int FlashConfigData::ConsoleCommandHandler(int argc, char** argv, std::ostream& out) {
    FlashConfigData* flash = FlashConfigData::GetInstance();
    std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "dump" && argc == 2) {
        flash->ReadConfigData();
        flash->DisplayConfigData(out);
        return 0;
    }
    if (verb == "reset" && argc == 2) return flash->DeleteConfigFile() == StatusCode::Success ? 0 : -1;
    if (verb == "list" && argc == 2) {
        FlashConfigData::ListKeys(out);
        return 0;
    }
    if ((verb == "get" && argc == 3) || (verb == "set" && argc == 4)) {
        std::string name = argv[2];
        if (!FlashConfigData::IsKnownKey(name)) {
            out << "Flash value " << name << " not known\n";
            return -1;
        }
        if (verb == "get") {
            unsigned long value = 0;
            flash->ReadConfigData();
            StatusCode s = flash->GetValueUint32(name.c_str(), value);
            if (s != StatusCode::Success) {
                out << name << " is not set\n";
                return 0;
            }
            out << name << " = " << long(int32_t(uint32_t(value))) << "\n";
            return 0;
        }
        long long value = 0;
        if (!parseConsoleNumber(argv[3], value) || value > (long long)UINT32_MAX || value < (long long)INT32_MIN) {
            out << "command not understood\n";
            return -1;
        }
        StatusCode s = flash->SetValueUint32(name.c_str(), (unsigned long)value);
        out << name << " set to " << value << (s == StatusCode::Success ? "" : " FAILED: " + s.Dump()) << "\n";
        return s == StatusCode::Success ? 0 : -1;
    }
    out << "command not understood\n";
    return -1;
}

#include "management/HAManager.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "background/DiskUtilizationDaemon.h"
#include "host/ClientRequest.h"
#include "host/HRManager.h"
#include "host/USBTransport.h"
#include "management/EventLogManager.h"
#include "platform/board/BoardServices.h"
#include "platform/rtos/Rtos.h"
#include "platform/rtos/RtosTimer.h"
#include "system/FlashConfigData.h"
#include "util/ConsoleCommand.h"
#include "util/Crc.h"
#include "util/DataBuffer.h"
#include "util/Endian.h"
#include "util/SharedMemoryPool.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"

HAManager* HAManager::GetInstance() {
    static HAManager instance;
    return &instance;
}

HAManager::HAManager() { std::strncpy(mDefaultName, "TarvoPro", sizeof mDefaultName); }

StatusCode HAManager::Initialize() {
    LockObject::ExclusiveLockInstance g(&mLock);
    if (mStarted) return StatusCode::Success;
    mStarted = true;
    mMgmtPool = std::make_unique<SharedMemoryPool>("/mgmtpool", "HAM", 32, kBlockSize);
    if (taskSpawn("tMgmt", 117, [this] { HostDispatcher(); }) == nullptr) {
        std::printf("%s was not created\n", "tMgmt");
        return StatusCode::InitFailed;
    }
    EventManager::GetInstance()->AddHandlerEnd(eRebuild, this, doRebuild);
    std::strncpy(mDefaultName, "TarvoPro", sizeof mDefaultName);
    mEsaRegisterFd = boardOpen("/ESA_REGISTER", 2);
    FlashConfigData* flash = FlashConfigData::GetInstance();
    unsigned long v = 0;
    mEncryptDiag = !(flash->GetValueUint32("encryptdiag", v).ok()) || v == 1;
    mDemoMode = flash->GetValueUint32("demomode", v).ok() ? uint32_t(v) : 0;
    mScaleFactor = flash->GetValueUint32("scalefactor", v).ok() ? uint32_t(v) : 1;
    return StatusCode::Success;
}

StatusCode HAManager::LoadDiskPack() {
    mPackLoaded = true;
    loadSavedState();
    return StatusCode::Success;
}

StatusCode HAManager::UnloadDiskPack() {
    mPackLoaded = false;
    return StatusCode::Success;
}

// Event type 6: bit 0x8000 of the value says a relayout or rebuild runs.
void HAManager::doRebuild(EVENT_TYPE, void* context, unsigned long value, void*) {
    static_cast<HAManager*>(context)->mRebuilding = (value & 0x8000) != 0;
}

void HAManager::postEvent(const std::string& text) {
    if (EventLogManager* log = EventLogManager::EventLog()) log->PostEvent(text);
    else ESA_CONSOLE(text);
}

// ---- the thread and the dispatch ------------------------------------------

void HAManager::HostDispatcher() {
    HRManager* hrm = HRManager::GetInstance();
    for (;;) {
        ClientRequest* r = hrm->getMgmtRequest();
        ESA_ASSERT(r->isMgmt() && r->isValid());
        ProcessMgmtReq(*r);
        ++mServed;
        hrm->putResponse(*r);
        // Only after the response has gone does the transport drop, so that
        // the host sees its command done and then the change.
        if (mPendingTransportReset.exchange(false)) {
            taskDelay(12);
            USBTransport::GetInstance()->fakeTransportEnable(false);
        }
    }
}

// The data of a MODE SELECT or 0xEA: what the host sent behind the command's
// block, as far as the window counts it.
const uint8_t* HAManager::dataBlock(ClientRequest&, uint32_t& length) {
    HAManager* ham = GetInstance();
    length = uint32_t(ham->mCommandData.size());
    return ham->mHasCommandData ? ham->mCommandData.data() : nullptr;
}

uint8_t* HAManager::answerBlock(ClientRequest& request, uint32_t windowLength) {
    DataStore* store = mMgmtPool->GetBlocks(1);
    unsigned char* p = nullptr;
    uint32_t room = 0;
    store->begin(0, p, room);
    std::memset(p, 0, kBlockSize);
    request.window.InitializeAndTransferStore(*store, 0, windowLength);
    return p;
}

void HAManager::ProcessMgmtReq(ClientRequest& request) {
    DiskUtilizationDaemon::GetInstance()->mLastUICallTime = uint32_t(std::time(nullptr));
    // The command block and the data are copied out; the store then goes,
    // and the answer (if any) takes a block of the pool.
    uint8_t command[16] = {};
    mCommandData.clear();
    mHasCommandData = false;
    if (request.store != nullptr && request.store->blockCount() >= 2) {
        const uint32_t first = request.store->blocks().front().length();
        const uint32_t counted = request.window.GetLength();
        if (counted > first) {
            mCommandData.resize(counted - first);
            DataBuffer b{counted - first, mCommandData.data()};
            request.window.Read(b, first, counted - first);
        }
        mHasCommandData = true;
    }
    {
        DataBuffer b{sizeof command, command};
        if (request.window.GetLength() >= sizeof command) request.window.Read(b, 0, sizeof command);
    }
    request.window.clear();
    request.store = nullptr;
    request.resid = 0;
    StatusCode status;
    switch (command[0]) {
    case kModeSense10:
        status = modeSense(request, command);
        break;
    case kModeSelect10:
        status = modeSelect(request, command);
        break;
    case kVendorUnique10:
        if (command[1] == 0x10) status = systemOperation(request, command);
        else if (command[1] == 0x11) status = StatusCode::Success;
        else status = StatusCode::UnknownScsiRequest;
        break;
    default:
        ESA_CONSOLE("Unknown SCSI command");
        request.resid = 0;
        status = StatusCode::UnknownScsiRequest;
        break;
    }
    request.status = status;
    if (!status.ok()) request.window.clear();
    if (mRequestDelay > 0) taskDelay(int(mRequestDelay * uint32_t(sysClkRateGet())));
}

StatusCode HAManager::modeSense(ClientRequest& r, const uint8_t* command) {
    const uint8_t page = command[3];
    switch (page) {
    case 1: return GetConfigInfo(r);
    case 2: return GetCapacityInfo(r);
    case 3: return GetSlotInfo(r);
    case 4: return GetLunInfo(r);
    case 5: return GetSystemInfo(r);
    case 6: return GetProtocolVersion(r);
    case 7: return GetLunInfo2(r);
    case 8: return GetFirmwareInfo(r);
    case 9: return GetStatusInfo(r);
    case 0x11: return GetDiskPackInfo(r);
    case 0x30: return GetOptions(r);
    case 0x31: return GetOptions2(r);
    case 0xE1: case 0xE2: return DiskOp(r, page, command[4]);
    default:
        r.resid = 0;
        return StatusCode::UnknownMgmtSubpage;
    }
}

StatusCode HAManager::modeSelect(ClientRequest& r, const uint8_t* command) {
    uint32_t length = 0;
    const uint8_t* data = dataBlock(r, length);
    // What the host said it sends bounds what is read of the block.
    const uint32_t listLength = getBE16(command + 7);
    if (listLength < length) length = listLength;
    switch (command[3]) {
    case 0x30: return SetOptions(data, length);
    case 0x31: return SetOptions2(data, length);
    case 5: return SetSystemInfo(data, length);
    default:
        r.resid = 0;
        return StatusCode::UnknownMgmtSubpage;
    }
}

// ---- saved state ------------------------------------------------------------

StatusCode HAManager::openZone0() {
    if (!mPackLoaded) return StatusCode::DiskPackNotLoaded;
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    const Zone0UserInfo slot = z0->GetEntry(kZone0Entry);
    uint8_t sig[8] = {};
    std::memcpy(sig, kZone0Name, 8);
    if (!slot.inUse() || std::memcmp(slot.userSignature, sig, 8) != 0) return createZone0();
    if (slot.version != kZone0Version) {
        ESA_CONSOLE("HAM:ERROR: weird zone0 version " << slot.version << " expected " << kZone0Version);
        return createZone0();
    }
    uint8_t state[512] = {};
    StatusCode s = z0->ReadArea(kZone0Entry, state, sizeof state);
    if (!s.ok()) {
        ESA_CONSOLE("HAM:ERROR: error from zone0 read " << s.Dump());
        return createZone0();
    }
    if (getLE32(state) != kStateMagic) {
        ESA_CONSOLE("HAM:ERROR: bad zone0 sig 0x" << std::hex << getLE32(state) << std::dec);
        return createZone0();
    }
    if (getLE32(state + 4) > kZone0Version) {
        ESA_CONSOLE("HAM:ERROR: unknown zone0 version " << getLE32(state + 4));
        return createZone0();
    }
    const uint32_t found = GetCRC(state, 20), stored = getLE32(state + 20);
    if (found != stored) {
        postEvent("HAM:ERROR: zone0 checksum mismatch " + std::to_string(found) + " expected " + std::to_string(stored));
        return createZone0();
    }
    return StatusCode::Success;
}

namespace {
void fillState(uint8_t* state, uint32_t numSecs, bool autoLun, uint32_t standby) {
    std::memset(state, 0, 512);
    putLE32(state, HAManager::kStateMagic);
    putLE32(state + 4, HAManager::kZone0Version);
    putLE32(state + 8, numSecs);
    putLE32(state + 12, autoLun ? 1 : 0);
    putLE32(state + 16, standby);
    putLE32(state + 20, GetCRC(state, 20));
}
}  // namespace

StatusCode HAManager::createZone0() {
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    const Zone0UserInfo slot = z0->GetEntry(kZone0Entry);
    if (slot.inUse() && std::memcmp(slot.userSignature, kZone0Name, 8) == 0) {
        postEvent("HAM:WARNING: zone0 user area being erased and re-created");
        z0->EraseEntry(kZone0Entry);
    } else if (slot.inUse()) {
        z0->EraseEntry(kZone0Entry);
    }
    StatusCode s = z0->CreateEntry(kZone0Entry, kZone0Version, kZone0Size, kZone0Name);
    if (!s.ok()) return s;
    // The state sector and the host application's cleared store, in one write.
    std::vector<uint8_t> area(512 + kDefaultNumSecs * 512, 0);
    mNumSecs = kDefaultNumSecs;
    fillState(area.data(), mNumSecs, mAutoLunCreate, mTimeToStandby);
    s = z0->WriteArea(kZone0Entry, area.data(), uint32_t(area.size()));
    if (!s.ok()) {
        ESA_CONSOLE("HAM:ERROR:creatZone0: failed to clear zone0 ... erasing " << s.Dump());
        z0->EraseEntry(kZone0Entry);
    }
    return s;
}

void HAManager::saveState() {
    StatusCode s = openZone0();
    if (!s.ok()) {
        ESA_CONSOLE("HAM: saveState could not open its Zone 0 area: " << s.Dump());
        return;
    }
    uint8_t state[512];
    fillState(state, mNumSecs, mAutoLunCreate, mTimeToStandby);
    s = Zone0InfoTable::GetInstance()->WriteArea(kZone0Entry, state, sizeof state);
    if (!s.ok()) ESA_CONSOLE("HAM: saveState write failed: " << s.Dump());
}

void HAManager::loadSavedState() {
    if (!openZone0().ok()) return;
    uint8_t state[512] = {};
    if (!Zone0InfoTable::GetInstance()->ReadArea(kZone0Entry, state, sizeof state).ok()) return;
    mAutoLunCreate = getLE32(state + 12) == 1;
    mNumSecs = getLE32(state + 8);
    if (getLE32(state + 4) > 1) mTimeToStandby = getLE32(state + 16);
}

StatusCode HAManager::SetSpindownTime(uint32_t seconds) {
    mTimeToStandby = seconds;
    saveState();
    return StatusCode::Success;
}

void HAManager::PrintGMTOffset(std::ostream& out) const {
    char text[32];
    std::snprintf(text, sizeof text, "%s%dh%um", mGmtOffset >= 0 ? "+" : "", mGmtOffset / 60,
                  unsigned(mGmtOffset < 0 ? -mGmtOffset : mGmtOffset) % 60);
    out << text;
}

void HAManager::Dump(std::ostream& out) {
    out << "HAManager: pack " << (mPackLoaded ? "loaded" : "not loaded") << ", rebuilding " << mRebuilding.load()
        << ", commands " << mServed.load() << "\n";
    out << "requestDelay:             " << mRequestDelay.load() << "\n";
    out << "numSecs (for GUI):        " << mNumSecs << "\n";
    out << "autoLunCreate:            " << mAutoLunCreate.load() << "\n";
    out << "time to standby:          " << mTimeToStandby << "\n";
    out << "GMT offset:               ";
    PrintGMTOffset(out);
    out << "\npending reset/reboot/off: " << mPendingTransportReset.load() << "/" << mPendingReboot.load() << "/"
        << mPendingPowerOff.load() << "\n";
}

namespace {
int setRequestDelayCommand(int argc, char** argv, std::ostream& out) {
    if (argc != 2) {
        out << "usage: setRequestDelay <seconds>\n";
        return -1;
    }
    HAManager::GetInstance()->setRequestDelay(uint32_t(std::strtoul(argv[1], nullptr, 0)));
    out << "requestDelay:             " << HAManager::GetInstance()->requestDelay() << "\n";
    return 0;
}
int hamCommand(int, char**, std::ostream& out) {
    HAManager::GetInstance()->Dump(out);
    return 0;
}
// The rebuild event as the relayout engine posts it, for trying the lights and
// the management pages by hand: 0x8000 as a rebuild starts, 0x7FFF as it ends.
int rebuildEventCommand(int argc, char** argv, std::ostream& out) {
    if (argc != 2 || (std::string(argv[1]) != "on" && std::string(argv[1]) != "off")) {
        out << "usage: rebuildEvent on|off\n";
        return -1;
    }
    const unsigned long value = std::string(argv[1]) == "on" ? 0x8000 : 0x7FFF;
    EventManager::GetInstance()->NewEvent(eRebuild, false, value);
    out << "rebuild event 0x" << std::hex << value << std::dec << " posted\n";
    return 0;
}
}  // namespace

ConsoleCommand gRebuildEvent("rebuildEvent", "Posts the rebuild event (type 6): rebuildEvent on|off",
                             rebuildEventCommand);
ConsoleCommand gSetRequestDelay("setRequestDelay", "Set request delay in seconds", setRequestDelayCommand);
ConsoleCommand gHamState("hamState", "Displays the management path's state", hamCommand);

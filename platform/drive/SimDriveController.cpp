#include "platform/drive/SimDriveController.h"

#include <cstdlib>
#include <random>

#include "platform/board/Board.h"
#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"
#include "util/Assert.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kDefaultTimeoutSeconds = 20;


bool needsDisk(uint32_t op) {
    return op != DriveOp::UsageBitmap && op != DriveOp::ControllerConfig && op != DriveOp::Probe &&
           op != DriveOp::SlotPower && op != DriveOp::Present;
}

std::string slotText(unsigned slot) { return "slot " + std::to_string(slot); }

}  // namespace

SimDriveController& SimDriveController::GetInstance() {
    static SimDriveController instance;
    return instance;
}

fs::path SimDriveController::slotBase(unsigned slot) const {
    return Board::GetInstance().dir() / "slots" / std::to_string(slot);
}

// Read once per process: a forget() (a restart in a unit test) keeps them.
void SimDriveController::readCacheSettingsLocked() {
    if (mCacheSettingsRead) return;
    mCacheSettingsRead = true;
    if (const char* wt = std::getenv("ESA_DRIVE_WRITETHROUGH")) mWriteThrough = std::atoi(wt) != 0;
    if (const char* mode = std::getenv("ESA_DRIVE_CACHE"); mode && *mode && !parseDriveCacheMode(mode, mCacheMode))
        Board::GetInstance().log(std::string("ESA_DRIVE_CACHE '") + mode + "' unknown: random, ordered");
    const char* seed = std::getenv("ESA_DRIVE_SEED");
    if (seed && *seed) {
        mSeed = std::strtoull(seed, nullptr, 0);
    } else {
        std::random_device rd;
        mSeed = (uint64_t(rd()) << 32 | rd()) % 1000000000;
    }
    mSeedDrawn = !(seed && *seed);
    Board::GetInstance().log(cacheSettingsLineLocked());
}

std::string SimDriveController::cacheSettingsLineLocked() {
    return std::string("drive cache ") + (mWriteThrough ? "write-through" : driveCacheModeName(mCacheMode)) +
           ", ESA_DRIVE_SEED=" + std::to_string(mSeed) + (mSeedDrawn ? " (drawn)" : "");
}

std::string SimDriveController::cacheSettings() {
    std::lock_guard<std::mutex> g(mLock);
    readCacheSettingsLocked();
    return cacheSettingsLineLocked();
}

void SimDriveController::configureDiskLocked(SimDisk& disk, unsigned slot) {
    uint64_t seed = mSeed ^ (uint64_t(slot + 1) * 0x9E3779B97F4A7C15ull) ^ (++mDisksOpened * 0xBF58476D1CE4E5B9ull);
    disk.setCacheMode(mCacheMode, seed, mWriteBack);
    disk.setWriteThrough(mWriteThrough);
}

void SimDriveController::scanLocked() {
    if (mScanned) return;
    mScanned = true;
    readCacheSettingsLocked();
    for (unsigned s = 0; s < kDriveSlots; ++s) {
        mSlots[s].disk.reset();
        fs::path base = slotBase(s);
        if (!fs::exists(base.string() + ".img")) continue;
        std::string error;
        auto d = SimDisk::open(base, error);
        if (!d) {
            Board::GetInstance().log("drive " + slotText(s) + " unreadable: " + error);
            continue;
        }
        configureDiskLocked(*d, s);
        mSlots[s].disk = std::move(d);
        mSlots[s].generation++;
    }
}

void SimDriveController::postHotPlug(uint32_t event, unsigned slot) {
    HotPlugMessage m{event, slot / kDrivesPerAdapter, slot % kDrivesPerAdapter};
    MSG_Q_ID q = msgQOpen(kHotPlugQueueName, kHotPlugQueueDepth, sizeof(HotPlugMessage));
    bool sent = msgQSend(q, &m, sizeof m, NO_WAIT, MSG_PRI_NORMAL) == OK;
    Board::GetInstance().log("hotplug event " + std::to_string(event) + " " + slotText(slot) +
                             (sent ? "" : " dropped: queue full"));
}

// ---- the device interface

int SimDriveController::openDevice(const std::string& name) {
    if (name.size() != 7 || name.rfind("/sata", 0) != 0) return -1;
    unsigned adapter = unsigned(name[5] - '0'), drive = unsigned(name[6] - '0');
    if (adapter >= kDriveAdapters || drive >= kDrivesPerAdapter) return -1;
    unsigned slot = adapter * kDrivesPerAdapter + drive;
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    Slot& s = mSlots[slot];
    bool usable = s.disk && s.powered;
    // "/sata00" is also the controller's own node: it opens with or without a disk.
    if (!usable && slot != 0) return -1;
    int fd = mNextFd++;
    mDescriptors[fd] = Descriptor{slot, usable ? s.generation : 0};
    return fd;
}

int SimDriveController::closeDevice(int fd) {
    std::lock_guard<std::mutex> g(mLock);
    return mDescriptors.erase(fd) ? 0 : -1;
}

bool SimDriveController::descriptorValid(int fd) {
    std::lock_guard<std::mutex> g(mLock);
    auto it = mDescriptors.find(fd);
    if (it == mDescriptors.end()) return false;
    const Slot& s = mSlots[it->second.slot];
    return it->second.generation == 0 || (s.disk && s.powered && it->second.generation == s.generation);
}

SlotPowerRecord SimDriveController::slotPowerRecord() {
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    SlotPowerRecord r{0, 0};
    for (unsigned s = 0; s < kDriveSlots; ++s) {
        if (mSlots[s].disk) r.diskDetected |= 1u << s;
        if (mSlots[s].powered) r.slotPowered |= 1u << s;
    }
    return r;
}

int SimDriveController::ioctl(int fd, unsigned long request, DriveCommand* c) {
    if (request != kDriveIoctl || !c) return -1;
    unsigned slot;
    uint64_t generation;
    {
        std::lock_guard<std::mutex> g(mLock);
        auto it = mDescriptors.find(fd);
        if (it == mDescriptors.end()) return -1;
        slot = it->second.slot;
        generation = it->second.generation;
        if (generation == 0) generation = mSlots[slot].generation;  // controller node: whatever is there now
    }
    c->block.status = execute(slot, generation, c);
    return 0;
}

bool SimDriveController::waitBoardTime(std::unique_lock<std::mutex>& lock, unsigned slot, uint64_t generation,
                                       uint64_t ns) {
    BoardClock& clock = BoardClock::GetInstance();
    uint64_t deadline = clock.nanoseconds() + ns;
    clock.waitUntil(lock, mWake, deadline, [&] { return mSlots[slot].generation != generation; });
    return mSlots[slot].generation == generation;
}

uint8_t SimDriveController::slotTemperature(unsigned slot) {
    auto t = Board::GetInstance().config().value("temperatures", nlohmann::json::object());
    auto slots = t.value("slots", std::vector<int>(kDriveSlots, 35));
    return slot < slots.size() ? uint8_t(slots[slot]) : 35;
}

uint32_t SimDriveController::execute(unsigned slot, uint64_t generation, DriveCommand* c) {
    Board& board = Board::GetInstance();
    uint32_t op = c->block.opcode;
    std::unique_lock<std::mutex> lock(mLock);
    scanLocked();
    Slot& s = mSlots[slot];
    std::shared_ptr<SimDisk> disk = (s.disk && s.powered && s.generation == generation) ? s.disk : nullptr;
    if (needsDisk(op) && !disk) return DriveStatus::NotPresent;

    switch (op) {
    case DriveOp::ControllerConfig:
        c->block.adapters = kDriveAdapters;
        c->block.param = kDriveSlots;
        for (unsigned a = 0; a < kDriveAdapters; ++a) c->setWordAt(28 + 4 * a, kDrivesPerAdapter);
        return DriveStatus::Success;
    case DriveOp::UsageBitmap:
        c->block.adapters = kDriveAdapters;
        for (unsigned a = 0; a < kDriveAdapters; ++a) {
            uint32_t bits = 0;
            for (unsigned d = 0; d < kDrivesPerAdapter; ++d) {
                const Slot& x = mSlots[a * kDrivesPerAdapter + d];
                if (x.disk && x.powered) bits |= 1u << d;
            }
            c->setWordAt(32 + 4 * a, bits);
        }
        return DriveStatus::Success;
    case DriveOp::Present:
        c->block.param = (s.disk && s.powered) ? 1 : 0;
        return DriveStatus::Success;
    case DriveOp::Probe:
        return DriveStatus::Success;
    case DriveOp::SlotPower: {
        // Slot power is the controller's: the command names its slot in the LBA field.
        if (c->block.lba >= kDriveSlots) return DriveStatus::BadParams;
        unsigned target = unsigned(c->block.lba);
        board.log("drive " + slotText(target) + " power " + (c->block.param ? "on" : "off"));
        setSlotPowerLocked(target, c->block.param != 0);
        return DriveStatus::Success;
    }
    case DriveOp::GetSize:
        c->block.lba = disk->takeFault(DiskFault::Kind::SizeZero) ? 0 : disk->sectors();
        return DriveStatus::Success;
    case DriveOp::Reset:
        return DriveStatus::Success;
    case DriveOp::Identify: {
        auto* buf = reinterpret_cast<uint8_t*>(uintptr_t(c->entries[0].address));
        if (!buf) return DriveStatus::BadAddress;
        disk->identify(buf);
        return DriveStatus::Success;
    }
    case DriveOp::SmartOps:
    case DriveOp::SmartStatus:
        return DriveStatus::Success;
    case DriveOp::SmartAttributes: {
        auto* buf = reinterpret_cast<uint8_t*>(uintptr_t(c->entries[0].address));
        if (!buf) return DriveStatus::BadAddress;
        lock.unlock();
        disk->smartData(buf, slotTemperature(slot));
        return DriveStatus::Success;
    }
    case DriveOp::SpinUp:
        board.log("drive " + slotText(slot) + " power mode 0xd");
        if (disk->takeFault(DiskFault::Kind::StartFailure)) return DriveStatus::StartFailure;
        if (!s.spinning) disk->countSpinUp();
        s.spinning = true;
        return DriveStatus::Success;
    case DriveOp::SpinDown:
        board.log("drive " + slotText(slot) + " power mode 0xe");
        s.spinning = false;
        return DriveStatus::Success;
    case DriveOp::FlushCache:
        lock.unlock();
        disk->flushCache();
        return DriveStatus::Success;
    case DriveOp::ReadSGL:
    case DriveOp::WriteSGL: {
        if (s.ioInFlight != 0) {
            int inFlight = s.ioInFlight;
            lock.unlock();
            ESA_ASSERT_OP(inFlight, ==, 0);  // the disk queue keeps one command per disk in flight
        }
        s.ioInFlight++;
        if (!s.spinning) {  // a command to a stopped drive spins it up first
            s.spinning = true;
            disk->countSpinUp();
        }
        lock.unlock();
        uint32_t status = executeMedia(slot, generation, disk, c);
        lock.lock();
        s.ioInFlight--;
        return status;
    }
    default:
        return DriveStatus::BadParams;
    }
}

uint32_t SimDriveController::executeMedia(unsigned slot, uint64_t generation, std::shared_ptr<SimDisk> disk,
                                          DriveCommand* c) {
    bool write = c->block.opcode == DriveOp::WriteSGL;
    uint32_t n = c->block.entryCount;
    if (n == 0 || n > kDriveMaxScatterEntries) return DriveStatus::BadParams;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < n; ++i) {
        if (c->entries[i].address == 0) return DriveStatus::BadAddress;
        if (c->entries[i].address % 2) return DriveStatus::BadAlignment;
        sum += c->entries[i].sectors;
    }
    if (sum != c->block.count || sum == 0) return DriveStatus::BadParams;
    uint64_t lba = c->block.lba;
    if (lba + sum > disk->sectors()) return DriveStatus::BadLba;
    uint64_t timeoutNs = uint64_t(c->block.timeout ? c->block.timeout : kDefaultTimeoutSeconds) * 1000000000ull;

    // Faults, first the delays, then what the command returns.
    for (;;) {
        auto f = disk->takeIoFault(write, lba, sum);
        if (!f) break;
        std::unique_lock<std::mutex> lock(mLock);
        switch (f->kind) {
        case DiskFault::Kind::Latency:
            if (!waitBoardTime(lock, slot, generation, uint64_t(f->value) * 1000000ull)) return DriveStatus::NotPresent;
            continue;
        case DiskFault::Kind::AccessTimeout:
        case DiskFault::Kind::ChannelTimeout:
            if (!waitBoardTime(lock, slot, generation, timeoutNs)) return DriveStatus::NotPresent;
            return f->kind == DiskFault::Kind::AccessTimeout ? DriveStatus::AccessTimeout : DriveStatus::ChannelTimeout;
        case DiskFault::Kind::Media:
            if (!write) disk->addBadSector(std::max(lba, f->firstLba));
            return DriveStatus::MediaError;
        case DiskFault::Kind::Channel:
            return DriveStatus::ChannelFailed;
        case DiskFault::Kind::NotPresent:
            Board::GetInstance().log("drive " + slotText(slot) + " gone mid-command");
            if (mSlots[slot].disk == disk) pullLocked(slot);
            return DriveStatus::NotPresent;
        case DiskFault::Kind::Recovered:
        case DiskFault::Kind::RecoveredChannel: {
            lock.unlock();
            uint32_t st = write ? disk->write(lba, c->entries, n, uint32_t(sum)) : disk->read(lba, c->entries, n, uint32_t(sum));
            if (st != DriveStatus::Success) return st;
            return f->kind == DiskFault::Kind::Recovered ? DriveStatus::RecoveredError : DriveStatus::RecoveredChannel;
        }
        default:
            continue;
        }
    }
    return write ? disk->write(lba, c->entries, n, uint32_t(sum)) : disk->read(lba, c->entries, n, uint32_t(sum));
}

// ---- slot power and hot plug

void SimDriveController::setSlotPowerLocked(unsigned slot, bool on) {
    Slot& s = mSlots[slot];
    if (s.powered == on) return;
    s.powered = on;
    s.generation++;
    mWake.notify_all();
    if (!s.disk) return;
    if (on) {
        s.spinning = true;
        postHotPlug(HotPlugEvent::Inserted, slot);
    } else {
        s.disk->loseCache();
        s.disk->countPowerCycle();
        s.spinning = false;
        postHotPlug(HotPlugEvent::Removed, slot);
    }
}

void SimDriveController::pullLocked(unsigned slot) {
    Slot& s = mSlots[slot];
    std::shared_ptr<SimDisk> disk = std::move(s.disk);
    s.generation++;
    mWake.notify_all();
    disk->loseCache();
    // The disk goes to the shelf, named by its serial number, ready to go back in.
    fs::path shelf = Board::GetInstance().dir() / "shelf";
    std::string name = disk->identity().serial.empty() ? "disk" : disk->identity().serial;
    fs::path target = shelf / name;
    for (int i = 1; fs::exists(target.string() + ".img") || fs::exists(target.string() + ".json"); ++i)
        target = shelf / (name + "-" + std::to_string(i));
    std::string error;
    if (!disk->moveTo(target, error)) Board::GetInstance().log("drive " + slotText(slot) + ": " + error);
    Board::GetInstance().log("drive " + slotText(slot) + " pulled to " + disk->base().string());
    if (s.powered) postHotPlug(HotPlugEvent::Removed, slot);
}

bool SimDriveController::insertDisk(unsigned slot, const std::string& sizeOrFile, std::string& message) {
    if (slot >= kDriveSlots) {
        message = "slot must be 0 to 7";
        return false;
    }
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    Slot& s = mSlots[slot];
    if (s.disk) {
        message = "slot " + std::to_string(slot) + " already holds a disk";
        return false;
    }
    fs::path base = slotBase(slot);
    uint64_t sectors = 0;
    std::unique_ptr<SimDisk> disk;
    if (SimDisk::parseSize(sizeOrFile, sectors) && !fs::exists(sizeOrFile)) {
        if (!SimDisk::create(base, sectors, {}, message)) return false;
        disk = SimDisk::open(base, message);
    } else {
        fs::path from = sizeOrFile;
        if (from.extension() == ".img" || from.extension() == ".json") from.replace_extension();
        disk = SimDisk::open(from, message);
        if (disk && !disk->moveTo(base, message)) disk.reset();
    }
    if (!disk) return false;
    configureDiskLocked(*disk, slot);
    message = "slot " + std::to_string(slot) + ": " + disk->identity().model + " " + disk->identity().serial + " " +
              std::to_string(disk->sectors()) + " sectors";
    s.disk = std::move(disk);
    s.generation++;
    s.spinning = s.powered;
    Board::GetInstance().log("drive " + slotText(slot) + " inserted");
    postHotPlug(s.powered ? HotPlugEvent::Inserted : HotPlugEvent::DiskChangeDetected, slot);
    return true;
}

bool SimDriveController::pullDisk(unsigned slot, std::string& message) {
    if (slot >= kDriveSlots) {
        message = "slot must be 0 to 7";
        return false;
    }
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    if (!mSlots[slot].disk) {
        message = "slot " + std::to_string(slot) + " is empty";
        return false;
    }
    std::shared_ptr<SimDisk> disk = mSlots[slot].disk;
    pullLocked(slot);
    message = disk->base().string() + ".img";
    return true;
}

bool SimDriveController::addFault(unsigned slot, const DiskFault& fault, std::string& error) {
    auto d = disk(slot);
    if (!d) {
        error = "no disk in slot " + std::to_string(slot);
        return false;
    }
    d->addFault(fault);
    return true;
}

bool SimDriveController::clearFaults(unsigned slot, std::string& error) {
    auto d = disk(slot);
    if (!d) {
        error = "no disk in slot " + std::to_string(slot);
        return false;
    }
    d->clearFaults();
    return true;
}

bool SimDriveController::addBadSector(unsigned slot, uint64_t lba, std::string& error) {
    auto d = disk(slot);
    if (!d) {
        error = "no disk in slot " + std::to_string(slot);
        return false;
    }
    d->addBadSector(lba);
    return true;
}

void SimDriveController::setWriteThrough(bool on) {
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    mWriteThrough = on;
    for (auto& s : mSlots)
        if (s.disk) s.disk->setWriteThrough(on);
}

void SimDriveController::setCacheMode(DriveCacheMode mode, bool writeBack) {
    std::lock_guard<std::mutex> g(mLock);
    readCacheSettingsLocked();  // the disks found later take the mode when they are opened
    mCacheMode = mode;
    mWriteBack = writeBack;
    for (unsigned s = 0; s < kDriveSlots; ++s)
        if (mSlots[s].disk) configureDiskLocked(*mSlots[s].disk, s);
}

DriveCacheMode SimDriveController::cacheMode() {
    std::lock_guard<std::mutex> g(mLock);
    readCacheSettingsLocked();
    return mCacheMode;
}

bool SimDriveController::writeBackOn() {
    std::lock_guard<std::mutex> g(mLock);
    readCacheSettingsLocked();
    return mWriteBack;
}

void SimDriveController::setDriveSeed(uint64_t seed) {
    std::lock_guard<std::mutex> g(mLock);
    readCacheSettingsLocked();
    mSeed = seed;
    mDisksOpened = 0;
}

uint64_t SimDriveController::driveSeed() {
    std::lock_guard<std::mutex> g(mLock);
    readCacheSettingsLocked();
    return mSeed;
}

bool SimDriveController::diskPresent(unsigned slot) {
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    return slot < kDriveSlots && mSlots[slot].disk != nullptr;
}

bool SimDriveController::slotPowered(unsigned slot) {
    std::lock_guard<std::mutex> g(mLock);
    return slot < kDriveSlots && mSlots[slot].powered;
}

int SimDriveController::readsAndWritesInFlight(unsigned slot) {
    std::lock_guard<std::mutex> g(mLock);
    return slot < kDriveSlots ? mSlots[slot].ioInFlight : 0;
}

std::shared_ptr<SimDisk> SimDriveController::disk(unsigned slot) {
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    return slot < kDriveSlots ? mSlots[slot].disk : nullptr;
}

nlohmann::json SimDriveController::describe() {
    std::lock_guard<std::mutex> g(mLock);
    scanLocked();
    nlohmann::json out = nlohmann::json::array();
    for (unsigned s = 0; s < kDriveSlots; ++s) {
        nlohmann::json j = {{"slot", s}, {"powered", mSlots[s].powered}, {"spinning", mSlots[s].spinning}};
        if (mSlots[s].disk) j["disk"] = mSlots[s].disk->describe();
        out.push_back(j);
    }
    return out;
}

void SimDriveController::powerCut() {
    std::lock_guard<std::mutex> g(mLock);
    for (auto& s : mSlots)
        if (s.disk) s.disk->loseCache();
}

void SimDriveController::forget() {
    std::lock_guard<std::mutex> g(mLock);
    for (auto& s : mSlots) {
        if (s.disk) s.disk->loseCache();
        s.disk.reset();
        s.powered = true;
        s.spinning = true;
        s.generation++;
    }
    mWake.notify_all();
    mScanned = false;
}

// ---- the driver entry points

int driveOpen(const char* device) { return SimDriveController::GetInstance().openDevice(device ? device : ""); }
int driveClose(int fd) { return SimDriveController::GetInstance().closeDevice(fd); }
int driveIoctl(int fd, unsigned long request, DriveCommand* command) {
    return SimDriveController::GetInstance().ioctl(fd, request, command);
}
bool driveDescriptorValid(int fd) { return SimDriveController::GetInstance().descriptorValid(fd); }

int driveSlotPowerSyscall(SlotPowerRecord* record) {
    if (!record) return -1;
    Board::GetInstance().log("syscall 0x1a55");
    *record = SimDriveController::GetInstance().slotPowerRecord();
    return 0;
}

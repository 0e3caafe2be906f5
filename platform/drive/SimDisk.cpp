#include "platform/drive/SimDisk.h"

#include "platform/board/BoardPowerCut.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <random>

namespace fs = std::filesystem;

namespace {

fs::path imagePath(const fs::path& base) { return fs::path(base.string() + ".img"); }
fs::path sidecarPath(const fs::path& base) { return fs::path(base.string() + ".json"); }

std::string generatedSerial() {
    static const char digits[] = "0123456789ABCDEF";
    std::random_device rd;
    std::mt19937_64 rng((uint64_t(rd()) << 32) ^ rd());
    std::string s = "SIM";
    for (int i = 0; i < 12; ++i) s += digits[rng() % 16];
    return s;
}

std::string sizeText(uint64_t sectors) {
    uint64_t gib = sectors * kSectorSize >> 30;
    return gib ? std::to_string(gib) + "G" : std::to_string(sectors * kSectorSize >> 20) + "M";
}

// ATA strings: two characters a word, the first in the high byte, blank padded.
void putAtaString(uint8_t* identify, unsigned firstWord, unsigned bytes, const std::string& text) {
    for (unsigned i = 0; i < bytes; ++i) {
        char c = i < text.size() ? text[i] : ' ';
        identify[firstWord * 2 + (i ^ 1)] = uint8_t(c);
    }
}

void putWord(uint8_t* identify, unsigned word, uint16_t v) {
    identify[word * 2] = uint8_t(v);
    identify[word * 2 + 1] = uint8_t(v >> 8);
}

}  // namespace

bool SimDisk::parseSize(const std::string& text, uint64_t& sectors) {
    if (text.empty()) return false;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (!end || end == text.c_str() || v <= 0) return false;
    std::string unit(end);
    double bytes;
    if (unit == "s") {
        sectors = uint64_t(v);
        return sectors > 0;
    }
    if (unit.empty()) bytes = v;
    else if (unit == "K" || unit == "k") bytes = v * 1024;
    else if (unit == "M" || unit == "m") bytes = v * 1024 * 1024;
    else if (unit == "G" || unit == "g") bytes = v * 1024 * 1024 * 1024;
    else if (unit == "T" || unit == "t") bytes = v * 1024.0 * 1024 * 1024 * 1024;
    else return false;
    sectors = uint64_t(bytes / kSectorSize);
    return sectors > 0;
}

bool SimDisk::create(const fs::path& base, uint64_t sectors, Identity id, std::string& error) {
    if (sectors == 0 || sectors > kMaxSectors) {
        error = "capacity must be 1 to " + std::to_string(kMaxSectors) + " sectors";
        return false;
    }
    std::error_code ec;
    fs::create_directories(base.parent_path(), ec);
    if (fs::exists(imagePath(base)) || fs::exists(sidecarPath(base))) {
        error = "a disk is already at " + base.string();
        return false;
    }
    if (id.model.empty()) id.model = "ESA-SIM SATA " + sizeText(sectors);
    if (id.firmware.empty()) id.firmware = "SIM1.00";
    if (id.serial.empty()) id.serial = generatedSerial();
    id.model.resize(std::min<size_t>(id.model.size(), 40));
    id.firmware.resize(std::min<size_t>(id.firmware.size(), 8));
    id.serial.resize(std::min<size_t>(id.serial.size(), 20));
    int fd = ::open(imagePath(base).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0 || ::ftruncate(fd, off_t(sectors * kSectorSize)) != 0) {
        error = "cannot create " + imagePath(base).string() + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return false;
    }
    ::close(fd);
    nlohmann::json j = {
        {"model", id.model},
        {"firmware", id.firmware},
        {"serial", id.serial},
        {"sectors", sectors},
        {"smart", {{"revision", 0x10}, {"rawReadErrorValue", 100}, {"reallocatedValue", 100},
                   {"uncorrectableValue", 100}, {"powerOnHours", 0}}},
        {"badSectors", nlohmann::json::array()},
        {"counters", nlohmann::json::object()},
        {"faults", nlohmann::json::array()},
    };
    if (!writeSidecar(base, j)) {
        error = "cannot write " + sidecarPath(base).string();
        return false;
    }
    return true;
}

std::optional<nlohmann::json> SimDisk::readSidecar(const fs::path& base) {
    std::ifstream in(sidecarPath(base));
    if (!in) return std::nullopt;
    nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return std::nullopt;
    return j;
}

bool SimDisk::writeSidecar(const fs::path& base, const nlohmann::json& j) {
    fs::path tmp = fs::path(sidecarPath(base).string() + ".tmp");
    {
        std::ofstream out(tmp, std::ios::trunc);
        if (!out) return false;
        out << j.dump(2) << "\n";
        if (!out) return false;
    }
    std::error_code ec;
    fs::rename(tmp, sidecarPath(base), ec);
    return !ec;
}

std::unique_ptr<SimDisk> SimDisk::open(const fs::path& base, std::string& error) {
    auto j = readSidecar(base);
    if (!j) {
        error = "no readable sidecar " + sidecarPath(base).string();
        return nullptr;
    }
    std::unique_ptr<SimDisk> d(new SimDisk);
    d->mBase = base;
    d->mSidecar = *j;
    d->mIdentity.model = j->value("model", std::string());
    d->mIdentity.firmware = j->value("firmware", std::string());
    d->mIdentity.serial = j->value("serial", std::string());
    d->mSectors = j->value("sectors", uint64_t(0));
    if (auto bad = j->find("badSectors"); bad != j->end() && bad->is_array())
        for (auto& v : *bad)
            if (v.is_number_unsigned()) d->mBadSectors.push_back(v.get<uint64_t>());
    if (auto fl = j->find("faults"); fl != j->end() && fl->is_array())
        for (auto& v : *fl)
            if (auto f = DiskFault::fromJson(v)) d->mFaults.push_back(*f);
    auto c = j->value("counters", nlohmann::json::object());
    d->mCounters.reads = c.value("reads", uint64_t(0));
    d->mCounters.writes = c.value("writes", uint64_t(0));
    d->mCounters.sectorsRead = c.value("sectorsRead", uint64_t(0));
    d->mCounters.sectorsWritten = c.value("sectorsWritten", uint64_t(0));
    d->mCounters.flushes = c.value("flushes", uint64_t(0));
    d->mCounters.spinUps = c.value("spinUps", uint64_t(0));
    d->mCounters.powerCycles = c.value("powerCycles", uint64_t(0));
    d->mCounters.reallocated = c.value("reallocated", uint64_t(0));
    d->mCounters.readErrors = c.value("readErrors", uint64_t(0));
    d->mFd = ::open(imagePath(base).c_str(), O_RDWR | O_CLOEXEC);
    if (d->mFd < 0) {
        error = "cannot open " + imagePath(base).string() + ": " + std::strerror(errno);
        return nullptr;
    }
    return d;
}

SimDisk::SimDisk()
    : mCache([this](uint64_t lba, const uint8_t* data, uint32_t sectors) {
          return pwriteAll(data, size_t(sectors) * kSectorSize, lba * kSectorSize);
      }) {}

SimDisk::~SimDisk() {
    // A disk object ends when the disk leaves the board (its cache was lost
    // then) or the process ends in order: the power is gone and the cache with it.
    stopWriteBack();
    std::lock_guard<std::mutex> g(mLock);
    mCache.drop();
    saveSidecarLocked();
    if (mFd >= 0) ::close(mFd);
}

bool SimDisk::pwriteAll(const uint8_t* data, size_t bytes, uint64_t offset) {
    if (boardPowerIsCut()) waitForPowerToGo();
    while (bytes) {
        ssize_t n = ::pwrite(mFd, data, bytes, off_t(offset));
        if (n <= 0) return false;
        data += n;
        bytes -= size_t(n);
        offset += uint64_t(n);
    }
    return true;
}

uint32_t SimDisk::read(uint64_t lba, const DriveScatterEntry* entries, uint32_t count, uint32_t sectors) {
    if (lba + sectors > mSectors || lba + sectors < lba) return DriveStatus::BadLba;
    std::lock_guard<std::mutex> g(mLock);
    mCounters.reads++;
    for (uint64_t bad : mBadSectors)
        if (bad >= lba && bad < lba + sectors) {
            mCounters.readErrors++;
            return DriveStatus::MediaError;
        }
    uint64_t pos = lba;
    for (uint32_t i = 0; i < count; ++i) {
        auto* dst = reinterpret_cast<uint8_t*>(uintptr_t(entries[i].address));
        if (!dst) return DriveStatus::BadAddress;
        size_t bytes = size_t(entries[i].sectors) * kSectorSize;
        size_t done = 0;
        while (done < bytes) {
            ssize_t n = ::pread(mFd, dst + done, bytes - done, off_t(pos * kSectorSize + done));
            if (n < 0) return DriveStatus::MediaError;
            if (n == 0) {  // beyond the end of a short image: zeros
                std::memset(dst + done, 0, bytes - done);
                break;
            }
            done += size_t(n);
        }
        mCache.overlay(pos, dst, entries[i].sectors);
        pos += entries[i].sectors;
    }
    mCounters.sectorsRead += sectors;
    return DriveStatus::Success;
}

uint32_t SimDisk::write(uint64_t lba, const DriveScatterEntry* entries, uint32_t count, uint32_t sectors) {
    if (lba + sectors > mSectors || lba + sectors < lba) return DriveStatus::BadLba;
    std::lock_guard<std::mutex> g(mLock);
    mCounters.writes++;
    uint64_t pos = lba;
    for (uint32_t i = 0; i < count; ++i) {
        auto* src = reinterpret_cast<const uint8_t*>(uintptr_t(entries[i].address));
        if (!src) return DriveStatus::BadAddress;
        uint32_t n = entries[i].sectors;
        if (mWriteThrough) {
            if (!pwriteAll(src, size_t(n) * kSectorSize, pos * kSectorSize)) return DriveStatus::MediaError;
        } else {
            mCache.put(pos, src, n);
        }
        pos += n;
    }
    // A write over a bad sector makes the drive reallocate it.
    auto hit = [&](uint64_t b) { return b >= lba && b < lba + sectors; };
    size_t before = mBadSectors.size();
    mBadSectors.erase(std::remove_if(mBadSectors.begin(), mBadSectors.end(), hit), mBadSectors.end());
    if (mBadSectors.size() != before) {
        mCounters.reallocated += before - mBadSectors.size();
        saveSidecarLocked();
    }
    mCounters.sectorsWritten += sectors;
    if (mWriteBack.joinable()) mWriteBackWake.notify_one();
    return DriveStatus::Success;
}

void SimDisk::flushCache() {
    std::lock_guard<std::mutex> g(mLock);
    mCache.flush();
    mCounters.flushes++;
}

void SimDisk::loseCache() {
    std::lock_guard<std::mutex> g(mLock);
    mCache.lose();
}

size_t SimDisk::cachedSectors() {
    std::lock_guard<std::mutex> g(mLock);
    return mCache.sectors();
}

void SimDisk::setCacheMode(DriveCacheMode mode, uint64_t seed, bool writeBack) {
    stopWriteBack();
    std::lock_guard<std::mutex> g(mLock);
    mCache.configure(mode, seed);
    if (mode == DriveCacheMode::Random && writeBack) {
        mWriteBackStop = false;
        mWriteBack = std::thread([this] { writeBackLoop(); });
    }
}

DriveCacheMode SimDisk::cacheMode() {
    std::lock_guard<std::mutex> g(mLock);
    return mCache.mode();
}

bool SimDisk::writeBackSome() {
    std::lock_guard<std::mutex> g(mLock);
    return mCache.mode() == DriveCacheMode::Random && mCache.writeBackSome();
}

void SimDisk::stopWriteBack() {
    {
        std::lock_guard<std::mutex> g(mLock);
        mWriteBackStop = true;
    }
    mWriteBackWake.notify_all();
    if (mWriteBack.joinable()) mWriteBack.join();
}

// The drive's own write-back: while anything is cached, one run of random
// sectors at a time, with a random pause of up to 2 ms between runs (the
// drive's own timing, not the board clock's), so that a process that dies at
// any moment leaves a different part of its unflushed writes on the image.
void SimDisk::writeBackLoop() {
    std::unique_lock<std::mutex> g(mLock);
    while (!mWriteBackStop) {
        if (mCache.empty()) {
            mWriteBackWake.wait(g, [this] { return mWriteBackStop || !mCache.empty(); });
            continue;
        }
        uint64_t draw = mCache.draw();
        // Now and then the drive lets the cache sit a while longer.
        auto pause = std::chrono::microseconds(draw % 16 == 0 ? 2000 : draw % 500);
        mWriteBackWake.wait_for(g, pause, [this] { return mWriteBackStop; });
        if (!mWriteBackStop) mCache.writeBackSome();
    }
}

void SimDisk::setWriteThrough(bool on) {
    if (on) flushCache();
    std::lock_guard<std::mutex> g(mLock);
    mWriteThrough = on;
}

void SimDisk::identify(uint8_t out[512]) {
    std::memset(out, 0, 512);
    putWord(out, 0, 0x0040);  // fixed ATA device
    putAtaString(out, 10, 20, mIdentity.serial);
    putAtaString(out, 23, 8, mIdentity.firmware);
    putAtaString(out, 27, 40, mIdentity.model);
    uint64_t lba28 = std::min<uint64_t>(mSectors, 0x0fffffff);
    putWord(out, 60, uint16_t(lba28));
    putWord(out, 61, uint16_t(lba28 >> 16));
    // Features: 82 SMART, write cache; 83 48-bit LBA, FLUSH CACHE EXT; 84 SMART
    // logging; 85 to 87 the same, enabled.
    putWord(out, 82, 0x0021);
    putWord(out, 83, 0x6400);
    putWord(out, 84, 0x4001);
    putWord(out, 85, 0x0021);
    putWord(out, 86, 0x2400);
    putWord(out, 87, 0x4001);
    for (unsigned w = 0; w < 4; ++w) putWord(out, 100 + w, uint16_t(mSectors >> (16 * w)));
}

void SimDisk::smartData(uint8_t out[512], uint8_t temperature) {
    std::lock_guard<std::mutex> g(mLock);
    std::memset(out, 0, 512);
    auto smart = mSidecar.value("smart", nlohmann::json::object());
    int revision = smart.value("revision", 0x10);
    out[0] = uint8_t(revision);
    struct Attr {
        uint8_t id, value;
        uint64_t raw;
    };
    uint64_t bad = mBadSectors.size();
    Attr attrs[] = {
        {1, uint8_t(smart.value("rawReadErrorValue", 100)), mCounters.readErrors},
        {5, uint8_t(smart.value("reallocatedValue", 100)), mCounters.reallocated},
        {9, 100, uint64_t(smart.value("powerOnHours", 0))},
        {0xc2, uint8_t(revision == 0x10 ? 100 : temperature), temperature},
        {0xc6, uint8_t(smart.value("uncorrectableValue", 100)), bad},
    };
    unsigned i = 0;
    for (auto& a : attrs) {
        uint8_t* e = out + 2 + 12 * i++;
        e[0] = a.id;
        e[1] = 0x03;  // flags
        e[3] = a.value;
        e[4] = a.value;  // worst
        for (int b = 0; b < 6; ++b) e[5 + b] = uint8_t(a.raw >> (8 * b));
    }
}

void SimDisk::addFault(const DiskFault& f) {
    std::lock_guard<std::mutex> g(mLock);
    mFaults.push_back(f);
    saveSidecarLocked();
}

void SimDisk::clearFaults() {
    std::lock_guard<std::mutex> g(mLock);
    mFaults.clear();
    saveSidecarLocked();
}

std::vector<DiskFault> SimDisk::faults() {
    std::lock_guard<std::mutex> g(mLock);
    return mFaults;
}

std::optional<DiskFault> SimDisk::takeLocked(const std::function<bool(const DiskFault&)>& pred) {
    for (size_t i = 0; i < mFaults.size(); ++i) {
        if (!pred(mFaults[i])) continue;
        DiskFault f = mFaults[i];
        if (mFaults[i].remaining > 0 && --mFaults[i].remaining == 0) {
            mFaults.erase(mFaults.begin() + long(i));
            saveSidecarLocked();
        }
        return f;
    }
    return std::nullopt;
}

std::optional<DiskFault> SimDisk::takeIoFault(bool write, uint64_t lba, uint64_t sectors) {
    std::lock_guard<std::mutex> g(mLock);
    if (mFaults.empty()) return std::nullopt;
    return takeLocked([&](const DiskFault& f) {
        return f.kind != DiskFault::Kind::StartFailure && f.kind != DiskFault::Kind::SizeZero &&
               f.matches(write, lba, sectors);
    });
}

std::optional<DiskFault> SimDisk::takeFault(DiskFault::Kind kind) {
    std::lock_guard<std::mutex> g(mLock);
    if (kind == DiskFault::Kind::SizeZero) {
        // "queries=N": the size reads 0 for N queries, then the fault is spent.
        for (size_t i = 0; i < mFaults.size(); ++i) {
            if (mFaults[i].kind != kind) continue;
            DiskFault f = mFaults[i];
            if (mFaults[i].value <= 1) mFaults.erase(mFaults.begin() + long(i));
            else mFaults[i].value--;
            saveSidecarLocked();
            return f;
        }
        return std::nullopt;
    }
    return takeLocked([kind](const DiskFault& f) { return f.kind == kind; });
}

void SimDisk::addBadSector(uint64_t lba) {
    std::lock_guard<std::mutex> g(mLock);
    if (std::find(mBadSectors.begin(), mBadSectors.end(), lba) == mBadSectors.end()) mBadSectors.push_back(lba);
    saveSidecarLocked();
}

void SimDisk::countSpinUp() {
    std::lock_guard<std::mutex> g(mLock);
    mCounters.spinUps++;
}

void SimDisk::countPowerCycle() {
    std::lock_guard<std::mutex> g(mLock);
    mCounters.powerCycles++;
    saveSidecarLocked();
}

void SimDisk::saveSidecar() {
    std::lock_guard<std::mutex> g(mLock);
    saveSidecarLocked();
}

void SimDisk::saveSidecarLocked() {
    nlohmann::json j = mSidecar;
    j["badSectors"] = mBadSectors;
    nlohmann::json faults = nlohmann::json::array();
    for (auto& f : mFaults) faults.push_back(f.toJson());
    j["faults"] = faults;
    j["counters"] = {{"reads", mCounters.reads},
                     {"writes", mCounters.writes},
                     {"sectorsRead", mCounters.sectorsRead},
                     {"sectorsWritten", mCounters.sectorsWritten},
                     {"flushes", mCounters.flushes},
                     {"spinUps", mCounters.spinUps},
                     {"powerCycles", mCounters.powerCycles},
                     {"reallocated", mCounters.reallocated},
                     {"readErrors", mCounters.readErrors}};
    mSidecar = j;
    writeSidecar(mBase, j);
}

bool SimDisk::moveTo(const fs::path& newBase, std::string& error) {
    std::lock_guard<std::mutex> g(mLock);
    std::error_code ec;
    fs::create_directories(newBase.parent_path(), ec);
    if (fs::exists(imagePath(newBase)) || fs::exists(sidecarPath(newBase))) {
        error = "a disk is already at " + newBase.string();
        return false;
    }
    fs::rename(imagePath(mBase), imagePath(newBase), ec);
    if (ec) {
        error = "cannot move " + imagePath(mBase).string() + ": " + ec.message();
        return false;
    }
    fs::rename(sidecarPath(mBase), sidecarPath(newBase), ec);
    if (ec) {
        fs::rename(imagePath(newBase), imagePath(mBase), ec);
        error = "cannot move " + sidecarPath(mBase).string();
        return false;
    }
    mBase = newBase;
    return true;
}

nlohmann::json SimDisk::describe() {
    std::lock_guard<std::mutex> g(mLock);
    nlohmann::json j = {{"model", mIdentity.model},
                        {"firmware", mIdentity.firmware},
                        {"serial", mIdentity.serial},
                        {"sectors", mSectors},
                        {"badSectors", mBadSectors.size()},
                        {"writeThrough", mWriteThrough},
                        {"cache", driveCacheModeName(mCache.mode())}};
    j["cachedSectors"] = mCache.sectors();
    nlohmann::json faults = nlohmann::json::array();
    for (auto& f : mFaults) faults.push_back(f.describe());
    j["faults"] = faults;
    return j;
}

#pragma once
// ErrorInjection: the named fault points of one manager. API points make an
// operation return a chosen StatusCode; I/O points make the next I/O of a
// transaction fail. Each manager holds one ErrorInjection, creates its points
// at construction and asks at the place in question. The console commands
// `ioError` and `apiError` enable and disable points by module name.
//
// Modes: each <n> fires on every n-th pass; after <n> fires on the n-th pass
// only; until <n> fires on every pass up to the n-th.
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "util/StatusCode.h"

class IOTracker;

class ErrorInjection {
public:
    enum Mode { Each = 0, After = 1, Until = 2 };
    struct Point {
        std::string name, description;
        bool enabled = false;
        Mode mode = Each;
        uint32_t count = 1;
        uint32_t calls = 0;
        uint32_t firings = 0;  // remaining firings; 0 means unlimited
        StatusCode status;
    };

    // module: the console name ("rm", "zm", "dpm", "dis", "dm", "cm", "zt", "clt", "catm").
    explicit ErrorInjection(const char* module);
    ~ErrorInjection();

    int addApiPoint(const char* name, const char* description);
    int addIoPoint(const char* name, const char* description);

    StatusCode apiErrorInject(int point, StatusCode normal, bool& fired);
    // On a firing sets bit 0x40 of the tracker's flags and returns true.
    bool ioErrorInject(int point, IOTracker& tracker);
    // The same decision without a tracker, for callers that fail the I/O themselves.
    bool ioErrorFires(int point);

    bool enable(bool api, const std::string& name, Mode mode, uint32_t count, uint32_t firings, StatusCode status);
    bool disable(bool api, const std::string& name);
    void list(std::ostream& out);

    const std::string& module() const { return mModule; }
    static std::vector<ErrorInjection*>& All();

private:
    bool apiFires(Point& p);
    int addPoint(std::vector<Point>& points, const char* name, const char* description);
    std::string mModule;
    std::mutex mLock;
    std::vector<Point> mApi, mIo;
};

// Sets the I/O-failure flag of a tracker; the lock and transaction Part owns
// the tracker and provides this.
void markTrackerForIoError(IOTracker& tracker);

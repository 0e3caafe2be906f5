#include "util/ErrorInjection/ErrorInjection.h"

#include <algorithm>
#include <cstring>

#include "util/Assert.h"
#include "util/ConsoleCommand.h"
#include "util/IOTracker.h"
#include "util/Trace.h"

void markTrackerForIoError(IOTracker& tracker) { tracker.flags |= IOTracker::kFailNextIo; }

std::vector<ErrorInjection*>& ErrorInjection::All() {
    static std::vector<ErrorInjection*> all;
    return all;
}

ErrorInjection::ErrorInjection(const char* module) : mModule(module) { All().push_back(this); }

ErrorInjection::~ErrorInjection() {
    auto& a = All();
    a.erase(std::remove(a.begin(), a.end(), this), a.end());
}

int ErrorInjection::addPoint(std::vector<Point>& points, const char* name, const char* description) {
    std::lock_guard<std::mutex> g(mLock);
    Point p;
    p.name = name;
    p.description = description;
    points.push_back(p);
    return int(points.size() - 1);
}

int ErrorInjection::addApiPoint(const char* name, const char* description) { return addPoint(mApi, name, description); }
int ErrorInjection::addIoPoint(const char* name, const char* description) { return addPoint(mIo, name, description); }

bool ErrorInjection::apiFires(Point& p) {
    bool fired = false;
    p.calls++;
    if (p.mode == Until) fired = true;
    if (p.calls >= p.count) {
        fired = true;
        p.calls = 0;
        if (p.mode == Until || p.mode == After) p.enabled = false;
    }
    if (fired && p.firings > 0 && --p.firings == 0) p.enabled = false;
    return fired;
}

StatusCode ErrorInjection::apiErrorInject(int point, StatusCode normal, bool& fired) {
    std::lock_guard<std::mutex> g(mLock);
    ESA_ASSERT(point >= 0 && size_t(point) < mApi.size());
    Point& p = mApi[size_t(point)];
    fired = false;
    if (!p.enabled) return StatusCode::Success;
    fired = apiFires(p);
    if (fired && p.status != StatusCode::Success) return p.status;
    return normal;
}

bool ErrorInjection::ioErrorFires(int point) {
    std::lock_guard<std::mutex> g(mLock);
    ESA_ASSERT(point >= 0 && size_t(point) < mIo.size());
    Point& p = mIo[size_t(point)];
    if (!p.enabled) return false;
    bool fired = apiFires(p);
    if (fired) ESA_CONSOLE("Injecting IO Error: " << mModule << " " << p.name);
    return fired;
}

bool ErrorInjection::ioErrorInject(int point, IOTracker& tracker) {
    bool fired = ioErrorFires(point);
    if (fired) markTrackerForIoError(tracker);
    return fired;
}

bool ErrorInjection::enable(bool api, const std::string& name, Mode mode, uint32_t count, uint32_t firings,
                            StatusCode status) {
    std::lock_guard<std::mutex> g(mLock);
    for (Point& p : api ? mApi : mIo) {
        if (p.name != name) continue;
        p.enabled = true;
        p.mode = mode;
        p.count = count ? count : 1;
        p.calls = 0;
        p.firings = firings;
        p.status = status;
        return true;
    }
    return false;
}

bool ErrorInjection::disable(bool api, const std::string& name) {
    std::lock_guard<std::mutex> g(mLock);
    for (Point& p : api ? mApi : mIo) {
        if (p.name != name) continue;
        p.enabled = false;
        return true;
    }
    return false;
}

void ErrorInjection::list(std::ostream& out) {
    std::lock_guard<std::mutex> g(mLock);
    static const char* kModes[] = {"each", "after", "until"};
    auto show = [&](const char* kind, std::vector<Point>& points) {
        for (Point& p : points)
            out << kind << " " << mModule << " " << p.name << " - " << p.description << " : "
                << (p.enabled ? "enabled " : "disabled ") << kModes[p.mode] << " " << p.count << " calls=" << p.calls
                << (p.status != StatusCode::Success ? " status=" + p.status.Dump() : std::string()) << "\n";
    };
    show("api", mApi);
    show("io", mIo);
}

namespace {

const char* kIoModules[] = {"rm", "zm", "dpm", "dis", "dm", "cm"};
const char* kApiModules[] = {"rm", "zm", "zt", "dpm", "dis", "dm", "cm", "clt", "catm"};

// esa ioError|apiError <module> list | enable <point> [[each|after|until] <count>] [status] | disable <point>
int injectionCommand(bool api, int argc, char** argv, std::ostream& out) {
    const char* usage = "Invalid IO Injection command. Use {list | enable <point-name> | disable <point-name> }.\n";
    if (argc < 3) {
        out << usage << "Syntax is: esa " << (api ? "apiError " : "ioError ") << "<module> ...\n";
        return -1;
    }
    std::string module = argv[1];
    bool known = false;
    for (const char* m : api ? std::vector<const char*>(std::begin(kApiModules), std::end(kApiModules))
                             : std::vector<const char*>(std::begin(kIoModules), std::end(kIoModules)))
        if (module == m) known = true;
    if (!known) {
        out << "Error: Unknown manager: " << module << "\n"
            << (api ? "apiError injection modules are: rm zm dpm dis dm cm clt catm\n"
                    : "ioError injection modules are: rm zm dpm dis dm cm\n");
        return -1;
    }
    std::string verb = argv[2];
    std::vector<ErrorInjection*> targets;
    for (ErrorInjection* e : ErrorInjection::All())
        if (e->module() == module) targets.push_back(e);
    if (verb == "list" && argc == 3) {
        for (ErrorInjection* e : targets) e->list(out);
        return 0;
    }
    if ((verb != "enable" && verb != "disable") || argc < 4) {
        out << usage;
        return -1;
    }
    std::string point = argv[3];
    ErrorInjection::Mode mode = ErrorInjection::Each;
    long long count = 1, statusValue = 0;
    int i = 4;
    if (i < argc) {
        std::string m = argv[i];
        if (m == "each" || m == "after" || m == "until") {
            mode = m == "each" ? ErrorInjection::Each : m == "after" ? ErrorInjection::After : ErrorInjection::Until;
            if (++i >= argc || !parseConsoleNumber(argv[i], count) || count < 1) {
                out << usage;
                return -1;
            }
            ++i;
        }
    }
    if (api && i < argc) {
        if (!parseConsoleNumber(argv[i], statusValue) || !StatusCode::Name(uint32_t(statusValue))) {
            out << "Unknown status " << argv[i] << "\n";
            return -1;
        }
        ++i;
    }
    if (i != argc) {
        out << usage;
        return -1;
    }
    bool done = false;
    for (ErrorInjection* e : targets)
        done |= verb == "enable" ? e->enable(api, point, mode, uint32_t(count), 0, StatusCode(uint32_t(statusValue)))
                                 : e->disable(api, point);
    if (!done) {
        out << "Unknown injection point " << point << " in " << module << "\n";
        return -1;
    }
    out << (verb == "enable" ? "Enabled " : "Disabled ") << module << " " << point << "\n";
    return 0;
}

int ioErrorCommand(int argc, char** argv, std::ostream& out) { return injectionCommand(false, argc, argv, out); }
int apiErrorCommand(int argc, char** argv, std::ostream& out) { return injectionCommand(true, argc, argv, out); }

ConsoleCommand gIoError("ioError", "Command to inject API errors", ioErrorCommand);
ConsoleCommand gApiError("apiError", "Command to inject API errors", apiErrorCommand);

}  // namespace

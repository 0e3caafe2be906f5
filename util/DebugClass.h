#pragma once
// DebugClass: the debug task list and the consistency checks. It knows every
// task the RTOS has spawned, can halt them all for an assertion dump, and runs
// the internal and external consistency checks of the registered managers.
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

class DebugClass {
public:
    static DebugClass* GetInstance();

    // Adds the task hooks and the boot thread to the task list.
    void Initialize();
    // Suspends every listed task except the caller, printing one line each.
    void HaltAllTasks(std::ostream& out);

    // A manager's consistency checks, run by `metacheck` and after pack load.
    using Check = std::function<bool(std::ostream&)>;
    void registerChecks(const std::string& name, Check internal, Check external);
    bool intConsistencyCheck(std::ostream& out);
    bool extConsistencyCheck(std::ostream& out);

private:
    DebugClass() = default;
    struct Entry {
        std::string name;
        Check internal, external;
    };
    std::mutex mLock;
    std::vector<Entry> mChecks;
    bool mInitialized = false;
};

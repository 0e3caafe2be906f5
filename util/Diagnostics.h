#pragma once
// Diagnostics: named dump handlers that run, in rising order of their safety
// rating, when an assertion fails or an engineer asks (`diags`). Handlers and
// contexts register themselves by construction; a context is an object a
// thread keeps on its stack around a long operation so that a dump shows what
// that thread was doing.
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

class DiagnosticHandler;

class DiagnosticContext {
public:
    explicit DiagnosticContext(DiagnosticHandler& handler);
    virtual ~DiagnosticContext();
    virtual void DisplayContext(std::ostream& out) = 0;

    uint64_t threadId = 0;
    std::string taskName;
    DiagnosticContext* next = nullptr;

private:
    DiagnosticHandler& mHandler;
};

class DiagnosticHandler {
public:
    using Function = void (*)(std::ostream&);
    DiagnosticHandler(Function handler, const char* name, int safetyRating);

    void RegisterContext(DiagnosticContext* context);
    void UnregisterContext(DiagnosticContext* context);
    void run(std::ostream& out);

    Function handler;
    std::string name;
    int safetyRating;
    DiagnosticHandler* next = nullptr;

private:
    std::mutex mLock;
    DiagnosticContext* mContexts = nullptr;
};

class DiagnosticsManager {
public:
    static constexpr int kMaxSafetyRating = 200;
    static void GenerateDiagnostics(std::ostream& out);
    static bool GenerateSingleDiagnostic(std::ostream& out, const std::string& name);
    static void ListDiagnostics(std::ostream& out);
    static bool inDiagnostics();

    static DiagnosticHandler*& head();
};

#include "util/Diagnostics.h"

#include <atomic>
#include <ctime>

#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"
#include "util/Assert.h"

namespace {
std::atomic<bool> gInDiagnostics{false};

std::string nowText() {
    timespec ts = BoardClock::GetInstance().realtime();
    time_t s = ts.tv_sec;
    struct tm tmv;
    localtime_r(&s, &tmv);
    char buf[64];
    strftime(buf, sizeof buf, "%a %b %d %H:%M:%S %Y", &tmv);
    return buf;
}
}  // namespace

DiagnosticContext::DiagnosticContext(DiagnosticHandler& handler) : mHandler(handler) {
    threadId = taskNumericId(taskIdSelf());
    taskName = ::taskName(taskIdSelf());
    mHandler.RegisterContext(this);
}

DiagnosticContext::~DiagnosticContext() { mHandler.UnregisterContext(this); }

DiagnosticHandler*& DiagnosticsManager::head() {
    static DiagnosticHandler* list = nullptr;
    return list;
}

DiagnosticHandler::DiagnosticHandler(Function fn, const char* n, int rating)
    : handler(fn), name(n), safetyRating(rating) {
    ESA_ASSERT_OP(rating, <=, DiagnosticsManager::kMaxSafetyRating);
    next = DiagnosticsManager::head();
    DiagnosticsManager::head() = this;
}

void DiagnosticHandler::RegisterContext(DiagnosticContext* context) {
    std::lock_guard<std::mutex> g(mLock);
    context->next = mContexts;
    mContexts = context;
}

void DiagnosticHandler::UnregisterContext(DiagnosticContext* context) {
    std::lock_guard<std::mutex> g(mLock);
    for (DiagnosticContext** p = &mContexts; *p; p = &(*p)->next) {
        if (*p == context) {
            *p = context->next;
            return;
        }
    }
}

void DiagnosticHandler::run(std::ostream& out) {
    out << "Invoking DiagnosticHandler function for " << name << " (Safety Rating " << safetyRating << ") "
        << nowText() << "\n";
    {
        std::lock_guard<std::mutex> g(mLock);
        if (!mContexts) {
            out << "No DiagnosticContexts present\n";
        } else {
            out << "Displaying DiagnosticContexts:\n";
            for (DiagnosticContext* c = mContexts; c; c = c->next) {
                out << "ThreadId " << c->threadId << " " << c->taskName << " ";
                c->DisplayContext(out);
                out << "\n";
            }
        }
    }
    if (handler) handler(out);
}

bool DiagnosticsManager::inDiagnostics() { return gInDiagnostics; }

void DiagnosticsManager::GenerateDiagnostics(std::ostream& out) {
    if (gInDiagnostics.exchange(true)) {
        out << "Diagnostics re-entered, aborting\n";
        return;
    }
    for (int rating = 0; rating <= kMaxSafetyRating; ++rating)
        for (DiagnosticHandler* h = head(); h; h = h->next)
            if (h->safetyRating == rating) h->run(out);
    out.flush();
    gInDiagnostics = false;
}

bool DiagnosticsManager::GenerateSingleDiagnostic(std::ostream& out, const std::string& name) {
    if (gInDiagnostics.exchange(true)) {
        out << "Diagnostics re-entered, aborting\n";
        return false;
    }
    bool found = false;
    for (DiagnosticHandler* h = head(); h; h = h->next) {
        if (h->name == name) {
            h->run(out);
            found = true;
        }
    }
    gInDiagnostics = false;
    return found;
}

void DiagnosticsManager::ListDiagnostics(std::ostream& out) {
    for (DiagnosticHandler* h = head(); h; h = h->next)
        out << h->name << " (Safety Rating " << h->safetyRating << ")\n";
}

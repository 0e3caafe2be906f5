#pragma once
// Trace: a named, switchable diagnostics stream "group:name:type".
//
// Every Trace is a global object that registers itself in one list when it is
// constructed. A finished line is stamped with the local time ("%F,%T: ") and
// written whole to the process's standard output (the console and the
// diagnostics log). A trace that is off costs two tests: the ESA_TRACE macro
// checks the global switch and the trace's own flag before anything is
// formatted, and formats into a private buffer so lines from several threads
// never tear.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

// A stream buffer that collects a line and hands it, stamped, to the output.
template <class Stream>
class StreamBuffer : public std::streambuf {
public:
    StreamBuffer() = default;

protected:
    int overflow(int c) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    int sync() override;

private:
    void emit();
    std::mutex mLock;
    std::string mLine;
};

class Trace : public std::ostream {
public:
    Trace(const char* group, const char* name, const char* type, bool enabled);
    ~Trace() override;
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    static bool IsEnabled() { return m_enabled.load(std::memory_order_relaxed); }
    static void SetEnabled(bool on) { m_enabled = on; }
    bool IsTracing() const { return mTracing.load(std::memory_order_relaxed); }
    void SetTracing(bool on) { mTracing = on; }
    std::ostream& getOutputStream() { return *this; }

    const std::string& group() const { return mGroup; }
    const std::string& name() const { return mName; }
    const std::string& type() const { return mType; }
    std::string fullName() const { return mGroup + ":" + mName + ":" + mType; }

    // Writes one finished line (a newline is added if missing) in one piece.
    void writeLine(const std::string& text);

    static void ListTraces(std::ostream& out);
    // All registered traces; the list is built before main and then only read.
    static std::vector<Trace*>& All();

    static std::atomic<bool> m_enabled;

private:
    StreamBuffer<std::ostream> mBuffer;
    std::string mGroup, mName, mType;
    std::atomic<bool> mTracing;
};

// Writes the stamped line to the process output (used by StreamBuffer and writeLine).
void traceEmitLine(const std::string& line);
std::string traceTimeStamp();

int tracef(Trace& trace, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The system console channel: always on.
extern Trace coutTrace;

#define ESA_TRACE(trace, expr)                                      \
    do {                                                            \
        if (Trace::IsEnabled() && (trace).IsTracing()) {            \
            std::ostringstream esaTraceText_;                       \
            esaTraceText_ << expr;                                  \
            (trace).writeLine(esaTraceText_.str());                 \
        }                                                           \
    } while (0)

// Console output that must always be seen, whatever the switches say.
#define ESA_CONSOLE(expr)                                           \
    do {                                                            \
        std::ostringstream esaTraceText_;                           \
        esaTraceText_ << expr;                                      \
        coutTrace.writeLine(esaTraceText_.str());                   \
    } while (0)

// The entry and exit lines of a traced function.
class TraceScope {
public:
    TraceScope(Trace& trace, const char* function);
    ~TraceScope();

private:
    Trace& mTrace;
    const char* mFunction;
};

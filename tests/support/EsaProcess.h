#pragma once
// EsaProcess: the real esa binary started on a test board, with its output
// captured to a file. Tests wait for lines of output, run console commands
// through the console socket, kill it with SIGKILL, and read its exit status.
#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

std::string esaBinary(const std::string& name);  // build/bin/<name>

struct ConsoleResult {
    int rc = -1;  // the command's return code; -1000 when the connection broke
    std::string output;
};

// Runs one console command on the board's console socket.
ConsoleResult runConsoleCommand(const std::string& boardDir, const std::string& line);

class EsaProcess {
public:
    // args: the command-line switches; env: extra environment (ESA_BOARD is set
    // from boardDir; ESA_CLOCK defaults to an accelerated clock).
    EsaProcess(const std::string& boardDir, std::vector<std::string> args = {},
               std::map<std::string, std::string> env = {});
    ~EsaProcess();

    // Waits until the output contains `text` (or the process ended); true if found.
    bool waitForOutput(const std::string& text, std::chrono::seconds limit = std::chrono::seconds(60));
    // Waits until the console socket answers.
    bool waitForConsole(std::chrono::seconds limit = std::chrono::seconds(60));
    ConsoleResult console(const std::string& line);
    // Waits for the process to end; returns its exit status, or 128+signal.
    int wait(std::chrono::seconds limit = std::chrono::seconds(60));
    void kill9();
    bool running();
    std::string output() const;  // stdout and stderr so far
    pid_t pid() const { return mPid; }

private:
    std::string mBoard;
    std::string mOutputFile;
    pid_t mPid = -1;
    int mStatus = -1;
    bool mExited = false;
};

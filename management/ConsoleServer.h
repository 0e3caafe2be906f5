#pragma once
// ConsoleServer: the console's transport. Commands arrive as text lines on
// the socket console.sock in the board directory (one connection may carry
// many commands) and, when asked, on standard input. Each line is split into
// words and run through ConsoleCommand; on the socket the output is streamed
// back and closed by a frame "\0ESA-RC <code>\n" that carries the command's
// return code, so that a client can tell output from the end of a command.
#include <string>

class ConsoleServer {
public:
    static constexpr const char* kSocketName = "console.sock";
    static constexpr const char* kEndOfReply = "ESA-RC ";

    static ConsoleServer* GetInstance();
    // Starts the socket listener (thread "tDebug"), and the standard-input
    // console too when `standardInput` is set.
    void start(bool standardInput);
    // Runs the console on standard input until it closes.
    void runOnStandardInput();

private:
    ConsoleServer() = default;
    void listenLoop(int listenFd);
    static void serveConnection(int fd);
    bool mStarted = false;
};

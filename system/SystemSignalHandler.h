#pragma once
// The process's signal policy: a fault signal names itself ("Signal = SIGSEGV")
// and raises the assertion on its number; the host's power switch (SIGTERM,
// SIGINT, SIGHUP) ends the process at once, as a power cut would; SIGPIPE is
// ignored so that a client that goes away is no fault.
void installSystemSignalHandler();
const char* signalName(int signal);

// Signals while a tool runs. A write past the file size limit must not kill the process: with
// SIGXFSZ ignored it fails as a short write, which the file layer reports as a full disk does.
// SIGINT and SIGTERM are a request to stop: the tool shell hands the first one to the tool as
// its Cancel, with no questions asked, and a second one ends the process as the signal would.
#pragma once
#include <cstdint>

// Installs the handlers and starts a fresh count of stop requests.
void SignalsInstall();
// Puts back what SignalsInstall replaced (SIGXFSZ stays ignored: a short write is always the
// better outcome).
void SignalsRestore();
// SIGINT and SIGTERM received since SignalsInstall.
uint32_t SignalStopRequests();

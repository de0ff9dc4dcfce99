// Crash guards around calls into decoders: a decoder that faults on a bad frame must not take
// the tool down with it.
#pragma once

typedef void (*MediaGuardedCall)(void* context);

// Runs call(context). Returns false when the call faulted (SIGSEGV, SIGBUS, SIGFPE, SIGILL);
// the call is then abandoned where it stood.
bool MediaGuardRun(MediaGuardedCall call, void* context);

// The async slice service's message queue: a ring of 256 bytes that carries small fixed-size
// messages between a caller's thread and a slice worker. Shared here so that its rules (full,
// wrap, wake-ups without data) can be checked on their own.
#pragma once
#include "host/platform.h"

#include <cstdint>

inline constexpr uint32_t AsyncQueueBytes = 256;
// Wake-ups without data that may build up on one queue.
inline constexpr uint32_t AsyncQueueMaxNudges = 16;

struct AsyncQueue {
  uint8_t Ring[AsyncQueueBytes];
  uint32_t Head, Tail;          // bytes written and taken so far; only their difference counts
  uint32_t Pending;             // messages written and not yet taken
  uint32_t SpaceSignalled;      // 0 while a writer may be waiting for room
  uint32_t Nudges;              // wake-ups without data not yet taken
  volatile uint32_t Made;       // the semaphores and the lock exist
  PlatformSemaphore DataReady;  // one count per message or wake-up
  PlatformSemaphore SpaceReady; // a taker made room
  PlatformLock Lock;
};

// Creates the semaphores and the lock; on failure returns the error text and leaves nothing.
const char* AsyncQueueCreate(AsyncQueue* queue);
void AsyncQueueDestroy(AsyncQueue* queue);
// Appends `bytes` bytes; false when they do not fit (the queue then expects a writer to wait on
// SpaceReady).
bool AsyncQueueWrite(AsyncQueue* queue, const void* message, uint32_t bytes);
// Waits up to `milliseconds` for a message or a wake-up, and takes one message of `bytes` bytes
// if one is there. False when nothing was taken.
bool AsyncQueueRead(AsyncQueue* queue, void* message, uint32_t bytes, uint32_t milliseconds);
// Wakes one reader without data (at most AsyncQueueMaxNudges wake-ups build up).
void AsyncQueueNudge(AsyncQueue* queue);
// Bytes that can still be written.
uint32_t AsyncQueueFree(AsyncQueue* queue);
// Bytes waiting to be taken.
uint32_t AsyncQueueUsed(AsyncQueue* queue);

// Measuring how fast a sound device really plays. A device's crystal may run a fraction of a
// percent off its nominal rate; over an hour that is seconds. The meter compares the bytes the
// device has consumed with the time that passed, follows the true rate in steps of a 64th of the
// difference, and gives the factor the frame clock is scaled with (16.16, 0x10000 = nominal; a
// fast device gives less than 0x10000, so frames come sooner).
//
// A pure calculator: the back end tells it the time and the consumed bytes, which keeps it
// testable with any "bytes against time" source.
#pragma once
#include <cstdint>

struct RateMeterTiming {
  uint32_t SettleMs;   // after play begins, the device settles this long before a measure starts
  uint32_t MeasureMs;  // a measure runs at least this long before it gives an estimate
};

struct RateMeter {
  uint32_t NominalRate = 0;    // samples per second the device was opened with
  uint32_t FrameBytes = 0;     // bytes of one sample over all channels
  RateMeterTiming Timing{};
  uint32_t Begun = 0;          // play began at BeginTime
  uint32_t BeginTime = 0;
  uint32_t Measuring = 0;      // a measure runs since MeasureStart
  uint32_t MeasureStart = 0;
  uint64_t Sent = 0;           // bytes consumed since MeasureStart
  uint64_t MeasuredRate = 0;   // the estimate, samples per second << RateFractionBits
  uint32_t ClockScale = 0x10000;
};

// The estimate keeps eight bits below one sample per second: a whole-sample estimate would
// leave up to 1/44100 of error, 80 ms over an hour.
constexpr uint32_t RateFractionBits = 8;

// Starts a meter for a device of `rate` samples per second and `frameBytes` bytes a sample.
void RateMeterInit(RateMeter* m, uint32_t rate, uint32_t frameBytes, RateMeterTiming timing);
// Play began (or began again after a stop, a pause or a dry device): the measure starts anew
// after the settle time. The estimate so far is kept.
void RateMeterBegin(RateMeter* m, uint32_t nowMs);
// Play stopped: no measuring until the next begin.
void RateMeterStop(RateMeter* m);
// The device consumed `bytes` more by `nowMs`. Returns the clock factor, 16.16.
uint32_t RateMeterConsumed(RateMeter* m, uint32_t bytes, uint32_t nowMs);

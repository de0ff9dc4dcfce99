// The device-rate meter: consumed bytes over elapsed time, followed in steps of a 64th.
#include "player/sound/rate_meter.h"

namespace {

// A count this large is halved together with its time, so the measure keeps weighing the
// recent past. It is large (about 25 minutes of CD sound): the consumed count moves in device
// periods and the time in whole ms, and only a long measure makes that error small enough to
// keep an hour of play within a frame.
constexpr uint64_t HalveAt = uint64_t(1) << 28;

uint64_t Nominal(const RateMeter* m) { return uint64_t(m->NominalRate) << RateFractionBits; }

void UpdateScale(RateMeter* m) {
  if (m->MeasuredRate == 0) return;
  // Rounded to the nearest step of the 16.16 factor: truncation alone would be a bias of up to
  // one step, about a frame of drift per hour.
  const uint64_t scaled = (Nominal(m) << 17) / m->MeasuredRate;
  m->ClockScale = uint32_t((scaled + 1) >> 1);
}

// Moves the estimate towards `rate` by a 64th of the difference (at least one unit).
void Follow(RateMeter* m, uint64_t rate) {
  const uint64_t one = 1;
  if (rate > m->MeasuredRate + one) m->MeasuredRate += (rate - m->MeasuredRate + 63) / 64;
  else if (rate + one < m->MeasuredRate) m->MeasuredRate -= (m->MeasuredRate - rate + 63) / 64;
}

}  // namespace

void RateMeterInit(RateMeter* m, uint32_t rate, uint32_t frameBytes, RateMeterTiming timing) {
  *m = RateMeter{};
  m->NominalRate = rate;
  m->FrameBytes = frameBytes ? frameBytes : 1;
  m->Timing = timing;
  m->MeasuredRate = Nominal(m);
}

void RateMeterBegin(RateMeter* m, uint32_t nowMs) {
  m->Begun = 1;
  m->BeginTime = nowMs;
  m->Measuring = 0;
}

void RateMeterStop(RateMeter* m) {
  m->Begun = 0;
  m->Measuring = 0;
}

uint32_t RateMeterConsumed(RateMeter* m, uint32_t bytes, uint32_t nowMs) {
  if (!m->Begun || m->NominalRate == 0) return m->ClockScale;
  if (!m->Measuring) {
    if (nowMs - m->BeginTime <= m->Timing.SettleMs) return m->ClockScale;
    // The bytes of this call were consumed before the measure's start: not counted.
    m->Measuring = 1;
    m->MeasureStart = nowMs;
    m->Sent = 0;
    return m->ClockScale;
  }
  m->Sent += bytes;
  uint32_t elapsed = nowMs - m->MeasureStart;
  if (m->Sent > HalveAt) {
    m->Sent /= 2;
    elapsed /= 2;
    m->MeasureStart = nowMs - elapsed;
  }
  if (elapsed <= m->Timing.MeasureMs || elapsed == 0) return m->ClockScale;
  const uint64_t rate =
      (m->Sent << RateFractionBits) * 1000 / (uint64_t(elapsed) * m->FrameBytes);
  Follow(m, rate);
  UpdateScale(m);
  return m->ClockScale;
}

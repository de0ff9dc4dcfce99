// Data-rate plan: default and overall rates, per-frame figures, complexity and the pump.
#include "compress/rate_plan.h"

#include "host/platform.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>

namespace {

uint32_t Cut31(uint64_t v) { return v > 0x7fffffffu ? 0x7fffffffu : uint32_t(v); }

}  // namespace

uint32_t VelmoInputRate(uint32_t num, uint32_t den, uint64_t inputBytes, uint32_t inputFrames,
                        uint32_t percent) {
  const uint64_t below = uint64_t(inputFrames) * den * (percent == 100 ? 1 : 100);
  if (below == 0) return 0;
  const unsigned __int128 above = (unsigned __int128)num * inputBytes * (percent == 100 ? 1 : percent);
  const unsigned __int128 q = above / below;
  return q > 0x7fffffffu ? 0x7fffffffu : uint32_t(q);
}

uint32_t VelmoDefaultRate(uint32_t generation, uint32_t width, uint32_t height, uint32_t num,
                          uint32_t den, uint32_t runFrames, uint64_t inputBytes,
                          uint32_t inputFrames) {
  const uint64_t p = uint64_t(width) * height;
  const uint32_t fps = den ? num / den : 0;
  uint64_t rate;
  if (generation == 1) {
    if (p > 0x140000) {
      rate = p * 9 / 8;
      if (fps > 31) rate = rate * 5 / 4;
    } else {
      rate = p * 3 / 2;
      if (fps > 31) rate = rate * 3 / 2;
    }
  } else {
    if (p > 0x140000) {
      rate = p * 3 / 4;
      if (fps > 31) rate = rate * 5 / 4;
    } else {
      rate = p;
      if (fps > 31) rate = rate * 3 / 2;
    }
  }
  if (runFrames < fps) rate *= 3;  // under a second of video
  uint32_t out = Cut31(rate);
  if (generation != 1 && inputFrames) out = std::min(out, VelmoInputRate(num, den, inputBytes, inputFrames, 100));
  return out;
}

uint32_t VelmoOverallRate(int32_t d, uint32_t num, uint32_t den, uint64_t inputBytes,
                          uint32_t inputFrames) {
  if (d < 1) return 0;
  if (d <= 200) return VelmoInputRate(num, den, inputBytes, inputFrames, uint32_t(d));
  return uint32_t(d);
}

VelmoFrameRate VelmoFrameRateFor(const VelmoRateSettings& s, const VelmoFrameHint& hint) {
  uint32_t rate = hint.Rate != VelmoRateUnset ? hint.Rate : s.OverallRate;
  if (rate == 0) rate = s.DefaultRate;
  const uint32_t setting = hint.Peak != VelmoRateUnset ? hint.Peak : s.PeakSetting;
  uint64_t peak;
  if (setting == 0) peak = uint64_t(rate) * 300 / 100;
  else if (setting <= 100) peak = rate;
  else if (setting <= 1000) peak = uint64_t(setting) * rate / 100;
  else peak = setting;
  const uint32_t num = s.RateNumerator ? s.RateNumerator : 1;
  VelmoFrameRate out;
  out.TargetBytes = uint32_t(uint64_t(rate) * s.RateDenominator / num);
  out.PeakBytes = uint32_t(uint64_t(uint32_t(peak)) * s.RateDenominator / num);
  out.IsKey = hint.Key != 0;
  return out;
}

uint32_t VelmoKeyFrameBytes(uint32_t keyRate, uint32_t num, uint32_t den) {
  if (keyRate == 0 || num == 0) return 0;
  return uint32_t(uint64_t(den) * keyRate / num + 1);
}

uint32_t EstimateBytes(uint32_t h[256], uint32_t total) {
  // A window of four bins holding half the samples becomes one symbol.
  for (uint32_t i = 0; i <= 252;) {
    const uint64_t window = uint64_t(h[i]) + h[i + 1] + h[i + 2] + h[i + 3];
    if (total && window * 2 >= total) {
      h[i] = uint32_t(window);
      h[i + 1] = h[i + 2] = h[i + 3] = 0;
      i += 4;
    } else {
      ++i;
    }
  }
  if (h[0] == 0) h[0] = 1, ++total;
  if (h[255] == 0) h[255] = 1, ++total;
  double sum = 0;
  for (uint32_t i = 0; i < 256; ++i) {
    if (!h[i]) continue;
    const float ratio = float(h[i]) / float(total);
    const double bits = std::min(32.0, -std::log2(double(ratio)));
    sum += h[i] * bits;
  }
  return uint32_t(sum * 0.125);
}

uint32_t VelmoPlaneComplexity(const VelmoComplexityPlane& p, bool key) {
  if (!p.Pixels) return 0;
  uint32_t h[256] = {}, total = 0;
  for (uint32_t y = 0; y < p.Height; ++y) {
    const uint8_t* row = p.Pixels + int64_t(y) * p.Pitch;
    const uint8_t* prev = p.Previous ? p.Previous + int64_t(y) * p.Pitch : nullptr;
    for (uint32_t x = 0; x < p.Width; ++x) {
      if (!key && prev && std::abs(int(row[x]) - int(prev[x])) <= 2) continue;
      ++h[row[x]];
      ++total;
    }
  }
  if (total == 0) return 0;
  return EstimateBytes(h, total);
}

namespace {

struct ComplexityJob {
  const VelmoComplexityPlane* Planes[5];
  uint32_t Results[5];
  bool Key;
  std::atomic<uint32_t> Next{0};
};

void ComplexityWorker(void* context, uint32_t) {
  auto* job = static_cast<ComplexityJob*>(context);
  for (uint32_t i; (i = job->Next.fetch_add(1)) < 5;)
    job->Results[i] = VelmoPlaneComplexity(*job->Planes[i], job->Key);
}

}  // namespace

uint32_t MeasureFrameComplexity(const VelmoComplexityPlane& luma, const VelmoComplexityPlane& cr,
                                const VelmoComplexityPlane& cb, const VelmoComplexityPlane& alpha,
                                const VelmoComplexityPlane& hdr, bool key) {
  ComplexityJob job;
  job.Planes[0] = &luma;
  job.Planes[1] = &alpha;
  job.Planes[2] = &hdr;
  job.Planes[3] = &cr;
  job.Planes[4] = &cb;
  job.Key = key;
  PoolRun(ComplexityWorker, &job);
  auto keyed = [&](uint32_t v) { return key ? uint32_t(v * 9u) >> 1 : v; };  // 32-bit multiply
  uint32_t sum = keyed(job.Results[0]) + keyed(job.Results[1]) + keyed(job.Results[2]);
  if (cr.Pixels || cb.Pixels) sum += keyed(job.Results[3] + job.Results[4]);
  return sum;
}

VelmoPumpState VelmoPumpBegin(const VelmoRateSlot* slots, uint32_t count, int64_t carryBytes,
                              uint32_t keyFrameBytes) {
  VelmoPumpState s{};
  s.Frames = std::min<uint32_t>(count, 64);
  for (uint32_t j = 0; j < s.Frames; ++j) {
    uint64_t base = slots[j].TargetBytes;
    uint64_t weight = slots[j].Complexity;
    if (keyFrameBytes) {
      if (slots[j].IsKey) base += keyFrameBytes;
      weight = base;  // no borrowing: bytes follow the frame's own target
    }
    s.Total += int64_t(base);
    s.Weights[j] = weight;
    s.WeightSum += weight;
  }
  s.Pool = s.Total + carryBytes;
  if (s.WeightSum == 0)
    for (uint64_t& w : s.Weights) w = 0;
  return s;
}

uint32_t VelmoSoundReservation(const VelmoRateTrack* tracks, uint32_t trackCount, uint32_t frames,
                               uint32_t slot, uint32_t num, uint32_t den) {
  uint32_t sum = 0;
  for (uint32_t t = 0; t < trackCount; ++t) {
    const VelmoRateTrack& k = tracks[t];
    if (!num || !k.InputBytes) continue;
    const uint64_t wanted = uint64_t(k.BytesPerSecond) * den * (frames - slot) / num;
    const uint32_t bytes = std::min(uint32_t(wanted), k.BytesLeft);  // low 32 bits compared
    sum += uint32_t(uint64_t(k.OutputBytes) * bytes / k.InputBytes);
  }
  return sum;
}

uint32_t VelmoFloorBytes(const VelmoRateGeometry& g) {
  if (g.Generation != 1) return 0;
  const uint64_t l = (g.LumaPixels >> 8) + (g.LumaPixels >> 6);
  const uint64_t k = (g.ChromaPixels >> 8) + (g.ChromaPixels >> 6);
  const uint64_t sum = 3 * l + (g.Alpha ? 3 * l : 0) + (g.Grayscale ? 0 : 4 * k);
  return uint32_t((sum * 2) >> 4);
}

uint32_t VelmoLowestRate(const VelmoRateGeometry& g, uint32_t num, uint32_t den) {
  if (!den) return 0;
  return uint32_t(std::min<uint64_t>(uint64_t(VelmoFloorBytes(g)) * num / den, 0x7fffffff));
}

uint32_t VelmoPumpBudget(const VelmoPumpState& s, const VelmoRateSlot& slot, uint32_t i,
                         uint32_t reservation, uint32_t keyFrameBytes, uint32_t framesWritten,
                         const VelmoRateGeometry& g) {
  const int64_t share = s.Pool - int64_t(reservation);
  int64_t budget = 0;
  if (share >= 0) {
    if (s.WeightSum) budget = int64_t(uint64_t(s.Weights[i]) * uint64_t(share) / s.WeightSum);
    else if (s.Frames) budget = share / s.Frames;  // plain division by N as at the start
  }
  if (g.Generation == 1) {
    if (g.Version > 100 && budget > 1024) budget += (framesWritten & 1) ? 256 : -256;
    budget = std::max<int64_t>(budget, slot.TargetBytes / 10);
    budget = std::max<int64_t>(budget, VelmoFloorBytes(g));
    if (!keyFrameBytes) budget = std::min<int64_t>(budget, slot.PeakBytes);
  } else {
    if (!keyFrameBytes) budget = std::min<int64_t>(budget, slot.PeakBytes);
    if (slot.IsKey) {
      const int64_t k = (g.ChromaPixels >> 8) + (g.ChromaPixels >> 6);
      budget = std::max<int64_t>(budget, (int64_t(g.LumaPixels) + k) / 930);
    }
    budget = std::max<int64_t>(budget, slot.TargetBytes / 20);
  }
  return uint32_t(std::clamp<int64_t>(budget, 0, 0xffffffffll));
}

void VelmoPumpUsed(VelmoPumpState& s, int64_t& carry, const VelmoRateSlot& slot, uint32_t i,
                   uint32_t used) {
  s.Pool -= used;
  carry += int64_t(slot.TargetBytes) - int64_t(used);
  s.WeightSum -= s.Weights[i];
}

void VelmoPumpEnd(const VelmoPumpState& s, int64_t& carry) {
  carry = std::clamp(carry, -s.Total, s.Total);
}

// Speaker bins to device channels, and the player's bins per track.
#include "player/sound/speaker_mix.h"

#include <algorithm>
#include <cmath>

namespace {

enum Speaker : uint32_t { FrontLeft, FrontRight, Centre, Lfe, BackLeft, BackRight, SideLeft, SideRight };

// The device channel of each speaker in a layout of n channels; -1 where it has none.
int32_t ChannelOf(uint32_t speaker, uint32_t channels) {
  static const int8_t layouts[9][SpeakerBins] = {
      {-1, -1, -1, -1, -1, -1, -1, -1},
      {0, 0, -1, -1, -1, -1, -1, -1},  // mono: both fronts, folded below at half each
      {0, 1, -1, -1, -1, -1, -1, -1},  // stereo
      {0, 1, -1, 2, -1, -1, -1, -1},   // 2.1
      {0, 1, -1, -1, 2, 3, -1, -1},    // quad
      {0, 1, -1, 2, 3, 4, -1, -1},     // 4.1
      {0, 1, 2, 3, -1, -1, 4, 5},      // 5.1
      {0, 1, 2, 3, -1, -1, 5, 6},      // 6.1 (its back centre is left alone)
      {0, 1, 2, 3, 4, 5, 6, 7},        // 7.1
  };
  return layouts[std::min<uint32_t>(channels, 8)][speaker];
}

// Adds `gain` of a speaker to the device channels that play it.
void Route(uint32_t speaker, double gain, uint32_t channels, double* out) {
  if (gain == 0.0) return;
  const int32_t c = ChannelOf(speaker, channels);
  if (c >= 0) {
    out[c] += channels == 1 ? gain * 0.5 : gain;
    return;
  }
  switch (speaker) {
    case Centre:
      Route(FrontLeft, gain * M_SQRT1_2, channels, out);
      Route(FrontRight, gain * M_SQRT1_2, channels, out);
      break;
    case BackLeft:
    case BackRight: {
      const uint32_t side = speaker == BackLeft ? SideLeft : SideRight;
      const uint32_t front = speaker == BackLeft ? FrontLeft : FrontRight;
      Route(ChannelOf(side, channels) >= 0 ? side : front, gain, channels, out);
      break;
    }
    case SideLeft:
    case SideRight: {
      const uint32_t back = speaker == SideLeft ? BackLeft : BackRight;
      const uint32_t front = speaker == SideLeft ? FrontLeft : FrontRight;
      Route(ChannelOf(back, channels) >= 0 ? back : front, gain, channels, out);
      break;
    }
    default:  // LFE without a channel of its own
      break;
  }
}

int32_t Fixed(double gain) {
  return int32_t(std::lround(std::clamp(gain, 0.0, 2.0) * 65536.0));
}

}  // namespace

SpeakerMatrix SpeakerMatrixFor(const float bins[SpeakerBins], uint32_t trackChannels,
                               uint32_t deviceChannels) {
  SpeakerMatrix m;
  m.DeviceChannels = std::clamp<uint32_t>(deviceChannels, 1, MaxDeviceChannels);
  m.TrackChannels = trackChannels == 2 ? 2 : 1;
  double sum[2][MaxDeviceChannels] = {};
  for (uint32_t k = 0; k < SpeakerBins; ++k) {
    const uint32_t source = m.TrackChannels == 2 ? k % 2 : 0;
    Route(k, bins[k], m.DeviceChannels, sum[source]);
  }
  for (uint32_t c = 0; c < m.DeviceChannels; ++c)
    for (uint32_t s = 0; s < m.TrackChannels; ++s) m.Gain[c][s] = Fixed(sum[s][c]);
  return m;
}

SpeakerMatrix SpeakerMatrixPlain(uint32_t trackChannels, uint32_t deviceChannels, int32_t volume) {
  const float v = float(volume) / 65536.0f;
  const float bins[SpeakerBins] = {v, v, 0, 0, 0, 0, 0, 0};
  return SpeakerMatrixFor(bins, trackChannels, deviceChannels);
}

void SpeakerMix(const SpeakerMatrix& m, const int16_t* in, int16_t* out, uint32_t samples) {
  const uint32_t tc = m.TrackChannels, dc = m.DeviceChannels;
  for (uint32_t i = 0; i < samples; ++i, in += tc, out += dc) {
    for (uint32_t c = 0; c < dc; ++c) {
      int64_t v = 0;
      for (uint32_t s = 0; s < tc; ++s) v += int64_t(in[s]) * m.Gain[c][s];
      // Rounded to nearest, halves away from zero, so that unity gain is exact.
      const int64_t r = v >= 0 ? (v + 0x8000) >> 16 : -((-v + 0x8000) >> 16);
      out[c] = int16_t(std::clamp<int64_t>(r, -32768, 32767));
    }
  }
}

void SpeakerBinsForTracks(const uint32_t* trackChannels, uint32_t tracks, uint32_t* first,
                          uint32_t* count) {
  uint32_t next = 0;
  for (uint32_t i = 0; i < tracks; ++i) {
    const bool stereo = trackChannels[i] == 2;
    const bool lastMono = !stereo && i + 1 == tracks && (next == 0 || next == 4 || next == 6);
    uint32_t at = next;
    uint32_t take = 1;
    if (stereo || lastMono) {
      at = (next + 1) & ~1u;
      take = 2;
    }
    if (at + take > SpeakerBins) {
      first[i] = 0;
      count[i] = 0;
      next = SpeakerBins;
      continue;
    }
    first[i] = at;
    count[i] = take;
    next = at + take;
  }
}

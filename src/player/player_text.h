// The player's texts built from the reader library's figures: the statistics line shown above
// the video with /Q, and the summary shown at the end with /S.
#pragma once
#include <cstdint>
#include <string>

#include "velmo.h"

// The widest statistics line, which sizes the strip above the video.
inline constexpr const char* PlayerStatisticsSample =
    "Fre: 2000, FPS: 100.0, Buf: 100%, Vid: 55%, Aud: 55%, Blit: 55%, Read: 55%, Back: 55%, "
    "Rate: 1000000";

// The statistics line of the last second's figures; `hdr` adds the exposure, `exposure` in
// quarter stops.
std::string PlayerStatisticsLine(const VelmoRealtime& realtime, bool hdr, int32_t exposure);

// What the summary says beyond the library's figures.
struct PlayerSummaryExtras {
  uint32_t SkippedBlits = 0;
  bool OpenGL = false;  // the blitting style: the GPU path keeps the name "Direct3D 11"
  int32_t ScreenWidth = 0, ScreenHeight = 0;
};

// The summary text, or "" when no frame was played (no summary is shown then).
std::string PlayerSummaryText(const VelmoSummary& summary, const PlayerSummaryExtras& extras);

// What the player's sound back ends share: sizes of device blocks and the start level, the
// software volume and pan (the devices are fed at full scale and the gains are applied on the
// way in), the staging buffer that Lock hands out, and the device-rate meter.
//
// Each back end keeps a SoundOutput (or a record that begins with one) on the heap, its
// address in the track record's back-end area.
#pragma once
#include "player/sound/rate_meter.h"
#include "player/sound/speaker_mix.h"
#include "velmo.h"

#include <cstdint>
#include <memory>

// Bytes of `ms` milliseconds of sound, rounded up to 32.
uint32_t SoundBytesOf(uint32_t bytesPerSecond, uint32_t ms);
// The start level: `ms` of sound, not more than the whole file's playing time when known.
uint32_t SoundStartBytes(uint32_t bytesPerSecond, uint32_t ms, HVELMO handle);

// Left and right gains (16.16) for a volume of 0..65536 and a pan of 0..65536 (32768 in the
// middle): the side the pan leans to keeps the volume, the other is lowered in proportion, down
// to silence at the end of the range.
void SoundGains(uint32_t volume, uint32_t pan, int32_t* left, int32_t* right);

struct SoundOutput {
  uint32_t Rate = 0;            // samples per second
  uint32_t TrackChannels = 1;
  uint32_t DeviceChannels = 1;
  uint32_t TrackFrameBytes = 2, DeviceFrameBytes = 2;
  uint32_t BlockBytes = 0;      // the device block, in track bytes
  uint32_t StartBytes = 0;      // track bytes held before play begins
  uint32_t On = 1, Paused = 0, Begun = 0;
  uint32_t Queued = 0;          // track bytes given since the last begin, until play begins
  uint32_t Volume = 65536, Pan = 32768;
  float Mix[SpeakerBins] = {};  // speaker volumes from SetMix; all 0 = the plain layout
  uint32_t HasMix = 0;
  SpeakerMatrix Matrix;
  uint32_t Passthrough = 1;     // the matrix changes nothing: track bytes go out as they are
  std::unique_ptr<uint8_t[]> Staging;  // what Lock hands out
  uint32_t StagingBytes = 0;
  std::unique_ptr<int16_t[]> Converted;  // the staging bytes in the device's layout
  RateMeter Meter;
  uint32_t Measures = 0;        // the back end reports the meter's ClockScale
};

// Sets up sizes, the staging buffers and the meter; false without memory.
bool SoundOutputInit(SoundOutput* o, uint32_t rate, uint32_t trackChannels,
                     uint32_t deviceChannels, uint32_t blockMs, uint32_t stagingBlocks,
                     RateMeterTiming timing);
// Builds the matrix anew from the volume, the pan and the speaker mix.
void SoundOutputUpdateMatrix(SoundOutput* o);
// The track operations that set the volume (0..65536) and the pan (0..65536), for every back
// end whose track record is a SoundOutput.
void SoundOutputSetVolume(VelmoTrack* t, uint32_t volume);
void SoundOutputSetPan(VelmoTrack* t, uint32_t pan);
// The `bytes` of staging, in the device's layout: the staging itself when nothing changes them.
// `deviceBytes` receives their size.
const uint8_t* SoundOutputConvert(SoundOutput* o, uint32_t bytes, uint32_t* deviceBytes);

// The record of a track (a SoundOutput or a record derived from it), kept in its back-end area.
template <class T = SoundOutput>
T* SoundOutputOf(VelmoTrack* t) {
  SoundOutput* p;
  static_assert(sizeof p <= sizeof t->BackEndArea);
  __builtin_memcpy(&p, t->BackEndArea, sizeof p);
  return static_cast<T*>(p);
}
inline void SoundOutputAttach(VelmoTrack* t, SoundOutput* p) {
  __builtin_memcpy(t->BackEndArea, &p, sizeof p);
}

// Stores the meter's factor for the library, which reads it from another thread.
void SoundOutputReportScale(VelmoTrack* t, uint32_t scale);
// Stores the device's dry flag for the library.
void SoundOutputReportUnderrun(VelmoTrack* t);

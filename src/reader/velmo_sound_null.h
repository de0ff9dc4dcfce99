// The null sound back end: a device that plays nothing aloud, for tests and headless runs. It
// takes bytes through Lock and Unlock into a buffer of `Latency` ms and plays them away at
// its own rate by a clock: the platform timer, or a clock the caller moves. It runs dry like a
// real device (setting `Underrun`), can run fast or slow against nominal (so that the library's
// ClockScale is exercised), and keeps a log per track of what it was given.
//
// Register it with VelmoSetSoundSystem(VelmoNullSoundSelect, (uintptr_t)&config). The config
// record must outlive every track opened with it.
#pragma once
#include "velmo.h"

#include <cstdint>

constexpr uint32_t VelmoNullSoundMaxLogs = 8;

// What the device saw of one track (tracks are numbered in the order they were opened).
struct VelmoNullSoundLog {
  uint64_t Received;       // bytes handed to the device
  uint64_t Played;         // bytes the device has played
  uint64_t Checksum;       // FNV-1a over the received bytes, in order
  uint32_t Unlocks;        // Unlock calls with bytes
  uint32_t ShortUnlocks;   // amounts that were not a multiple of DeviceBlock
  uint32_t ShortEarly;     // such amounts while the frame was not past the track's EndFrame
  uint32_t Underruns;      // times the device ran dry while playing
  uint32_t OnOffCalls, Pauses;
  uint32_t Opened, Closed;
  uint32_t State;          // 1 on, 0 off
  uint32_t Paused;
  uint32_t Volume, Pan;
  float Mix[8];            // the last SetMix: speaker volumes, count, stereo flag, volume
  uint32_t MixCount, MixStereo;
  float MixVolume;
  uint8_t* Capture;        // optional: the received bytes are copied here ...
  uint32_t CaptureSize;    // ... up to this many
  uint32_t CaptureUsed;
};

struct VelmoNullSoundConfig {
  uint32_t RateScale = 0x10000;  // the device's true speed against nominal, 16.16
  uint32_t ReportScale = 1;      // tell the library the speed through ClockScale
  uint32_t DeviceBlock = 0;      // bytes the device takes at least
  uint32_t BlockMask = 0;        // 0 leaves the library's default (all ones)
  uint32_t Latency = 200;        // ms the device buffers
  int32_t ServiceMode = 1;       // as VelmoTrack::ServiceMode
  uint32_t RefuseOpen = 0;       // the back end's open fails
  uint32_t (*Clock)() = nullptr; // null: TimerMs
  uint32_t TracksOpened = 0;     // logs in use
  volatile uint32_t Ticks = 0;   // devices played on by the back end's own tick (negative modes)
  VelmoNullSoundLog Logs[VelmoNullSoundMaxLogs] = {};
};

// The select function: `parameter` points at a VelmoNullSoundConfig; 0 selects nothing.
VelmoOpenBackEnd VelmoNullSoundSelect(uintptr_t parameter);

// The device's time moves on to its clock's present: it plays what that time takes.
void VelmoNullSoundAdvance(VelmoTrack* track);

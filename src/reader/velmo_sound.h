// Sound tracks inside the reader library: the packet decoder that fills a track's ring, the
// feeder that copies from the ring to a back end, the "Velmo Snd" service and the steps that
// the open, the frame walk and the close call.
#pragma once
#include "reader/velmo_handle.h"

#include <cstdint>

// ---- the sound codec, seen from the library (velmo_sound_codec.cpp) ----

// Bytes of decoder state for a track of `rate` Hz and `channels` channels.
uint32_t VelmoSoundDecoderBytes(uint32_t rate, uint32_t channels);
// Builds the decoder for a track's TrackFormat in `memory`; null when the format carries no
// Velmo sound or the rate or channels cannot be decoded.
void* VelmoSoundDecoderCreate(void* memory, uint32_t trackFormat);
// PCM bytes of one decoded block.
uint32_t VelmoSoundDecoderBlockBytes(const void* decoder);
// The next block starts without a crossfade.
void VelmoSoundDecoderReset(void* decoder);

// Decodes one track packet's blocks (`data`, `size` bytes behind the DecodedBytes word) into
// the straight buffer `dest` of `room` bytes. Stops after `decodedBytes` (a multiple of 16) or
// when the blocks end. Returns the bytes stored.
uint32_t VelmoSoundDecodeToBuffer(void* decoder, const uint8_t* data, uint32_t size,
                                  uint32_t decodedBytes, uint8_t* dest, uint32_t room);

// Decodes one track packet into the track's ring at RingWrite, never closer than 16 bytes to
// RingRead while `protect` is set; without it the oldest bytes are overwritten and RingRead is
// pushed along so that the ring holds the newest. Returns the bytes stored.
uint32_t VelmoSoundDecodeToRing(VelmoTrack* track, const uint8_t* data, uint32_t size,
                                uint32_t decodedBytes, bool protect);

// ---- the library's sound steps (velmo_sound.cpp) ----

// Step 18 of the open: opens the asked tracks (`ids`, `count`) of the handle. Tracks that
// cannot be opened are left out without an error.
void VelmoOpenTracks(VelmoState* h, const uint32_t* ids, uint32_t count);
// Step 21 of the open: wakes the sound thread when a track of the handle uses it.
void VelmoSoundWake(VelmoState* h);
// Steps of the close: takes the handle off the sound service's list and waits until the
// thread has let go of it; closes the back ends and frees the track memory; stops the thread
// after the last handle unless the handle was opened with 0x40.
void VelmoSoundUnregister(VelmoState* h);
void VelmoCloseTracks(VelmoState* h);

// Decodes the selected frame's sound packets into the rings of the open tracks.
void VelmoDecodeFrameSound(VelmoState* h);
// The first track's speed factor, 16.16; 0x10000 without sound.
uint32_t VelmoSoundClockScale(const VelmoState* h);
// Reads and clears the tracks' underrun flags; true when one counts (the frame is above 1 and
// not above the track's EndFrame).
bool VelmoSoundUnderrun(VelmoState* h);
// Tells each track's back end about a pause.
void VelmoSoundPause(VelmoState* h, uint32_t pause);

// Feeds the back ends of the handle's tracks from their rings (see the feeder's rules).
void VelmoFeedSound(VelmoState* h);

// ---- the sound service (velmo_sound_thread.cpp) ----

// The registered back end's open, null when none is registered.
VelmoOpenBackEnd VelmoSoundBackEnd();
// Counts a handle's newly opened tracks in the process and starts its service by the first
// track's ServiceMode: the sound thread, the host's tick, or the frame walk (which it falls back
// to when no thread can be had). Sets h->SoundService.
void VelmoSoundServiceAdd(VelmoState* h, uint32_t tracks);
// Lowers the process's track count by the handle's tracks, and stops the sound thread after its
// last handle unless that handle was opened with 0x40.
void VelmoSoundServiceRemove(VelmoState* h, uint32_t tracks);

// The sound thread, for tests: whether it runs, and how often it was started.
bool VelmoSoundThreadRunning();
uint32_t VelmoSoundThreadStarts();

// Sound tracks of the output writer: each frame carries, per track, a packet of coded sound
// blocks that keeps the sound three quarters of a second ahead of the picture.
#pragma once
#include <cstdint>

#include "compress/velmo_writer.h"
#include "host/bfile.h"

// Fills the derived fields of a track whose TrackId, SampleRate, Bits, Channels, Source and
// ReadSamples are set: flags for `level` (0-199), lead-in, bytes per second, the whole sound's
// size for `frames` at rateNumerator/rateDenominator, the 4.5 to 1 starting ratio, and the
// encoder. Mode and SilenceBytes are the caller's and stay as they are. False for a level
// outside 0-199, a zero rate, a format the sound encoder refuses, or no memory.
bool VelmoWriterTrackStart(VelmoWriterTrack* track, int level, uint32_t frames,
                           uint32_t rateNumerator, uint32_t rateDenominator);

// Writes the track's packet of frame `frameNumber` (from 0) at the file's position: a size
// word, and when there is sound for this frame, the decoded-size word and the coded blocks.
// Raises MaxDecodedBytes. Sound is read from ReadSamples after SilenceBytes zero bytes (the
// count goes down as they are given); a source that ends early is followed by silence up to
// the track's length. A track without an encoder writes the empty packet. False when the file
// write failed.
bool VelmoWriterSoundPacket(VelmoWriterTrack* track, uint32_t frameNumber,
                            uint32_t rateNumerator, uint32_t rateDenominator,
                            BufferedFile* file);

// Frees the encoder.
void VelmoWriterTrackEnd(VelmoWriterTrack* track);

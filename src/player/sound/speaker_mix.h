// Speaker routing for the multichannel sound output: eight speaker bins (front left and right,
// centre, LFE, back left and right, side left and right) with a volume each, as a track's
// SetMix gives them, turned into a gain matrix from the track's channels to the channels of
// the device; and the player's choice of bins when several tracks play at once.
#pragma once
#include <cstdint>

constexpr uint32_t SpeakerBins = 8;
constexpr uint32_t MaxDeviceChannels = 8;

// Gains from each track channel (1 or 2) to each device channel, 16.16 (0x10000 = unity).
struct SpeakerMatrix {
  uint32_t DeviceChannels = 0;
  uint32_t TrackChannels = 0;
  int32_t Gain[MaxDeviceChannels][2] = {};
};

// The matrix for eight bin volumes (1.0 = unity). Speaker k of a stereo track is fed by the
// track's channel k % 2, of a mono track by its only channel. Bins that the device's layout
// (1 to 8 channels, in the usual order of such layouts) has no speaker for are folded into the
// nearest ones: centre into both fronts at -3 dB, back and side into each other or the fronts;
// LFE is dropped where there is none. Gains are limited to 2.0.
SpeakerMatrix SpeakerMatrixFor(const float bins[SpeakerBins], uint32_t trackChannels,
                               uint32_t deviceChannels);

// The plain layout: a mono track on both fronts, a stereo track left to left and right to
// right, each at `volume` (16.16).
SpeakerMatrix SpeakerMatrixPlain(uint32_t trackChannels, uint32_t deviceChannels, int32_t volume);

// Mixes `samples` frames of 16-bit track sound into device frames through the matrix, with
// saturation.
void SpeakerMix(const SpeakerMatrix& m, const int16_t* in, int16_t* out, uint32_t samples);

// The bins the player gives each track, in track order, with a running bin number: a stereo
// track takes a pair (starting at the next even bin), a mono track one bin; a mono track that
// is the last of the list and stands at bin 0, 4 or 6 takes the pair there, so that a lone
// track is heard on both speakers of a pair. `first[i]` and `count[i]` receive the speaker bins
// of track i; count 0 when no bin is left for it.
void SpeakerBinsForTracks(const uint32_t* trackChannels, uint32_t tracks, uint32_t* first,
                          uint32_t* count);

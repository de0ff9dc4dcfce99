// The macroblock decisions of the second-generation encoder: for one macroblock, the trials of
// each kind (skipped, motion, residual, intra) coded into real bit strings, the cost
// J = D * q + bits of each, and the winner with the stream state it leaves for its right and
// lower neighbours. Every trial reconstructs its pixels exactly as the decoder's walk does
// before its in-loop filters (same predictions, same transforms), so the neighbours of a
// macroblock predict from what the decoder will have.
#pragma once
#include <cstddef>
#include <cstdint>

#include "decode/velmo2_kernels.h"
#include "decode/velmo2_syntax.h"
#include "encode2/velmo2_encode_kernels.h"
#include "encode2/velmo2_vaq.h"
#include "velmo_frame.h"

constexpr uint32_t kVelmo2EncPlanes = VelmoPlaneCount;

// The longest bit string a macroblock may take; a trial over it is dropped.
constexpr uint32_t kVelmo2MaxMacroblockBits = 57344;
constexpr uint32_t kVelmo2MacroblockWords = kVelmo2MaxMacroblockBits / 32 + 64;

// A picture as the encoder holds it: planes in the decoder's geometry (luma, alpha and HDR in
// whole macroblocks, chroma half of that), null for a plane that is not there.
struct Velmo2EncPicture {
  uint8_t* Line0[kVelmo2EncPlanes];
  ptrdiff_t Pitch[kVelmo2EncPlanes];
};

// What a macroblock leaves for its neighbours, and its winning trial.
struct Velmo2MbState {
  uint32_t Kind;               // Velmo2Intra .. Velmo2Residual
  int32_t QIntra, QResidual;   // as the decoder holds them after this macroblock
  int32_t Vx[4], Vy[4];        // vectors as decoded, half pixels
  uint16_t Info[kVelmo2EncPlanes][16];  // block info words, block order
  Velmo2KindList Kinds;        // the kind list after this macroblock
  uint32_t Masks[kVelmo2EncPlanes];     // each plane's previous mask after this macroblock
  double Cost;                 // J of the winner
  double Distortion;           // its squared error over all planes
  uint32_t Bits;               // its length; the string is Velmo2MbBestWords of the work
};

// Everything one decision reads. Neighbour states are this pass's; null where the decoder has
// no such neighbour (left at a row start; above ones in a slice's first row).
struct Velmo2MbInput {
  const Velmo2EncPicture* Source;     // the frame being coded, padded to whole macroblocks
  const Velmo2EncPicture* Reference;  // the previous reconstruction (null in a key frame)
  Velmo2EncPicture* Recon;            // this pass's pictures before the in-loop filters
  uint32_t Width, Height;             // picture size in pixels
  uint32_t MbX, MbY;                  // macroblock column and row
  bool Key;
  bool Coded[kVelmo2EncPlanes];       // the planes the stream carries
  Velmo2FrameWord Word;               // the frame word the pass codes for
  double Quality;                     // the pass's quality, before the macroblock's VAQ
  Velmo2VaqLevel Vaq;
  // What the passes of one frame share about the macroblock (may be null: then each pass
  // works everything out afresh).
  struct Velmo2MbMemo* Memo;
  const Velmo2MbState* Left;
  const Velmo2MbState* Above;
  const Velmo2MbState* AboveLeft;
  const Velmo2Kernels* Kernels;
  const Velmo2EncodeKernels* Diff;
};

// Per-frame memory of a macroblock: zeroed when a frame starts; the first pass fills it.
struct Velmo2MbMemo {
  double VaqFactor;  // 0 until worked out
  bool Searched;     // the motion search has run in this frame
  bool Found;        // and found vectors (Vx, Vy)
  int32_t Vx[4], Vy[4];
};

// Per-worker scratch of the decisions; large, so kept by the caller and reused.
struct Velmo2MbWork;
Velmo2MbWork* Velmo2MbWorkCreate();
void Velmo2MbWorkDestroy(Velmo2MbWork* work);
// The bit string of the last decision's winner (its length is the state's Bits).
const uint32_t* Velmo2MbBestWords(const Velmo2MbWork* work);

// Decides the macroblock: runs the trials, keeps the winner in `out` and writes its pixels to
// the input's Recon picture. False when no trial gave a result (nothing fitted the limit).
bool Velmo2DecideMacroblock(const Velmo2MbInput& in, Velmo2MbWork* work, Velmo2MbState* out);

// The quantisers the decoder predicts for a macroblock from its neighbours.
void Velmo2PredictQuantisers(const Velmo2MbInput& in, int32_t* intra, int32_t* residual);

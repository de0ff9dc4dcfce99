// The second-generation frame encoder: one input frame and a byte budget in, one video
// section out. It searches the quality that meets the budget (one pass over all macroblocks
// per try, rows of macroblocks spread over the job pool in a wavefront), turns a frame into a
// key frame when nearly all of it comes out intra, packs the macroblocks' strings into slices,
// chooses the edge maps, and keeps as its reference for the next frame exactly what the
// decoder makes of the section.
#pragma once
#include <cstdint>
#include <vector>

struct Velmo2Encoder;

struct Velmo2EncoderSetup {
  uint32_t Width, Height;  // picture size in pixels
  // The compressor's option number: the slice count (2048, 4096, 6144, 8192 for 2, 3, 4, 8
  // slices), the two deblocking switches (16384, 32768) and the VAQ level (65536 .. 196608).
  uint32_t Options;
  bool Alpha;              // code an alpha plane
  bool Hdr;                // code an HDR plane
  uint32_t Features;       // processor feature word for the kernels
};

// One frame at picture size: Y, Cr, Cb ((width + 1) / 2 by (height + 1) / 2), alpha, HDR.
struct Velmo2EncoderFrame {
  const uint8_t* Planes[5];
  int32_t Pitches[5];
  bool Key;  // asked for by the rate plan
  // The run's cancel state, or null: 2 (stop now) ends the frame unwritten.
  const volatile uint32_t* Cancel;
  // Told each stage's label ("Compressing", "Expanding") before it runs; may be null.
  void (*Stage)(void* context, const char* label);
  void* StageContext;
};

// What came out of a frame.
enum Velmo2FrameOutcome : uint32_t {
  Velmo2Failed = 0,    // nothing coded (bad input, cancelled, or no pass fitted)
  Velmo2CodedInter = 1,
  Velmo2CodedKey = 5,  // a key frame, asked for or promoted
};

struct Velmo2EncodedFrame {
  std::vector<uint8_t> Section;
  bool Promoted;                // coded as a key frame though not asked
  uint64_t PictureErrors[3];    // squared error of Y, Cr, Cb of the decoded frame, picture only
  uint64_t PictureSamples[3];
  uint32_t Passes;              // passes the rate search ran
};

// Null for sizes out of range or when memory runs out.
Velmo2Encoder* Velmo2EncoderCreate(const Velmo2EncoderSetup& setup);
void Velmo2EncoderDestroy(Velmo2Encoder* encoder);

// Codes one frame within about `budgetBytes`.
Velmo2FrameOutcome Velmo2EncodeFrame(Velmo2Encoder* encoder, const Velmo2EncoderFrame& frame,
                                     uint32_t budgetBytes, Velmo2EncodedFrame* out);

// The file tag the encoder's sections are for: "VM2m" with an HDR plane, else "VM2j"; and the
// low two bits of the file flags (the slice mode).
const char* Velmo2EncoderTag(const Velmo2Encoder* encoder);
uint32_t Velmo2EncoderSliceMode(const Velmo2Encoder* encoder);

// Video encoders behind one record of functions, one record per generation. The compressor's
// frame loop picks the record by the version it writes and drives it frame by frame with a byte
// budget; the file writer only ever sees the coded frames.
#pragma once
#include <cstdint>

// What an encoder is created for.
struct VelmoEncoderOptions {
  uint32_t Width, Height;  // picture size in pixels
  uint32_t Version;        // the version written
  uint32_t Flags;          // the writer's flag word (grayscale, alpha, and the generation's bits)
};

// One input frame at picture size: Y, Cr, Cb (at half size, rounded up), alpha, and the HDR
// plane of a wide-range frame (second generation only).
struct VelmoEncodeInput {
  const uint8_t* Planes[5];  // indexed by VelmoPlaneY, Cr, Cb, Alpha, Hdr; unused planes null
  int32_t Pitches[5];
  bool Key;                  // code without reference to the previous frame
  // The run's cancel state, or null: reading 2 (stop now) before a stage ends the frame
  // unwritten, and the encode returns false with the encoder's reference as it was.
  const volatile uint32_t* Cancel;
  // Called with each stage's progress label ("Compressing Y plane", "Allocating bandwidth",
  // ...) before the stage runs; may be null.
  void (*Stage)(void* context, const char* label);
  void* StageContext;
};

// Key-frame results of an encoded frame, as the frame index takes them.
enum : uint32_t {
  VelmoCodedInter = 0,     // coded against the previous frame
  VelmoCodedKey = 1,       // a key frame, as asked
  VelmoCodedPromoted = 5,  // asked for an inter frame, coded as a key frame by the encoder
};

// One coded frame. The bytes stay valid until the encoder's next call.
struct VelmoCodedFrame {
  const uint8_t* Data;  // the frame's video section
  uint32_t Size;
  uint32_t KeyResult;   // VelmoCoded*
  uint64_t Error;       // squared error of the reconstruction against the input, all planes
  // Squared error of the reconstructed Y, Cr and Cb against the input over the picture, and
  // the samples counted: the encoder's own reconstruction, no extra decode.
  uint64_t PictureErrors[3];
  uint64_t PictureSamples[3];
};

// The aligned plane sizes an encoder takes its input in (pitch = width).
struct VelmoPlaneGeometry {
  uint32_t LumaWidth, LumaHeight, ChromaWidth, ChromaHeight;
};

struct VelmoVideoEncoder {
  const char* Name;
  VelmoPlaneGeometry (*Planes)(uint32_t width, uint32_t height);
  // Null for a size, version or flag word this encoder cannot take, or when memory runs out.
  void* (*Create)(const VelmoEncoderOptions* options);
  // Codes one frame within about `budgetBytes`. False (nothing coded) on bad input or when the
  // cancel state stopped the frame.
  bool (*EncodeFrame)(void* encoder, const VelmoEncodeInput* input, uint32_t budgetBytes,
                      VelmoCodedFrame* out);
  void (*Destroy)(void* encoder);
};

// The encoder of the generation a version belongs to, or null when this build has none.
const VelmoVideoEncoder* VelmoEncoderForVersion(uint32_t version);

extern const VelmoVideoEncoder Velmo1VideoEncoder;
extern const VelmoVideoEncoder Velmo2VideoEncoder;

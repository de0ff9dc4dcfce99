// The encoder records, and the first generation's record over its frame encoder.
#include "compress/video_encoder.h"

#include <new>

#include "compress/velmo1_encoder.h"
#include "encode2/velmo2_encoder.h"
#include "host/cpu_features.h"
#include "velmo_flags.h"

namespace {

struct Velmo1Job {
  VelmoEncoder* Encoder;
  VelmoEncodeResult Result;
};

VelmoPlaneGeometry Velmo1Planes(uint32_t width, uint32_t height) {
  return {Velmo1LumaSize(width), Velmo1LumaSize(height), Velmo1ChromaSize(width),
          Velmo1ChromaSize(height)};
}

void* Velmo1Create(const VelmoEncoderOptions* options) {
  const VelmoEncoderConfig config{options->Width, options->Height, options->Version,
                                  options->Flags & (VelmoEncodeGrayscale | VelmoEncodeAlpha)};
  VelmoEncoder* encoder = VelmoEncoderCreate(config);
  if (!encoder) return nullptr;
  Velmo1Job* job = new (std::nothrow) Velmo1Job{encoder, {}};
  if (!job) VelmoEncoderFree(encoder);
  return job;
}

bool Velmo1Encode(void* state, const VelmoEncodeInput* input, uint32_t budgetBytes,
                  VelmoCodedFrame* out) {
  Velmo1Job* job = static_cast<Velmo1Job*>(state);
  if (!VelmoEncodeFrame(job->Encoder, *input, budgetBytes, &job->Result)) return false;
  const VelmoEncodeResult& r = job->Result;
  out->Data = r.Section.data();
  out->Size = uint32_t(r.Section.size());
  out->KeyResult = input->Key ? VelmoCodedKey : VelmoCodedInter;
  out->Error = r.Errors[0] + r.Errors[1] + r.Errors[2] + r.Errors[3];
  for (int i = 0; i < 3; ++i) {
    out->PictureErrors[i] = r.PictureErrors[i];
    out->PictureSamples[i] = r.PictureSamples[i];
  }
  return true;
}

void Velmo1Destroy(void* state) {
  Velmo1Job* job = static_cast<Velmo1Job*>(state);
  VelmoEncoderFree(job->Encoder);
  delete job;
}

// ---- Second generation ------------------------------------------------------------------------

struct Velmo2Job {
  Velmo2Encoder* Encoder;
  Velmo2EncodedFrame Result;
};

// The second generation takes its planes at picture size and pads them itself.
VelmoPlaneGeometry Velmo2Planes(uint32_t width, uint32_t height) {
  return {width, height, (width + 1) / 2, (height + 1) / 2};
}

// The encoder's option number from the writer's flag word: the slice mode (low two bits), the
// deblocking switches (bits 14 and 15) and the VAQ level (bits 24 and 25).
uint32_t Velmo2Options(uint32_t flags) {
  return ((flags & 3) + 1) << 11 | (flags & 0xC000) | ((flags >> 24) & 3) << 16;
}

void* Velmo2Create(const VelmoEncoderOptions* options) {
  if (options->Version < 200) return nullptr;
  Velmo2EncoderSetup setup{};
  setup.Width = options->Width;
  setup.Height = options->Height;
  setup.Options = Velmo2Options(options->Flags);
  setup.Alpha = (options->Flags & VelmoFlagAlpha) != 0;
  setup.Hdr = (options->Flags & VelmoFlagHdr) != 0;
  setup.Features = ProcessorFeatures();
  Velmo2Encoder* encoder = Velmo2EncoderCreate(setup);
  if (!encoder) return nullptr;
  Velmo2Job* job = new (std::nothrow) Velmo2Job{encoder, {}};
  if (!job) Velmo2EncoderDestroy(encoder);
  return job;
}

bool Velmo2Encode(void* state, const VelmoEncodeInput* input, uint32_t budgetBytes,
                  VelmoCodedFrame* out) {
  Velmo2Job* job = static_cast<Velmo2Job*>(state);
  Velmo2EncoderFrame frame{};
  for (int p = 0; p < 5; ++p) {
    frame.Planes[p] = input->Planes[p];
    frame.Pitches[p] = input->Pitches[p];
  }
  frame.Key = input->Key;
  frame.Cancel = input->Cancel;
  frame.Stage = input->Stage;
  frame.StageContext = input->StageContext;
  const Velmo2FrameOutcome outcome =
      Velmo2EncodeFrame(job->Encoder, frame, budgetBytes, &job->Result);
  if (outcome == Velmo2Failed) return false;
  const Velmo2EncodedFrame& r = job->Result;
  out->Data = r.Section.data();
  out->Size = uint32_t(r.Section.size());
  out->KeyResult = outcome == Velmo2CodedInter ? VelmoCodedInter
                   : r.Promoted                ? VelmoCodedPromoted
                                               : VelmoCodedKey;
  out->Error = 0;
  for (int i = 0; i < 3; ++i) {
    out->PictureErrors[i] = r.PictureErrors[i];
    out->PictureSamples[i] = r.PictureSamples[i];
    out->Error += r.PictureErrors[i];
  }
  return true;
}

void Velmo2Destroy(void* state) {
  Velmo2Job* job = static_cast<Velmo2Job*>(state);
  Velmo2EncoderDestroy(job->Encoder);
  delete job;
}

}  // namespace

const VelmoVideoEncoder Velmo1VideoEncoder = {"Velmo 1", Velmo1Planes, Velmo1Create, Velmo1Encode,
                                              Velmo1Destroy};
const VelmoVideoEncoder Velmo2VideoEncoder = {"Velmo 2", Velmo2Planes, Velmo2Create, Velmo2Encode,
                                              Velmo2Destroy};

const VelmoVideoEncoder* VelmoEncoderForVersion(uint32_t version) {
  if (version >= 100 && version < 200) return &Velmo1VideoEncoder;
  if (version >= 200 && version < 300) return &Velmo2VideoEncoder;
  return nullptr;
}

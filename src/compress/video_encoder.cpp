// The encoder records, and the first generation's record over its frame encoder.
#include "compress/video_encoder.h"

#include <new>

#include "compress/velmo1_encoder.h"

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

}  // namespace

const VelmoVideoEncoder Velmo1VideoEncoder = {"Velmo 1", Velmo1Planes, Velmo1Create, Velmo1Encode,
                                              Velmo1Destroy};

const VelmoVideoEncoder* VelmoEncoderForVersion(uint32_t version) {
  if (version >= 100 && version < 200) return &Velmo1VideoEncoder;
  return nullptr;
}

// Building Velmo headers, extras and tables as bytes, and the patches a writer applies at each
// checkpoint so that the file on disk is a valid shorter file while it grows.
#include "format/container.h"

#include "format/container_bytes.h"

#include <cstring>

using velmo_bytes::Store16;
using velmo_bytes::Store32;

namespace {

void Append32(std::vector<uint8_t>* bytes, uint32_t value) {
  const size_t at = bytes->size();
  bytes->resize(at + 4);
  Store32(bytes->data() + at, value);
}

void Append16s(std::vector<uint8_t>* bytes, const int16_t* values, int count) {
  const size_t at = bytes->size();
  bytes->resize(at + 2 * size_t(count));
  for (int i = 0; i < count; ++i) Store16(bytes->data() + at + 2 * i, values[i]);
}

bool WritesExtras(uint32_t version) { return version >= 101; }

uint32_t TextWords(uint32_t textLength) { return (textLength + 3) / 4; }

bool ParamsAreValid(const VelmoWriteParams& p) {
  if (p.FrameRate == 0 || p.FrameRateDiv == 0) return false;
  if (p.IndexFrames > VelmoMaxIndexFrames || p.TrackCount > VelmoMaxTracks) return false;
  if (p.TrackCount > 0 && p.Tracks == nullptr) return false;
  if (!WritesExtras(p.Version)) return true;
  if (p.TextLength > VelmoMaxTextBytes || (p.TextLength > 0 && p.Text == nullptr)) return false;
  if ((p.Flags & VelmoFlagHdr) && p.HdrBlock == nullptr) return false;
  if (!(p.Flags & VelmoFlagHdr) && (p.Flags & VelmoFlagColourMatrix) && p.ColourMatrix == nullptr) {
    return false;
  }
  return true;
}

void AppendExtras(const VelmoWriteParams& p, std::vector<uint8_t>* bytes) {
  if (p.Flags & VelmoFlagHdr) {
    Append16s(bytes, p.HdrBlock, 6);
  } else if (p.Flags & VelmoFlagColourMatrix) {
    Append16s(bytes, p.ColourMatrix, 12);
  }
  Append32(bytes, VelmoWriterStamp);
  if (p.TextLength > 0) {
    const size_t at = bytes->size();
    bytes->resize(at + 4 * size_t(TextWords(p.TextLength)), 0);
    std::memcpy(bytes->data() + at, p.Text, p.TextLength);
  }
}

void AppendTables(uint32_t trackCount, const VelmoTrackInfo* tracks, uint32_t indexFrames,
                  const uint32_t* frameEntries, std::vector<uint8_t>* bytes) {
  for (uint32_t t = 0; t < trackCount; ++t) Append32(bytes, tracks[t].MaxBytes);
  for (uint32_t t = 0; t < trackCount; ++t) Append32(bytes, tracks[t].Format);
  for (uint32_t t = 0; t < trackCount; ++t) Append32(bytes, tracks[t].Id);
  for (uint32_t i = 0; i <= indexFrames; ++i) Append32(bytes, frameEntries ? frameEntries[i] : 0);
}

}  // namespace

uint32_t VelmoWriterMagic(uint32_t version, uint32_t flags) {
  if (version < 101) return VelmoMagicVLMi;
  if (version < 200) return VelmoMagicVLMk;
  if (flags & VelmoFlagHdr) return VelmoMagicVM2m;
  if (flags & VelmoFlagColourMatrix) return VelmoMagicVM2k;
  return VelmoMagicVM2j;
}

uint32_t VelmoWriterFlagWord(const VelmoWriteParams& p) {
  uint32_t word = p.Flags & VelmoWriterFlagMask;
  if (WritesExtras(p.Version)) {
    word |= TextWords(p.TextLength) << VelmoFlagTextWordsShift;
    word |= p.SliceMode & VelmoFlagSliceMode;
  }
  return word;
}

bool VelmoBuildHeaderImage(const VelmoWriteParams& p, VelmoHeaderImage* out) {
  if (out == nullptr || !ParamsAreValid(p)) return false;
  VelmoHeaderImage image;
  image.Magic = VelmoWriterMagic(p.Version, p.Flags);
  image.Flags = VelmoWriterFlagWord(p);
  image.TrackCount = p.TrackCount;
  image.IndexFrames = p.IndexFrames;

  VelmoHeader h;
  h.Magic = image.Magic;
  h.FileSizeLess8 = 0;
  h.Frames = 0;
  h.LargestFrameSize = 0;
  h.IndexFrames = p.IndexFrames;
  h.Width = p.Width;
  h.Height = p.Height;
  h.FrameRate = p.FrameRate;
  h.FrameRateDiv = p.FrameRateDiv;
  h.Flags = image.Flags;
  h.TrackCount = p.TrackCount;
  image.Bytes.resize(VelmoHeaderSize);
  VelmoStoreHeader(h, image.Bytes.data());

  image.ExtrasOffset = VelmoHeaderSize;
  if (WritesExtras(p.Version)) AppendExtras(p, &image.Bytes);
  image.ExtrasSize = uint32_t(image.Bytes.size()) - VelmoHeaderSize;

  image.TableOffset = uint32_t(image.Bytes.size());
  image.FrameTableOffset = image.TableOffset + 12 * p.TrackCount;
  AppendTables(p.TrackCount, p.Tracks, p.IndexFrames, nullptr, &image.Bytes);
  image.FirstFrameOffset = uint32_t(image.Bytes.size());
  *out = std::move(image);
  return true;
}

uint32_t VelmoMakeFrameEntry(uint64_t position, bool key) {
  return (uint32_t(position) & ~3u) | (key ? 1u : 0u);
}

void VelmoStoreSoundPacketHead(uint32_t dataBytes, uint32_t decodedBytes, uint8_t out[8]) {
  Store32(out, dataBytes + 4);
  Store32(out + 4, decodedBytes);
}

void VelmoEmptySoundPacket(uint8_t out[4]) { Store32(out, 0); }

bool VelmoCheckpointPatches(const VelmoHeaderImage& image, const VelmoCheckpoint& state,
                            std::vector<VelmoPatch>* out) {
  if (out == nullptr || state.FrameEntries == nullptr) return false;
  if (image.TrackCount > 0 && state.Tracks == nullptr) return false;
  if (state.Frames > image.IndexFrames) return false;
  out->clear();

  VelmoPatch counts{VelmoHeaderFileSizeAt, std::vector<uint8_t>(12)};
  const uint32_t sizeLess8 = state.FileSize >= 8 ? uint32_t(state.FileSize - 8) : 0;
  Store32(counts.Bytes.data(), sizeLess8);
  Store32(counts.Bytes.data() + 4, state.Frames);
  Store32(counts.Bytes.data() + 8, state.LargestFrameSize);
  out->push_back(std::move(counts));

  VelmoPatch flags{VelmoHeaderFlagsAt, std::vector<uint8_t>(4)};
  Store32(flags.Bytes.data(), state.Flags);
  out->push_back(std::move(flags));

  VelmoPatch tables{image.TableOffset, {}};
  tables.Bytes.reserve(size_t(VelmoTablesSize(image.TrackCount, image.IndexFrames)));
  AppendTables(image.TrackCount, state.Tracks, image.IndexFrames, state.FrameEntries,
               &tables.Bytes);
  out->push_back(std::move(tables));
  return true;
}

bool VelmoApplyPatches(std::vector<uint8_t>* file, const std::vector<VelmoPatch>& patches) {
  if (file == nullptr) return false;
  for (const VelmoPatch& patch : patches) {
    if (patch.Offset > file->size() || patch.Bytes.size() > file->size() - patch.Offset) {
      return false;
    }
  }
  for (const VelmoPatch& patch : patches) {
    if (patch.Bytes.empty()) continue;
    std::memcpy(file->data() + patch.Offset, patch.Bytes.data(), patch.Bytes.size());
  }
  return true;
}

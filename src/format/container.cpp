// Reading the Velmo container: magic probes, the header and its checks, the extras block, the
// tables with the frame table's 64-bit expansion, slices and the frame packet walk.
#include "format/container.h"

#include "format/container_bytes.h"

#include <cstring>

using velmo_bytes::Load16s;
using velmo_bytes::Load32;

const uint32_t VelmoAllMagics[12] = {
    VelmoMagicVLMf, VelmoMagicVLMg, VelmoMagicVLMh, VelmoMagicVLMi, VelmoMagicVLMk, VelmoMagicVM2f,
    VelmoMagicVM2g, VelmoMagicVM2h, VelmoMagicVM2i, VelmoMagicVM2j, VelmoMagicVM2k, VelmoMagicVM2m,
};

const char VelmoTextNotVelmo[] = "Not a Velmo file.";
const char VelmoTextNoFramesYet[] = "The file doesn't contain any compressed frames yet.";
const char VelmoTextCorruptHeader[] = "The file has a corrupt header.";
const char VelmoTextHeaderReadError[] = "Error reading Velmo header.";
const char VelmoTextBadFrameSize[] = "This file has bad frame size data.";
const char VelmoTextOldOrBeta[] =
    "This Velmo file uses an old or beta Velmo file format - please re-Velmo the original video "
    "file.";

// ---------------------------------------------------------------------------------------------
// Probes: each is a comparison with a fixed list.

namespace {

template <size_t N>
bool MagicInList(uint32_t magic, const uint32_t (&list)[N]) {
  for (uint32_t m : list) {
    if (m == magic) return true;
  }
  return false;
}

}  // namespace

bool MagicIsValid(uint32_t magic) { return MagicInList(magic, VelmoAllMagics); }

bool MagicIsSecondGeneration(uint32_t magic) {
  static const uint32_t list[] = {VelmoMagicVM2f, VelmoMagicVM2g, VelmoMagicVM2h, VelmoMagicVM2i,
                                  VelmoMagicVM2j, VelmoMagicVM2k, VelmoMagicVM2m};
  return MagicInList(magic, list);
}

bool MagicIsFirstGeneration(uint32_t magic) {
  static const uint32_t list[] = {VelmoMagicVLMf, VelmoMagicVLMg, VelmoMagicVLMh, VelmoMagicVLMi,
                                  VelmoMagicVLMk};
  return MagicInList(magic, list);
}

bool MagicIsFirst11(uint32_t magic) { return magic == VelmoMagicVLMk; }

bool MagicHasSwappedChroma(uint32_t magic) {
  return magic == VelmoMagicVLMf || magic == VelmoMagicVLMg;
}

bool MagicIsOldFirst(uint32_t magic) {
  return magic == VelmoMagicVLMf || magic == VelmoMagicVLMg || magic == VelmoMagicVLMh;
}

bool MagicHasExtras(uint32_t magic) {
  static const uint32_t list[] = {VelmoMagicVM2i, VelmoMagicVM2j, VelmoMagicVM2k, VelmoMagicVM2m};
  return MagicInList(magic, list) || MagicIsFirst11(magic);
}

bool MagicHasSliceMode(uint32_t magic) {
  static const uint32_t list[] = {VelmoMagicVM2h, VelmoMagicVM2i, VelmoMagicVM2j, VelmoMagicVM2k,
                                  VelmoMagicVM2m};
  return MagicInList(magic, list);
}

bool MagicIsOldOrBeta(uint32_t magic) {
  return (magic & 0xFFFFFF) == (VelmoMagicVLMf & 0xFFFFFF) && !MagicIsValid(magic);
}

const char* MagicName(uint32_t magic) {
  switch (magic) {
    case VelmoMagicVLMk: return "Velmo 1.1";
    case VelmoMagicVM2f: return "Velmo 2 (deprecated)";
    case VelmoMagicVM2g: return "Velmo 2.2";
    case VelmoMagicVM2h: return "Velmo 2.3";
    case VelmoMagicVM2i: return "Velmo 2.3d";
    case VelmoMagicVM2j: return "Velmo 2.5";
    case VelmoMagicVM2m: return "Velmo 2.7";
    default: return "Velmo 1";  // "VM2k" lands here on purpose
  }
}

// ---------------------------------------------------------------------------------------------
// Header.

bool VelmoParseHeader(const uint8_t* data, size_t size, VelmoHeader* out) {
  if (data == nullptr || size < VelmoHeaderSize) return false;
  VelmoHeader h;
  h.Magic = Load32(data + 0);
  h.FileSizeLess8 = Load32(data + 4);
  h.Frames = Load32(data + 8);
  h.LargestFrameSize = Load32(data + 12);
  h.IndexFrames = Load32(data + 16);
  h.Width = int32_t(Load32(data + 20));
  h.Height = int32_t(Load32(data + 24));
  h.FrameRate = Load32(data + 28);
  h.FrameRateDiv = Load32(data + 32);
  h.Flags = Load32(data + 36);
  h.TrackCount = Load32(data + 40);
  *out = h;
  return true;
}

void VelmoStoreHeader(const VelmoHeader& h, uint8_t* out) {
  const uint32_t words[11] = {h.Magic,       h.FileSizeLess8,     h.Frames,         h.LargestFrameSize,
                              h.IndexFrames, uint32_t(h.Width),   uint32_t(h.Height), h.FrameRate,
                              h.FrameRateDiv, h.Flags,            h.TrackCount};
  for (int i = 0; i < 11; ++i) velmo_bytes::Store32(out + 4 * i, words[i]);
}

uint32_t VelmoHeaderWidth(const VelmoHeader& header) {
  const uint32_t w = uint32_t(header.Width);
  return header.Width < 0 ? 0u - w : w;
}

uint32_t VelmoHeaderHeight(const VelmoHeader& header) {
  // A negative height gains 0x7F000000, so that a top byte of 0x81 falls away.
  const uint32_t h = uint32_t(header.Height);
  return header.Height < 0 ? h + 0x7F000000u : h;
}

uint32_t VelmoHeaderTrackCount(const VelmoHeader& header) {
  return header.TrackCount & ~0x40000000u;
}

uint32_t VelmoPaddedHeight(uint32_t height) { return (height + 31u) & ~31u; }

const char* VelmoCheckHeader(const VelmoHeader& h) {
  if (!MagicIsValid(h.Magic)) return VelmoTextNotVelmo;
  if (h.Frames == 0) return VelmoTextNoFramesYet;
  if (h.IndexFrames < h.Frames || h.IndexFrames > VelmoMaxIndexFrames ||
      VelmoHeaderTrackCount(h) > VelmoMaxTracks || VelmoHeaderWidth(h) > VelmoMaxDimension ||
      VelmoHeaderHeight(h) > VelmoMaxDimension || h.FrameRate == 0 || h.FrameRateDiv == 0) {
    return VelmoTextCorruptHeader;
  }
  // A rate outside what any file can mean (a frame an hour up to 10000 frames a second) would
  // make frame times and everything sized by them absurd.
  if (uint64_t(h.FrameRate) * VelmoMaxFrameSeconds < h.FrameRateDiv ||
      h.FrameRate / h.FrameRateDiv > VelmoMaxFramesPerSecond)
    return VelmoTextCorruptHeader;
  return nullptr;
}

const char* VelmoCheckFrameExtent(const VelmoHeader& h, uint64_t largestStep,
                                  uint64_t framesEnd, uint64_t wrap) {
  if (h.LargestFrameSize > largestStep) return VelmoTextCorruptHeader;
  if (framesEnd > uint64_t(h.FileSizeLess8) + 8 + wrap) return VelmoTextBadFrameSize;
  return nullptr;
}

const char* VelmoReadHeader(const uint8_t* data, size_t size, VelmoHeader* out) {
  VelmoHeader h;
  if (!VelmoParseHeader(data, size, &h)) return VelmoTextNotVelmo;
  *out = h;
  return VelmoCheckHeader(h);
}

// ---------------------------------------------------------------------------------------------
// Extras.

uint32_t VelmoExtrasSize(uint32_t magic, uint32_t flags) {
  if (!MagicHasExtras(magic)) return 0;
  uint32_t size = ((flags >> 22) & ~3u) + VelmoStampSize;
  if (flags & VelmoFlagHdr) {
    size += VelmoHdrBlockSize;
  } else if (flags & VelmoFlagColourMatrix) {
    size += VelmoColourMatrixSize;
  }
  return size;
}

namespace {

void ReadHdrBlock(const uint8_t* p, VelmoExtras* out) {
  out->HasHdr = 1;
  for (int i = 0; i < 6; ++i) out->HdrValues[i] = Load16s(p + 2 * i);
  for (int i = 0; i < 5; ++i) out->HdrCoefficients[i] = float(out->HdrValues[i]) * 3.051851e-5f;
  int32_t nits = out->HdrValues[5];
  if (nits < int32_t(VelmoMinNits)) nits = VelmoMinNits;
  if (nits > int32_t(VelmoMaxNits)) nits = VelmoMaxNits;
  out->MaxNits = uint32_t(nits);
}

void ReadColourMatrix(const uint8_t* p, VelmoExtras* out) {
  out->HasMatrix = 1;
  for (int i = 0; i < 12; ++i) out->MatrixValues[i] = Load16s(p + 2 * i);
  for (int row = 0; row < 4; ++row) {
    for (int col = 0; col < 3; ++col) {
      out->Matrix[row * 4 + col] = float(out->MatrixValues[row * 3 + col]) * 0.00024414063f;
    }
    out->Matrix[row * 4 + 3] = 0.0f;
  }
}

}  // namespace

const char* VelmoParseExtras(const uint8_t* data, size_t size, uint32_t magic, uint32_t flags,
                             VelmoExtras* out) {
  VelmoExtras e;
  std::memset(&e, 0, sizeof e);
  const uint32_t need = VelmoExtrasSize(magic, flags);
  if (need == 0) {
    *out = e;
    return nullptr;
  }
  if (data == nullptr || size < need) return VelmoTextHeaderReadError;
  e.Size = need;
  uint32_t pos = 0;
  if (flags & VelmoFlagHdr) {
    ReadHdrBlock(data, &e);
    pos += VelmoHdrBlockSize;
  } else if (flags & VelmoFlagColourMatrix) {
    ReadColourMatrix(data, &e);
    pos += VelmoColourMatrixSize;
  }
  e.CompressorStamp = Load32(data + pos);
  pos += VelmoStampSize;
  e.TextOffset = pos;
  e.TextSize = need - pos;
  *out = e;
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Tables.

uint64_t VelmoTablesSize(uint32_t trackCount, uint32_t indexFrames) {
  return (uint64_t(indexFrames) + 3 * uint64_t(trackCount)) * 4 + 4;
}

const char* VelmoOpenTables(const uint8_t* data, size_t size, uint32_t trackCount,
                            uint32_t indexFrames, VelmoTables* out) {
  if (data == nullptr || uint64_t(size) < VelmoTablesSize(trackCount, indexFrames)) {
    return VelmoTextHeaderReadError;
  }
  *out = VelmoTables{data, trackCount, indexFrames};
  return nullptr;
}

VelmoTrackInfo VelmoTableTrack(const VelmoTables& t, uint32_t track) {
  if (track >= t.TrackCount) return VelmoTrackInfo{0, 0, 0};
  const uint8_t* p = t.Data + 4 * size_t(track);
  const size_t stride = 4 * size_t(t.TrackCount);
  return VelmoTrackInfo{Load32(p), Load32(p + stride), Load32(p + 2 * stride)};
}

uint32_t VelmoTableFrameEntry(const VelmoTables& t, uint32_t i) {
  if (i > t.IndexFrames) return 0;
  return Load32(t.Data + 12 * size_t(t.TrackCount) + 4 * size_t(i));
}

const char* VelmoExpandFrameTable(const VelmoTables& tables, uint32_t frames, uint64_t* out,
                                  uint64_t* wrapBytes) {
  if (frames > tables.IndexFrames) return VelmoTextCorruptHeader;
  uint64_t wrap = 0;
  uint32_t first = VelmoTableFrameEntry(tables, 0);
  uint64_t previous = VelmoEntryOffset(first);
  if (out) out[0] = previous | (first & 1);
  for (uint32_t i = 1; i <= frames; ++i) {
    const uint32_t entry = VelmoTableFrameEntry(tables, i);
    const uint64_t offset = VelmoEntryOffset(entry);
    int64_t step = int64_t(offset) - int64_t(previous);
    if (step < 1) {
      // The 32-bit entries wrapped: this one and all behind it lie 4 GiB further on.
      wrap += uint64_t(1) << 32;
      step += int64_t(1) << 32;
    }
    if (step > int64_t(VelmoMaxFrameStep)) return VelmoTextBadFrameSize;
    if (out) out[i] = (offset + wrap) | (entry & 1);
    previous = offset;
  }
  if (wrapBytes) *wrapBytes = wrap;
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Whole start of a file.

const char* VelmoParseFile(const uint8_t* data, size_t size, VelmoFileInfo* out) {
  VelmoFileInfo info;
  std::memset(&info, 0, sizeof info);
  if (const char* err = VelmoReadHeader(data, size, &info.Header)) return err;
  const VelmoHeader& h = info.Header;
  info.Width = VelmoHeaderWidth(h);
  info.Height = VelmoHeaderHeight(h);
  info.TrackCount = VelmoHeaderTrackCount(h);

  const uint8_t* extras = data + VelmoHeaderSize;
  const size_t afterHeader = size - VelmoHeaderSize;
  if (const char* err = VelmoParseExtras(extras, afterHeader, h.Magic, h.Flags, &info.Extras)) {
    return err;
  }
  info.TablesOffset = VelmoHeaderSize + info.Extras.Size;
  const size_t afterExtras = afterHeader - info.Extras.Size;
  if (const char* err = VelmoOpenTables(extras + info.Extras.Size, afterExtras, info.TrackCount,
                                        h.IndexFrames, &info.Tables)) {
    return err;
  }
  info.FirstFrameOffset = info.TablesOffset + VelmoTablesSize(info.TrackCount, h.IndexFrames);

  uint64_t wrap = 0;
  if (const char* err = VelmoExpandFrameTable(info.Tables, h.Frames, nullptr, &wrap)) return err;
  info.FileSize = uint64_t(h.FileSizeLess8) + wrap;
  VelmoFileColourTable(h.Magic, h.Flags, info.Extras, info.ColourTable);
  *out = info;
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Slices.

VelmoSliceLayout VelmoSlicesFor(uint32_t magic, uint32_t flags, uint32_t height) {
  if (MagicIsFirstGeneration(magic)) return VelmoSliceLayout{2, 0};
  if (!MagicIsSecondGeneration(magic)) return VelmoSliceLayout{0, 0};
  const uint32_t padded = VelmoPaddedHeight(height);
  if (magic == VelmoMagicVM2f) return VelmoSliceLayout{2, ((height + 32u) >> 1) & ~31u};
  if (padded < 128) return VelmoSliceLayout{1, 0};
  if (magic == VelmoMagicVM2g) return VelmoSliceLayout{2, (padded / 2) & ~31u};
  static const uint32_t countByMode[4] = {2, 3, 4, 8};
  const uint32_t count = countByMode[flags & VelmoFlagSliceMode];
  return VelmoSliceLayout{count, ((count * 32 + padded - 1) / count) & ~31u};
}

// ---------------------------------------------------------------------------------------------
// Frame packet.

VelmoPacketLayout VelmoWalkFramePacket(const uint8_t* packet, size_t size, uint32_t trackCount,
                                       VelmoSoundPacket* sounds) {
  VelmoPacketLayout layout{0, 0, 0, 0};
  if (packet == nullptr) size = 0;
  const uint64_t limit = size > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint64_t(size);
  uint64_t pos = 0;
  for (uint32_t t = 0; t < trackCount; ++t) {
    if (limit - pos < 4) return layout;
    const uint32_t packetSize = Load32(packet + pos);
    VelmoSoundPacket sound{uint32_t(pos), packetSize, 0, uint32_t(pos + 4), 0};
    if (packetSize != 0) {
      // The size counts the DecodedBytes word and the sound blocks behind it.
      if (packetSize < 4 || packetSize > limit - pos - 4) return layout;
      sound.DecodedBytes = Load32(packet + pos + 4) & ~15u;
      sound.DataOffset = uint32_t(pos + 8);
      sound.DataSize = packetSize - 4;
    }
    if (sounds) sounds[t] = sound;
    pos += 4 + uint64_t(packetSize);
    layout.TracksFound = t + 1;
  }
  layout.HasVideo = 1;
  layout.VideoOffset = uint32_t(pos);
  layout.VideoSize = uint32_t(limit - pos);
  return layout;
}

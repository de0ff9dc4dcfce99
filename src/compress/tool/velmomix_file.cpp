// VelmoMixFile: the frame-by-frame copy of a Velmo file with its sound tracks copied, dropped,
// replaced or added. The input is read through its frame index; every size the index gives is
// checked against the file before anything is read or allocated.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "compress/velmo_sound_track.h"
#include "compress/tool/velmomix.h"
#include "host/bfile.h"
#include "host/outfile.h"
#include "format/container.h"

namespace {

constexpr int32_t MixFileBuffer = 0x40000;

const char TextCantOpen[] = "Couldn't open input Velmo file.";
const char TextNotVelmo[] = "Input file isn't a Velmo file.";
const char TextCantCreate[] =
    "Couldn't create temporary file.\n\nSome possible reasons for this error include:\n"
    "  1) mixing to a read-only drive (like a CD-ROM),\n"
    "  2) mixing to a drive that is full (out of disk space), or\n"
    "  3) mixing multiple files to the same Velmo output filename.";
const char TextWriteFailed[] = "Error writing to disk - probably out of disk space.";

struct Mix {
  VelmoMixProgress* Progress = nullptr;
  BufferedFile* In = nullptr;
  OutFile Output{};                       // the output under its temporary name
  BufferedFile* Out = nullptr;            // Output.File
  std::vector<VelmoWriterTrack> Records;  // input tracks in file order, then the new ones
  std::vector<VelmoTrackInfo> InputTracks;
  std::vector<uint32_t> Index;            // IndexFrames + 1 entries
  std::vector<uint8_t> Extras;
  std::vector<uint8_t> Frame;
  std::vector<bool> Started;              // the record's encoder was started

  ~Mix() {
    for (size_t i = 0; i < Records.size(); ++i)
      if (i < Started.size() && Started[i]) VelmoWriterTrackEnd(&Records[i]);
    if (In) FileClose(In);
    OutFileDiscard(&Output);
  }

  void Tell(const char* text) const {
    if (Progress && Progress->Report) Progress->Report(VelmoProgressError, text, Progress->User);
  }
  // Ends a failed run: the temporary file goes, and what went wrong is kept for the tool.
  uint64_t Fail(const char* text, uint32_t failure = VelmoMixFailedInput) {
    if (text) Tell(text);
    if (Progress) Progress->Failure = failure;
    OutFileDiscard(&Output);
    Out = nullptr;
    return 0;
  }
};

void WriteTables(BufferedFile* out, const std::vector<VelmoWriterTrack>& records) {
  for (const VelmoWriterTrack& r : records)
    if (r.Mode != VelmoTrackDropped) FileWriteLong(out, r.MaxDecodedBytes);
  for (const VelmoWriterTrack& r : records)
    if (r.Mode != VelmoTrackDropped) FileWriteLong(out, r.TrackFlags);
  for (const VelmoWriterTrack& r : records)
    if (r.Mode != VelmoTrackDropped) FileWriteLong(out, r.TrackId);
}

}  // namespace

uint32_t VelmoMixSilenceBytes(int32_t start, uint32_t bytesPerSecond, uint32_t rateNumerator,
                              uint32_t rateDenominator) {
  uint64_t bytes = 0;
  if (start < 0)
    bytes = uint64_t(bytesPerSecond) * uint64_t(-int64_t(start)) / 1000;
  else if (start > 0 && rateNumerator)
    bytes = uint64_t(bytesPerSecond) * uint64_t(start - 1) * rateDenominator / rateNumerator;
  return uint32_t(std::min<uint64_t>(bytes, 0xffffffffu)) & ~3u;
}

uint64_t VelmoMixFile(const char* inputPath, const char* outputPath, uint64_t inputOffset,
                      uint32_t rateNumerator, uint32_t rateDenominator, int32_t start,
                      uint32_t trackCount, const VelmoMixTrack* tracks,
                      VelmoMixProgress* progress) {
  if (!trackCount || !tracks || !inputPath || !outputPath) return 0;
  Mix m;
  m.Progress = progress;
  if (progress) {
    progress->Cancelled = 0;
    progress->Failure = 0;
  }

  // The input's header, at its offset.
  m.In = FileOpenRead(MixFileBuffer, inputPath, FileModeReadOnly);
  if (!m.In) return m.Fail(TextCantOpen);
  const uint64_t inputSize = FileSizeOf(m.In);
  FileSeek(m.In, inputOffset);
  uint8_t headerBytes[VelmoHeaderSize];
  VelmoHeader header{};
  if (FileRead(m.In, headerBytes, sizeof headerBytes) != sizeof headerBytes ||
      !VelmoParseHeader(headerBytes, sizeof headerBytes, &header) || !MagicIsValid(header.Magic))
    return m.Fail(TextNotVelmo);
  const uint32_t inputTracks = VelmoHeaderTrackCount(header);
  // The header's counts, sizes and rate are held to what a file can mean before anything is
  // sized or timed by them.
  if (const char* wrong = VelmoCheckHeader(header)) return m.Fail(wrong);
  if (rateNumerator && rateDenominator) {
    header.FrameRate = rateNumerator;
    header.FrameRateDiv = rateDenominator;
  }
  if (!header.FrameRate || !header.FrameRateDiv) return m.Fail(VelmoTextCorruptHeader);
  if (progress) {
    progress->Width = VelmoHeaderWidth(header);
    progress->Height = VelmoHeaderHeight(header);
    progress->TotalFrames = header.Frames;
    progress->FramesDone = 0;
  }

  // The extras block goes across unchanged; its size follows the header's flags as the reader
  // reads them.
  m.Extras.resize(VelmoExtrasSize(header.Magic, header.Flags));
  if (!m.Extras.empty() && FileRead(m.In, m.Extras.data(), m.Extras.size()) != m.Extras.size())
    return m.Fail(VelmoTextHeaderReadError);
  VelmoExtras extras{};
  if (VelmoParseExtras(m.Extras.data(), m.Extras.size(), header.Magic, header.Flags, &extras))
    return m.Fail(VelmoTextHeaderReadError);

  // The track tables and the frame index, in one read.
  std::vector<uint8_t> tableBytes(VelmoTablesSize(inputTracks, header.IndexFrames));
  VelmoTables tables{};
  if (FileRead(m.In, tableBytes.data(), tableBytes.size()) != tableBytes.size() ||
      VelmoOpenTables(tableBytes.data(), tableBytes.size(), inputTracks, header.IndexFrames,
                      &tables))
    return m.Fail(VelmoTextHeaderReadError);
  m.InputTracks.resize(inputTracks);
  for (uint32_t t = 0; t < inputTracks; ++t) m.InputTracks[t] = VelmoTableTrack(tables, t);
  m.Index.resize(size_t(header.IndexFrames) + 1);
  for (uint32_t i = 0; i <= header.IndexFrames; ++i) m.Index[i] = VelmoTableFrameEntry(tables, i);
  // The index and the header agree as the reader demands, and the file holds all the header
  // states: a file cut short or still being written is not mixed.
  uint64_t largestStep = 0;
  for (uint32_t f = 0; f < header.Frames; ++f)
    largestStep = std::max<uint64_t>(largestStep, VelmoEntryOffset(m.Index[f + 1]) -
                                                      std::min(VelmoEntryOffset(m.Index[f + 1]),
                                                               VelmoEntryOffset(m.Index[f])));
  if (const char* wrong =
          VelmoCheckFrameExtent(header, largestStep, VelmoEntryOffset(m.Index[header.Frames]), 0))
    return m.Fail(wrong);
  if (uint64_t(header.FileSizeLess8) + 8 > inputSize - std::min(inputSize, inputOffset))
    return m.Fail(VelmoTextBadFrameSize);

  // The record list: the input's tracks in their order, matched against the caller's list by
  // id, then the caller's tracks that matched none.
  std::vector<bool> used(trackCount, false);
  m.Records.reserve(inputTracks + trackCount);
  m.Started.assign(inputTracks + trackCount, false);
  auto encodeRecord = [&](const VelmoMixTrack& c) {
    VelmoWriterTrack r{};
    r.TrackId = c.TrackId;
    r.SampleRate = c.SampleRate;
    r.Bits = c.Bits;
    r.Channels = c.Channels;
    r.Source = c.Source;
    r.ReadSamples = c.ReadSamples;
    r.Mode = VelmoTrackEncode;
    m.Records.push_back(r);
    return c.Level;
  };
  std::vector<int32_t> levels;
  for (uint32_t t = 0; t < inputTracks; ++t) {
    const VelmoTrackInfo& in = m.InputTracks[t];
    uint32_t match = trackCount;
    for (uint32_t c = 0; c < trackCount && match == trackCount; ++c)
      if (!used[c] && tracks[c].TrackId == in.Id) match = c;
    if (match == trackCount || !tracks[match].SampleRate) {
      VelmoWriterTrack r{};
      r.TrackId = in.Id;
      r.MaxDecodedBytes = in.MaxBytes;
      r.TrackFlags = in.Format;
      r.Mode = match == trackCount ? VelmoTrackCopy : VelmoTrackDropped;
      if (match != trackCount) used[match] = true;
      m.Records.push_back(r);
      levels.push_back(0);
      continue;
    }
    used[match] = true;
    levels.push_back(encodeRecord(tracks[match]));
  }
  for (uint32_t c = 0; c < trackCount; ++c)
    if (!used[c] && tracks[c].SampleRate) levels.push_back(encodeRecord(tracks[c]));

  uint32_t outputTracks = 0;
  for (size_t i = 0; i < m.Records.size(); ++i) {
    VelmoWriterTrack& r = m.Records[i];
    if (r.Mode == VelmoTrackDropped) continue;
    ++outputTracks;
    if (r.Mode != VelmoTrackEncode) continue;
    if (!VelmoWriterTrackStart(&r, levels[i], header.Frames, header.FrameRate,
                               header.FrameRateDiv)) {
      char text[160];
      std::snprintf(text, sizeof text,
                    "The sound encoder can't take this sound (%u hz, %u channels, level %d).",
                    r.SampleRate, r.Channels, levels[i]);
      return m.Fail(text);
    }
    m.Started[i] = true;
    // The writer yields the silent lead-in before it reads the source.
    r.Mode = VelmoTrackEncode;
    r.SilenceBytes =
        VelmoMixSilenceBytes(start, r.BytesPerSecond, header.FrameRate, header.FrameRateDiv);
  }

  // The output, with a header that no reader takes for a good file until the end.
  const OutFileResult created = OutFileCreate(&m.Output, outputPath, MixFileBuffer);
  m.Out = m.Output.File;
  if (created == OutFileTooLong) {
    char text[400];
    PathTooLongText(text, sizeof text, "output", outputPath);
    return m.Fail(text, VelmoMixFailedOutput);
  }
  if (created != OutFileDone) return m.Fail(TextCantCreate, VelmoMixFailedOutput);
  VelmoHeader placeholder = header;
  placeholder.Magic = 0;
  placeholder.FileSizeLess8 = 0;
  placeholder.LargestFrameSize = 0;
  placeholder.TrackCount = outputTracks;
  uint8_t bytes[VelmoHeaderSize];
  VelmoStoreHeader(placeholder, bytes);
  FileWrite(m.Out, bytes, sizeof bytes);
  if (!m.Extras.empty()) FileWrite(m.Out, m.Extras.data(), m.Extras.size());
  WriteTables(m.Out, m.Records);
  const uint64_t indexAt = FileTell(m.Out);
  for (size_t i = 0; i < m.Index.size(); ++i) FileWriteLong(m.Out, 0);

  // The frames. Positions are 64-bit: each frame's size is the difference of two neighbouring
  // entries in 32 bits, so files past 4 GiB read on.
  std::vector<uint32_t> outIndex(m.Index.size(), 0);
  std::vector<VelmoSoundPacket> sounds(inputTracks);
  uint64_t position = VelmoEntryOffset(m.Index[0]);
  uint32_t largest = 0;
  bool cancelled = false;
  for (uint32_t f = 0; f < header.Frames && !cancelled; ++f) {
    if (progress && progress->Report &&
        progress->Report(VelmoProgressLabel, "Mixing", progress->User))
      cancelled = true;
    const uint32_t size = uint32_t(VelmoEntryOffset(m.Index[f + 1]) - VelmoEntryOffset(m.Index[f]));
    const uint64_t at = inputOffset + position;
    if (size == 0 || size > VelmoMaxFrameStep || at > inputSize || inputSize - at < size)
      return m.Fail(VelmoTextBadFrameSize);
    m.Frame.resize(size);
    FileSeek(m.In, at);
    if (FileRead(m.In, m.Frame.data(), size) != size) return m.Fail(VelmoTextBadFrameSize);
    const VelmoPacketLayout layout =
        VelmoWalkFramePacket(m.Frame.data(), size, inputTracks, sounds.data());
    if (!layout.HasVideo) return m.Fail(VelmoTextBadFrameSize);

    const uint64_t frameStart = FileTell(m.Out);
    outIndex[f] = VelmoMakeFrameEntry(frameStart, VelmoEntryIsKey(m.Index[f]));
    for (size_t i = 0; i < m.Records.size(); ++i) {
      VelmoWriterTrack& r = m.Records[i];
      if (r.Mode == VelmoTrackCopy) {
        const VelmoSoundPacket& s = sounds[i];
        FileWrite(m.Out, m.Frame.data() + s.Offset, size_t(s.PacketSize) + 4);
      } else if (r.Mode == VelmoTrackEncode) {
        if (!VelmoWriterSoundPacket(&r, f, header.FrameRate, header.FrameRateDiv, m.Out))
          return m.Fail(TextWriteFailed, VelmoMixFailedWrite);
      }
    }
    FileWrite(m.Out, m.Frame.data() + layout.VideoOffset, layout.VideoSize);
    // New sound packets need not keep the frame's length a multiple of 4; the next frame
    // starts aligned all the same.
    while (FileTell(m.Out) & 3) FileWriteByte(m.Out, 0);
    const uint64_t frameEnd = FileTell(m.Out);
    largest = uint32_t(std::max<uint64_t>(largest, frameEnd - frameStart));
    outIndex[f + 1] = VelmoMakeFrameEntry(frameEnd, VelmoEntryIsKey(m.Index[f + 1]));
    position += size;
    if (m.Out->WriteError) return m.Fail(TextWriteFailed, VelmoMixFailedWrite);
    if (progress) {
      progress->FramesDone = f + 1;
      progress->FileSize = frameEnd;
    }
  }
  FileClose(m.In);
  m.In = nullptr;

  // The finished header, extras, tables and index.
  const uint64_t total = FileTell(m.Out);
  VelmoHeader finished = header;
  finished.FileSizeLess8 = uint32_t(total - 8);
  finished.LargestFrameSize = largest;
  finished.TrackCount = outputTracks;
  VelmoStoreHeader(finished, bytes);
  FileSeek(m.Out, 0);
  FileWrite(m.Out, bytes, sizeof bytes);
  if (!m.Extras.empty()) FileWrite(m.Out, m.Extras.data(), m.Extras.size());
  WriteTables(m.Out, m.Records);
  FileSeek(m.Out, indexAt);
  for (uint32_t e : outIndex) FileWriteLong(m.Out, e);
  FileSeek(m.Out, total);
  for (size_t i = 0; i < m.Records.size(); ++i)
    if (m.Started[i]) VelmoWriterTrackEnd(&m.Records[i]);
  m.Started.assign(m.Started.size(), false);

  if (cancelled) {
    if (progress) progress->Cancelled = 1;
    OutFileDiscard(&m.Output);
    m.Out = nullptr;
    return 0;
  }
  const OutFileResult committed = OutFileCommit(&m.Output);
  m.Out = nullptr;
  if (committed == OutFileWriteFailed) return m.Fail(TextWriteFailed, VelmoMixFailedWrite);
  if (committed == OutFileLost) {
    m.Tell("Velmo couldn't rename the temporary file.");
    if (progress) progress->Failure = VelmoMixFailedOutput;
    return 0;
  }
  if (committed != OutFileDone) {
    // The finished file is kept under its temporary name rather than lost.
    char text[2 * PathMax + 100];
    std::snprintf(text, sizeof text,
                  "Velmo couldn't overwrite, '%s', so the new Velmo file is called: '%s'.",
                  m.Output.Target, m.Output.Temporary);
    m.Tell(text);
    m.Output.Temporary[0] = 0;
    if (progress) progress->Failure = VelmoMixFailedOutput;
    return 0;
  }
  return total;
}

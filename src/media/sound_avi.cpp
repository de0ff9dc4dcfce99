// AVI files: the PCM samples of the first sound stream. The AVI stream reader finds the
// stream's format and its chunks in movi order (from the OpenDML index, idx1, or a walk over
// the movi lists); this reader copies that chunk table, closes the stream reader and reads the
// chunks one behind the other as one run of bytes, so that a sample may straddle two chunks.
// Compressed sound is not read: the open fails and the next trial gets the name.
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "media/readers/stream_readers.h"
#include "media/sound_source.h"

namespace {

struct AviSound {
  FILE* file;
  uint32_t bytes_per_sample;
  uint32_t chunk_count;
  uint64_t* offsets;  // file position of each chunk's data
  uint64_t* ends;     // position in the sound's bytes behind each chunk (running sum of sizes)
  uint64_t total;     // bytes of whole samples over all chunks
  uint64_t at;        // position in the sound's bytes of the next read
  uint32_t chunk;     // the chunk that holds `at`
  uint64_t file_at;   // where the file stands; UINT64_MAX when not known
};

uint64_t FileSize(FILE* file) {
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || info.st_size < 0) return 0;
  return static_cast<uint64_t>(info.st_size);
}

uint64_t ChunkStart(const AviSound* avi, uint32_t chunk) {
  return chunk ? avi->ends[chunk - 1] : 0;
}

uint32_t AviRead(void* state, uint8_t* dest, uint32_t bytes) {
  AviSound* avi = static_cast<AviSound*>(state);
  bytes -= bytes % avi->bytes_per_sample;
  uint32_t done = 0;
  while (done < bytes && avi->at < avi->total) {
    while (avi->chunk < avi->chunk_count && avi->ends[avi->chunk] <= avi->at) ++avi->chunk;
    if (avi->chunk >= avi->chunk_count) break;
    const uint64_t inside = avi->at - ChunkStart(avi, avi->chunk);
    const uint64_t there = avi->offsets[avi->chunk] + inside;
    const uint64_t left = std::min(avi->ends[avi->chunk], avi->total) - avi->at;
    const uint32_t take = static_cast<uint32_t>(std::min<uint64_t>(left, bytes - done));
    if (avi->file_at != there && fseeko(avi->file, static_cast<off_t>(there), SEEK_SET) != 0) break;
    const size_t got = fread(dest + done, 1, take, avi->file);
    avi->file_at = there + got;
    avi->at += got;
    done += static_cast<uint32_t>(got);
    if (got < take) {
      // The file shrank under us: what was read is all there is.
      avi->total = avi->at;
      break;
    }
  }
  const uint32_t whole = done - done % avi->bytes_per_sample;
  if (whole != done) {
    avi->at -= done - whole;  // a broken sample is read again next time
    avi->file_at = UINT64_MAX;
  }
  return whole;
}

bool AviSeek(void* state, uint64_t sample) {
  AviSound* avi = static_cast<AviSound*>(state);
  if (sample > avi->total / avi->bytes_per_sample) return false;
  avi->at = sample * avi->bytes_per_sample;
  // The first chunk that ends behind the position.
  avi->chunk = static_cast<uint32_t>(
      std::upper_bound(avi->ends, avi->ends + avi->chunk_count, avi->at) - avi->ends);
  return true;
}

void AviClose(void* state) {
  AviSound* avi = static_cast<AviSound*>(state);
  if (avi->file) fclose(avi->file);
  free(avi->offsets);
  free(avi->ends);
  free(avi);
}

const SoundSourceOps AviOps = {AviRead, AviSeek, AviClose, false};

// The stream's WAVEFORMATEX rebuilt from the reader's fields, through the wave format parser.
bool TrackFormat(const StreamAudioTrack& track, SoundFormat* format) {
  uint8_t fmt[18 + 64] = {};
  const uint32_t extra = std::min<uint32_t>(track.extra_size, 64);
  const uint32_t fields[][2] = {{track.format_tag, 2},        {track.channels, 2},
                                {track.samples_per_second, 4}, {track.bytes_per_second, 4},
                                {track.block_align, 2},        {track.bits_per_sample, 2},
                                {extra, 2}};
  uint32_t at = 0;
  for (const auto& field : fields)
    for (uint32_t i = 0; i < field[1]; ++i) fmt[at++] = static_cast<uint8_t>(field[0] >> (8 * i));
  if (extra && track.extra) memcpy(fmt + 18, track.extra, extra);
  SoundWaveHeader header = {};
  return SoundParseWaveFormat(fmt, 18 + extra, &header) && SoundWaveFormat(header, format);
}

// The chunk table of the track, each chunk cut to the end of the file and empty ones left out;
// `claimed` is what the index states.
bool CopyChunks(const StreamAudioTrack& track, uint64_t file_size, AviSound* avi, uint64_t* claimed) {
  const size_t count = track.chunk_count;
  avi->offsets = static_cast<uint64_t*>(malloc((count ? count : 1) * sizeof(uint64_t)));
  avi->ends = static_cast<uint64_t*>(malloc((count ? count : 1) * sizeof(uint64_t)));
  if (!avi->offsets || !avi->ends) return false;
  uint64_t end = 0;
  uint32_t kept = 0;
  *claimed = 0;
  for (size_t i = 0; i < count; ++i) {
    const StreamAudioChunk& c = track.chunks[i];
    *claimed += c.size;
    if (c.offset >= file_size) continue;
    const uint64_t size = std::min<uint64_t>(c.size, file_size - c.offset);
    if (size == 0) continue;
    end += size;
    avi->offsets[kept] = c.offset;
    avi->ends[kept] = end;
    ++kept;
  }
  avi->chunk_count = kept;
  avi->total = end - end % avi->bytes_per_sample;
  return true;
}

bool LooksLikeAvi(const char* name) {
  FILE* file = fopen(name, "rb");
  if (!file) return false;
  uint8_t head[12];
  const size_t got = fread(head, 1, sizeof head, file);
  fclose(file);
  return kStreamReaderAvi.probe(head, got, name) != 0;
}

}  // namespace

bool SoundOpenAvi(const SoundOpenRequest& request, SoundReader* reader) {
  if (!LooksLikeAvi(request.name)) return false;
  StreamReader* stream = StreamReaderOpenAviSound(request.name, nullptr);
  if (!stream) return false;
  StreamAudioTrack track;
  SoundFormat format;
  if (!StreamReaderAudioTrack(stream, 0, &track) || !TrackFormat(track, &format)) {
    StreamReaderClose(stream);
    return false;
  }
  AviSound* avi = static_cast<AviSound*>(calloc(1, sizeof(AviSound)));
  FILE* file = avi ? fopen(request.name, "rb") : nullptr;
  if (!file) {
    free(avi);
    StreamReaderClose(stream);
    return false;
  }
  avi->file = file;
  avi->bytes_per_sample = format.bytes_per_sample;
  avi->file_at = UINT64_MAX;
  uint64_t claimed = 0;
  const bool copied = CopyChunks(track, FileSize(file), avi, &claimed);
  StreamReaderClose(stream);
  if (!copied || avi->total == 0) {
    if (copied && claimed) SoundWarn(request, "%s ends early: none of its sound is in the file.", request.name);
    AviClose(avi);
    return false;
  }
  // A recording that was cut off: its sound is taken as far as it goes.
  if (claimed > avi->total + avi->bytes_per_sample)
    SoundWarn(request, "%s ends early: its sound data holds %llu of the %llu bytes that its index states.",
              request.name, static_cast<unsigned long long>(avi->total),
                   static_cast<unsigned long long>(claimed));
  format.total_samples = avi->total / format.bytes_per_sample;
  AviSeek(avi, 0);
  reader->ops = &AviOps;
  reader->state = avi;
  reader->format = format;
  reader->kind = SoundKindFile;
  reader->type_name = "AVI";
  return true;
}

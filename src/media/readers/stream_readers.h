// Stream readers of the media input layer: Flic animations, AVI files (uncompressed and
// Motion-JPEG, with OpenDML indexes), YUV4MPEG2 streams, RLA stills and raw 8-bit frame files.
//
// Every format has one `StreamReaderOps` row (probe, open from a path, open from memory); an
// open reader is an opaque `StreamReader` handle driven by the common calls below. Frames are
// numbered from 0. Reading frame n+1 after frame n is the fast path; other orders work where the
// format allows (`StreamInfo.seekable`), by replaying from the start for delta formats.
//
// Frames come out in the reader's own buffer, valid until the next read or the close:
//   depth 8   palette index, palette beside it (768 bytes R, G, B)
//   depth 16  1-5-5-5 little-endian words
//   depth 24  bytes B, G, R
//   depth 32  bytes B, G, R, A (ARGB words with A in the top byte)
// `pixels` is the first pixel of the top row in display order and `pitch` the signed distance
// to the next display row (negative for bottom-up memory).
//
// Failures come back by return value with a code and a readable text in `StreamError`. The
// readers take hostile input: every read is bounded, sizes are capped before allocating, and
// damaged frame data gives a damaged picture rather than a failure where the frame's size is
// known.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Formats; Flic, raw and RLA carry the media layer's type numbers.
enum StreamFormat {
  STREAM_FORMAT_FLIC = 128,
  STREAM_FORMAT_RAW = 130,
  STREAM_FORMAT_RLA = 132,
  STREAM_FORMAT_AVI = 160,
  STREAM_FORMAT_Y4M = 161,
};

enum StreamErrorCode {
  STREAM_OK = 0,
  STREAM_ERROR_ARGUMENT = 1,     // a bad argument from the caller
  STREAM_ERROR_OPEN = 2,         // the file cannot be opened or read
  STREAM_ERROR_FORMAT = 3,       // not a file of this format
  STREAM_ERROR_CORRUPT = 4,      // damaged or truncated content
  STREAM_ERROR_UNSUPPORTED = 5,  // a valid file of a kind the reader does not handle
  STREAM_ERROR_TOO_LARGE = 6,    // sizes over the reader's limits
  STREAM_ERROR_MEMORY = 7,       // out of memory
  STREAM_ERROR_END = 8,          // no such frame: past the end of the stream
  STREAM_ERROR_SEEK = 9,         // the frame lies behind a pipe's position
};

typedef struct StreamError {
  int code;        // a StreamErrorCode
  char text[256];  // a readable reason
} StreamError;

// Largest picture any stream reader accepts (RLA caps itself at 4096): each side, and in all.
#define STREAM_MAX_DIMENSION 16384
#define STREAM_MAX_PIXELS (8192u * 8192u)
// Bytes a caller should hand to the probes (fewer work, with less certainty).
#define STREAM_PROBE_BYTES 1024

typedef struct StreamInfo {
  char type_name[64];      // human name of the type, "" for raw frames
  uint32_t width;
  uint32_t height;
  uint32_t rate_num;       // the rate the file states, frames per second = num / den;
  uint32_t rate_den;       // not reduced; never 0
  uint32_t frame_count;    // 0: not known until the end (a pipe); set once the end is met
  uint32_t depth;          // 8, 16, 24 or 32: what StreamReaderRead delivers
  uint32_t has_alpha;      // the A bytes of 32-bit frames carry a real alpha channel
  uint32_t has_sound;      // AVI: at least one audio stream (see StreamReaderAudioTrack)
  uint32_t seekable;       // frames may be read in any order
  uint32_t interlace;      // 0 progressive or unknown, 1 top field first, 2 bottom first, 3 mixed
  uint32_t aspect_num;     // pixel aspect, 0:0 when unknown
  uint32_t aspect_den;
  uint64_t total_bytes;    // size of the file, 0 for a pipe
  uint32_t cut_tail;       // the file ends inside a frame behind the last whole one, left out
  uint8_t palette[768];    // depth 8: the palette before the first frame, R, G, B
} StreamInfo;

// A frame's own 8-bit Y, Cb, Cr (and alpha) planes, for readers whose files hold them so: the
// pixels above are converted from them with BT.601. Chroma 4:2:0 (half width and height,
// rounded up) or 4:4:4.
typedef struct StreamPlanes {
  const uint8_t* plane[4];  // Y, Cb, Cr, alpha; plane[0] null: the frame has no planes
  int32_t pitch[4];
  uint32_t chroma_shift;    // 1: 4:2:0; 0: 4:4:4
  uint32_t full_range;      // samples 0..255; else Y 16..235 and chroma 16..240
} StreamPlanes;

typedef struct StreamFrame {
  const uint8_t* pixels;     // first pixel of the top display row (null: planes only)
  int32_t pitch;             // signed bytes from one display row to the next
  uint32_t depth;            // as StreamInfo.depth
  uint32_t bytes;            // bytes the frame took in the file
  uint32_t palette_changed;  // depth 8: `palette` differs from the previous frame's
  const uint8_t* palette;    // depth 8: 768 bytes R, G, B; null otherwise
  StreamPlanes planes;       // valid as long as `pixels`
  uint32_t cut_short;        // the file ends inside this (last) frame: it goes as far as it goes
} StreamFrame;

typedef struct StreamReader StreamReader;

// One row per format, for the media layer's type table.
typedef struct StreamReaderOps {
  int format;              // a StreamFormat
  const char* name;        // short name of the format, "Flic"
  const char* extensions;  // extensions that select it, space separated: ".flc .fli"
  // Non-zero when the first bytes of a file (`head`, STREAM_PROBE_BYTES or fewer) and its name
  // (may be null) look like this format. RLA has no signature and asks for the extension too.
  int (*probe)(const uint8_t* head, size_t head_size, const char* name);
  // Opens a file; "-" is the standard input where the format can be read as a pipe (y4m).
  StreamReader* (*open)(const char* path, StreamError* error);
  // Opens bytes in memory; they must stay valid and unchanged until StreamReaderClose.
  StreamReader* (*open_memory)(const uint8_t* data, size_t size, StreamError* error);
} StreamReaderOps;

extern const StreamReaderOps kStreamReaderFlic;
extern const StreamReaderOps kStreamReaderAvi;
extern const StreamReaderOps kStreamReaderY4m;
extern const StreamReaderOps kStreamReaderRla;
extern const StreamReaderOps kStreamReaderRaw;

// All rows, in probe order: Flic, AVI, y4m, raw, RLA. Sets *count.
const StreamReaderOps* const* StreamReaderTable(size_t* count);
// The row of a format, or null.
const StreamReaderOps* StreamReaderFind(int format);
// The first row whose probe accepts the bytes and name, or null.
const StreamReaderOps* StreamReaderProbe(const uint8_t* head, size_t head_size, const char* name);

// Opens with the row's open; null with the reason in `error` (which may be null).
StreamReader* StreamReaderOpen(const StreamReaderOps* ops, const char* path, StreamError* error);
StreamReader* StreamReaderOpenMemory(const StreamReaderOps* ops, const uint8_t* data, size_t size,
                                     StreamError* error);
// What the stream holds; stays valid until the close (frame_count may grow for pipes).
const StreamInfo* StreamReaderInfo(const StreamReader* reader);
const StreamReaderOps* StreamReaderOpsOf(const StreamReader* reader);
// Reads frame `index` (from 0) into the reader's buffer and describes it in `frame`.
// Returns 1, or 0 with the reason (STREAM_ERROR_END past the last frame). After a failure the
// previous frame's pixels stay valid.
int StreamReaderRead(StreamReader* reader, uint32_t index, StreamFrame* frame, StreamError* error);
// With `on` set, a reader whose frames carry planes gives them alone: `pixels` is null and the
// picture is not made, which saves the colour conversion for a caller that takes the planes.
// A later read of the same frame with it clear makes the picture then. Readers without planes
// ignore it.
void StreamReaderPlanesOnly(StreamReader* reader, int on);
void StreamReaderClose(StreamReader* reader);

// Sound streams of an AVI file, kept for the sound layer; other formats have none.
typedef struct StreamAudioChunk {
  uint64_t offset;  // file offset of the chunk's data (behind its 8-byte header)
  uint32_t size;    // bytes of data
} StreamAudioChunk;

typedef struct StreamAudioTrack {
  // WAVEFORMATEX as stored.
  uint16_t format_tag;
  uint16_t channels;
  uint32_t samples_per_second;
  uint32_t bytes_per_second;
  uint16_t block_align;
  uint16_t bits_per_sample;
  uint16_t extra_size;         // bytes in `extra`
  const uint8_t* extra;        // cbSize bytes behind the format, or null
  // Stream header numbers: samples per second = rate / scale.
  uint32_t scale;
  uint32_t rate;
  uint32_t sample_size;
  uint32_t start;
  // Data chunks in stream order.
  uint32_t chunk_count;
  const StreamAudioChunk* chunks;
  uint64_t total_bytes;        // sum of the chunk sizes
} StreamAudioTrack;

// Audio streams in the file (0 for every format but AVI).
uint32_t StreamReaderAudioTrackCount(const StreamReader* reader);
// Fills `track` with pointers into the reader (valid until the close); 0 when there is no such one.
int StreamReaderAudioTrack(const StreamReader* reader, uint32_t index, StreamAudioTrack* track);
// Reads up to `size` bytes of one audio chunk; returns the bytes read.
size_t StreamReaderReadAudio(StreamReader* reader, uint32_t track, uint32_t chunk, void* buffer,
                             size_t size);
// Opens an AVI file for its sound streams alone: the video stream may be missing or of a coding
// that is not decoded, and no frames are read (frame_count 0). The first sound stream's chunks
// come from its index, or from a walk over the movi lists when no index names them; only its
// chunk list is sure to be complete. Fails when the file has no sound stream.
StreamReader* StreamReaderOpenAviSound(const char* path, StreamError* error);

#ifdef __cplusplus
}
#endif

// The media input layer: every video input behind one record and one frame call.
//
// A tool opens its input with MediaOpen (or MediaOpenWith), reads MediaGetFrame once for each
// output frame until `at_end`, and closes with MediaClose. The frame lands in `output_buffer`,
// `output_pitch` bytes from row to row: 32-bit ARGB (A in the top byte), or four floats R, G,
// B, A a pixel when `float_frames` is set. Still images, animated GIF, OpenEXR, Velmo files,
// wave files (sound only), the stream readers of media/readers/, numbered series and list
// files all look the same to the caller.
//
// Palette output (8 bits a pixel) is not built yet: an open that asks for it (the low three
// open flag bits not 0) fails with a clear message.
//
// Nothing in a MediaInput may be used by two threads at once. MediaReadAhead hands the record
// to one background job at a time so that the next frame is read while the caller works; the
// progress function is then called from that job's thread.
//
// A reader that faults (a damaged file, a decoder bug) is survived: the warning goes out once a
// run through progress, and the previous output frame is delivered again (black at the first).
// A frame that a reader cannot deliver whole (a file cut short) is an input error instead: one
// error through progress names the file and what is missing, `read_failed` is set, and the
// frame calls fail from then on. Formats whose last frame may be cut by a stopped recording
// (YUV4MPEG2, AVI, raw frames, animated GIF) deliver what is there with one warning; so does a
// Velmo file cut short (a stopped compression), up to its last whole frame.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/outfile.h"
#include "host/progress.h"
#include "process/pixel_fetch.h"
#include "process/scaler.h"

enum MediaProgressLevel : int {
  MediaLevelStatus = 0,
  MediaLevelStep = 1,
  MediaLevelError = 2,
  MediaLevelCancel = 3,
  MediaLevelWarning = 4,
  MediaLevelQuestion = 5,
};

enum MediaType : uint32_t {
  MediaTypeNone = 0,
  MediaTypeBmp = 3,
  MediaTypeGif = 4,
  MediaTypeTiff = 5,
  MediaTypeJpeg = 6,
  MediaTypeTga = 7,
  MediaTypePng = 8,
  MediaTypeFlic = 128,
  MediaTypeRaw = 130,
  MediaTypeVelmo = 131,
  MediaTypeRla = 132,
  MediaTypeExr = 140,
  MediaTypeProRes = 141,
  MediaTypeAvi = 160,  // AVI through this program's own reader
  MediaTypeY4m = 161,  // YUV4MPEG2 streams
  MediaTypeList = 256,
  MediaTypeSoundOnly = 512,
  MediaTypeQuickTime = 1024,
  MediaTypeWindowsAvi = 1025,
  MediaTypeDirectShow = 1026,
  MediaTypeTarvin = 1027,
  MediaTypeTest = 0x7000,  // rows added by MediaAddReaderRow
};

// Open flags (from /Z and /; through MediaParseSwitches, or set by a tool).
enum MediaOpenFlag : uint32_t {
  MediaOpenPaletteMask = 0x7,       // 0 true colour; 1..3 palette modes (not built yet)
  MediaOpenMultiple32 = 0x40,       // frame sizes in multiples of 32
  MediaOpenNoAlphaWarning = 0x80,   // no warning about a missing alpha plane (for the tools)
  MediaOpenAlpha = 0x100,           // deliver the alpha channel
  MediaOpenAskSequence = 0x200,     // a single numbered name may become its series (asked)
  MediaOpenDeinterlaceEven = 0x800,
  MediaOpenDeinterlaceOdd = 0x1000,
  MediaOpenDeinterlaceBlend = 0x2000,
  MediaOpenLinear = 0x4000,         // bi-linear scaling
  MediaOpenBox = 0x8000,            // box scaling
  MediaOpenPremultiply = 0x10000,
  MediaOpenUnpremultiply = 0x20000,
  MediaOpenCompressorDefault = 0x40000,  // read by the compressor tool, not here
  MediaOpenServerMask = 0xE0000000u,     // forces a 32-bit server reader (none in this build)
};

// Frame limits: sizes that fit the pipeline's 32-bit arithmetic with room to spare.
inline constexpr uint32_t MediaMaxSide = 16384;
inline constexpr size_t MediaNameBytes = PathBytes;  // any path the system takes

struct SwitchErrors;
struct MediaInput;
struct MediaList;

// A frame as 8-bit Y, Cb, Cr (and alpha) planes, for inputs whose files hold them so (BT.601).
struct MediaPlanes {
  const uint8_t* plane[4];  // Y, Cb, Cr, alpha (null when absent)
  int32_t pitch[4];
  uint32_t width, height;
  uint32_t chroma_shift;    // 1: chroma at half width and height, rounded up (4:2:0); 0: 4:4:4
  uint32_t full_range;      // samples 0..255; else Y 16..235 and chroma 16..240
};

// A reader: one row kind of the type table. `probe` checks the file at `input->file_name`
// (ProbeName already applied) and fills the source fields: type, type_name, source size,
// total_frames (as `source_frames`), file rate, depths, has_alpha, has_sound. `read` brings
// up the next source frame and sets frame_base, frame_pixels, frame_pitch, frame_depth and
// frame_bytes; it runs inside a crash guard. `seek`, when present, positions the reader so
// that the next read gives frame `index` (from 0); otherwise frames are read and dropped.
// `close` frees `reader_state`. Failures by return value.
struct MediaReaderOps {
  const char* name;
  uint32_t guard_region;  // a MediaGuardRegion: which crash warning a fault gives
  bool (*probe)(MediaInput* input);
  bool (*read)(MediaInput* input);
  bool (*seek)(MediaInput* input, uint32_t index);
  bool (*rewind)(MediaInput* input);
  void (*close)(MediaInput* input);
};

// Crash guard regions: each has its own warning, shown once a run.
enum MediaGuardRegion : uint32_t {
  MediaGuardStill = 0,
  MediaGuardRla = 1,
  MediaGuardVelmoSkip = 2,
  MediaGuardVelmo = 3,
  MediaGuardExr = 4,
  MediaGuardServer = 5,
  MediaGuardProRes = 6,
  MediaGuardRegionCount = 7,
};

struct MediaInput {
  char file_name[MediaNameBytes];
  char type_name[MediaNameBytes];
  uint32_t true_colour;
  uint32_t want_alpha;
  uint32_t type;
  uint32_t output_width, output_height;
  uint32_t source_width, source_height;
  uint32_t has_sound, has_alpha;
  uint32_t open_flags;
  int32_t frame_period;
  uint32_t output_rate_num, output_rate_den;
  uint32_t input_rate_num, input_rate_den;
  uint32_t file_rate_num, file_rate_den;
  uint32_t source_frames;
  uint32_t frames_read;
  uint32_t output_frames;
  uint32_t output_index;
  uint32_t scaled_width, scaled_height;
  int32_t scale_request_width, scale_request_height;
  ScalerChain scalers;
  uint32_t scale_kernel;
  uint8_t* work_buffer[2];
  size_t work_buffer_bytes[2];
  uint8_t* frame_base;
  uint32_t input_depth, frame_depth, decode_depth;
  uint8_t* output_buffer;
  size_t output_buffer_bytes;
  uint32_t output_pitch;
  uint32_t frame_bytes;
  uint32_t palette_changed;
  uint64_t total_bytes;
  uint32_t total_frames;
  uint8_t palette[768];
  uint32_t at_end;
  int32_t crop_x, crop_y;
  int32_t crop_x_request, crop_y_request;
  uint32_t visible_width, visible_height;
  int32_t pad_right, pad_bottom, pad_left, pad_top;  // left and top are held as negative numbers
  uint8_t source_palette[768];
  uint32_t source_palette_argb[256];  // the same as 0RGB words, for the pixel fetches
  ProgressSink progress;
  uint32_t skip_frames;
  uint32_t palette_first, palette_count, palette_mode, halftone_mode, palette_interval;
  uint32_t system_colours_mode, rotation_count;
  char palette_file[MediaNameBytes];
  char title[64];
  uint32_t seek_done;
  MediaList* list;
  MediaInput* entry;       // the open entry of a list
  int32_t entry_start, entry_end;
  uint32_t deinterlace;    // low 3 bits: 0 none, 1 even, 2 odd; bit 3 blend
  int32_t force_rate_num, force_rate_den, adjust_rate_num, adjust_rate_den;
  uint32_t premultiply, unpremultiply;
  uint32_t float_source, float_frames;
  uint32_t peak_value;
  uint32_t server_skip;
  // The reader of this type and its private state.
  const MediaReaderOps* reader;
  void* reader_state;
  // The frame at hand: pixel (crop_x, crop_y), its signed pitch, and the size of the whole frame.
  uint8_t* frame_pixels;
  ptrdiff_t frame_pitch;
  uint32_t frame_width, frame_height;
  uint32_t source_at_end;  // the last source frame has been read
  uint32_t reuse_output;   // a guarded read crashed: the previous output frame stands
  uint32_t list_depth;     // nesting of lists, to stop a list that contains itself
  // The source frame's own planes, when the reader has them (plane[0] null: none), and whether
  // the scaler or a stage has since changed the frame at hand.
  MediaPlanes frame_planes;
  uint32_t frame_processed;
  // MediaPreferPlanes: frames that can go as planes are not made into pictures, and the frame
  // at hand is such a frame (`frame_base` null, `output_buffer` not written).
  uint32_t planes_wanted;
  uint32_t planes_alone;
  // A source frame could not be read completely (or an entry of a list did not open): the
  // reason went out once through progress as an error naming the file, and every later
  // MediaGetFrame fails. The tools end with their input error for it.
  uint32_t read_failed;
  uint32_t short_warned;    // the one warning about a short last frame went out
  char read_problem[256];   // what the reader found missing, for that error
};

// Everything MediaOpen takes besides the name. Zeroes mean "not given" throughout.
struct MediaOpenArgs {
  uint32_t flags;
  int32_t force_num, force_den;    // /F
  int32_t adjust_num, adjust_den;  // /A
  int32_t scale_w, scale_h;        // /( and /)
  int32_t crop_x, crop_y, crop_w, crop_h;
  int32_t start, end;              // /S and /E, from 1; negative counts from the end
  uint32_t palette_interval, palette_first, colours, rotation, system_colours, halftone;
  const char* palette_file;
  const char* title;
  ProgressSink progress;
};

MediaInput* MediaOpenWith(const char* name, const MediaOpenArgs* args);
MediaInput* MediaOpen(const char* name, uint32_t flags, int32_t force_num, int32_t force_den,
                      int32_t adjust_num, int32_t adjust_den, int32_t scale_w, int32_t scale_h,
                      int32_t crop_x, int32_t crop_y, int32_t crop_w, int32_t crop_h,
                      int32_t start, int32_t end, uint32_t palette_interval,
                      uint32_t palette_first, uint32_t colours, uint32_t rotation,
                      uint32_t system_colours, uint32_t halftone, const char* palette_file,
                      const char* title, ProgressSink progress);
void MediaClose(MediaInput* input);
// Back to the first frame for a further pass.
bool MediaRewind(MediaInput* input);

// One output frame into `output_buffer`. False when the caller cancelled through `progress`,
// an entry of a list could not be opened, or a source frame could not be read completely
// (`read_failed` is then set and the error has gone out through progress). `smooth` packs vertical (high 16 bits) and
// horizontal (low 16 bits) smoothing, 25600 = 100%; `gamma` is the exponent (1 ÷ the /] value).
bool MediaGetFrame(MediaInput* input, uint32_t denoise, uint32_t smooth, uint32_t contrast,
                   uint32_t brightness, double gamma, uint32_t black_clamp);
// Brings up the source frame of the next output frame (repeating or dropping source frames
// for /A); runs the stages but not the final copy. Returns false on failure.
bool MediaStepFrame(MediaInput* input, uint32_t denoise, uint32_t smooth, uint32_t contrast,
                    uint32_t brightness, double gamma, uint32_t black_clamp);

// The frame the last MediaGetFrame delivered, as the source's own planes: true when the input
// holds its frames as planes and nothing in the pipeline changed the picture (no scaling,
// smoothing, crop, padding, de-interlacing, premultiplying or filter), so that the planes are
// the output frame. Without alpha asked for, plane[3] is null. Valid until the next call.
bool MediaFramePlanes(const MediaInput* input, MediaPlanes* out);
// For a caller that takes every frame it can as planes (through MediaFramePlanes): from the
// next frame on, a frame whose planes stand for the output frame is delivered as planes alone,
// without making the 32-bit picture, and `output_buffer` keeps what it held. Frames without
// planes, or that the pipeline changes, are made as pictures as always.
void MediaPreferPlanes(MediaInput* input, bool on);

// The filter arguments of MediaGetFrame as a record.
struct MediaFrameArgs {
  uint32_t denoise, smooth, contrast, brightness;
  double gamma;
  uint32_t black_clamp;
};
inline constexpr MediaFrameArgs MediaNoFilters = {0, 0, 0, 100, 1.0, 0};

// All video switches of a switch line; each answer removes its switch.
struct MediaSwitches {
  uint32_t open_flags;             // /Z and /;
  int32_t force_num, force_den;    // /F
  int32_t adjust_num, adjust_den;  // /A
  uint32_t denoise;                // /~
  uint32_t smooth;                 // /:
  uint32_t contrast;               // /{
  uint32_t brightness;             // /[ (100)
  double gamma;                    // /] as the exponent 1 ÷ value (1.0)
  uint32_t black_clamp;            // /}
  int32_t scale_w, scale_h;        // /( /)
  int32_t crop_x, crop_y, crop_w, crop_h;  // /X /Y /W /H
  int32_t start, end;              // /S /E
  uint32_t palette_interval;       // /U
  uint32_t palette_first;          // /I
  uint32_t colours;                // /Q
  uint32_t rotation;               // /$
  uint32_t system_colours;         // /D
  uint32_t halftone;               // /T
  char palette_file[MediaNameBytes];  // /&
};
// A value that the switch does not take is noted in `errors` (when given; see
// host/switches.h) and leaves the switch's default.
void MediaParseSwitches(char* line, MediaSwitches* out, SwitchErrors* errors = nullptr);
// The letters MediaParseSwitches asks for, for a tool's SwitchLetters.
inline constexpr char MediaSwitchLetters[] = "Z;FA~:{[]}()XYWHSEUIQ$DT&";
// An input with an alpha channel loses it unless /Z asks for alpha: says so once, as a
// warning through `progress`, unless /Z asked for no alpha warnings.
void MediaSayAlphaDropped(const MediaSwitches* switches, bool inputHasAlpha, ProgressSink progress);
inline constexpr char MediaTextAlphaDropped[] =
    "The input file has an alpha channel, but no alpha was asked for, so it is dropped (add "
    "1000 to /Z to keep it).";
// The open arguments that the switches give (progress and title left null).
MediaOpenArgs MediaArgsFromSwitches(const MediaSwitches* switches);

// When `name` (a buffer of `nameSize` bytes) is a single numbered file of a series, asks
// through `progress` at level 5 with the "Treat as sequence?" text; a yes replaces the name by
// the series ("pattern*first-last"). Returns true when the name was replaced.
bool MediaAskSequence(char* name, size_t nameSize, ProgressSink progress);

// Adds a reader row for an extension (".xyz", compared without regard to case), tried after
// the built-in rows; a null extension adds a content probe row at the end of that table. For
// tests and for readers that join later. At most 8 rows; false when full.
bool MediaAddReaderRow(const char* extension, const MediaReaderOps* ops);
void MediaClearAddedRows();

// Crash warnings go out once a run for each kind of reader; this starts a new run (tests).
void MediaResetCrashWarnings();

// ---------------------------------------------------------------------------------------------
// Read-ahead: the next frame is read by a background job while the caller uses the current one.
// The caller must not touch the input between MediaReadAheadStart and MediaReadAheadStop
// except through these calls.

struct MediaReadAhead;
MediaReadAhead* MediaReadAheadStart(MediaInput* input, const MediaFrameArgs* args);
// Waits for the frame being read and starts reading the one after it (unless the input is at
// its end). `*pixels` points at a copy of the frame with `input->output_pitch` bytes a row,
// valid until the next call. False when the read failed or was cancelled.
bool MediaReadAheadNext(MediaReadAhead* ahead, const uint8_t** pixels, bool* atEnd);
// Waits for any job and frees the record; the input belongs to the caller again.
void MediaReadAheadStop(MediaReadAhead* ahead);

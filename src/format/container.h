// The Velmo container, both generations: the 44-byte header, the extras block, the three track
// tables, the frame table and the frame packet. Parsing works on caller-given byte spans with
// explicit sizes and never reads past them; failures come back as the reader's own message
// texts (null means success). Building functions produce byte images for a writer that can
// seek back and patch, which is how the compressor keeps a growing file playable.
//
// All multi-byte values in a file are little-endian; offsets are from the start of the header,
// which need not be the start of the physical file.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "velmo_flags.h"

// ---------------------------------------------------------------------------------------------
// Magic values: three generation bytes and a version letter, read as one little-endian word.

constexpr uint32_t VelmoMagicOf(char a, char b, char c, char d) {
  return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
         uint32_t(uint8_t(d)) << 24;
}

enum : uint32_t {
  VelmoMagicVLMf = VelmoMagicOf('V', 'L', 'M', 'f'),
  VelmoMagicVLMg = VelmoMagicOf('V', 'L', 'M', 'g'),
  VelmoMagicVLMh = VelmoMagicOf('V', 'L', 'M', 'h'),
  VelmoMagicVLMi = VelmoMagicOf('V', 'L', 'M', 'i'),
  VelmoMagicVLMk = VelmoMagicOf('V', 'L', 'M', 'k'),
  VelmoMagicVM2f = VelmoMagicOf('V', 'M', '2', 'f'),
  VelmoMagicVM2g = VelmoMagicOf('V', 'M', '2', 'g'),
  VelmoMagicVM2h = VelmoMagicOf('V', 'M', '2', 'h'),
  VelmoMagicVM2i = VelmoMagicOf('V', 'M', '2', 'i'),
  VelmoMagicVM2j = VelmoMagicOf('V', 'M', '2', 'j'),
  VelmoMagicVM2k = VelmoMagicOf('V', 'M', '2', 'k'),
  VelmoMagicVM2m = VelmoMagicOf('V', 'M', '2', 'm'),
};

// The twelve magic values in table order.
extern const uint32_t VelmoAllMagics[12];

// Probes: all other code asks these, never the letters.
bool MagicIsValid(uint32_t magic);             // all twelve
bool MagicIsSecondGeneration(uint32_t magic);  // "VM2f" .. "VM2m"
bool MagicIsFirstGeneration(uint32_t magic);   // "VLMf" .. "VLMk"
bool MagicIsFirst11(uint32_t magic);           // "VLMk"
bool MagicHasSwappedChroma(uint32_t magic);    // "VLMf", "VLMg"
bool MagicIsOldFirst(uint32_t magic);          // "VLMf", "VLMg", "VLMh"
bool MagicHasExtras(uint32_t magic);           // "VM2i", "VM2j", "VM2k", "VM2m", "VLMk"
bool MagicHasSliceMode(uint32_t magic);        // "VM2h" .. "VM2m"
// "VLM" with a letter that is not one of the five: a file from an old or beta compressor.
bool MagicIsOldOrBeta(uint32_t magic);
// The name shown for a file ("Velmo 2.5", ...). Anything without a name of its own, "VM2k"
// included, falls through to "Velmo 1".
const char* MagicName(uint32_t magic);

// ---------------------------------------------------------------------------------------------
// Messages, as the reader stores them for its last error.

extern const char VelmoTextNotVelmo[];        // "Not a Velmo file."
extern const char VelmoTextNoFramesYet[];     // "The file doesn't contain any compressed frames yet."
extern const char VelmoTextCorruptHeader[];   // "The file has a corrupt header."
extern const char VelmoTextHeaderReadError[]; // "Error reading Velmo header."
extern const char VelmoTextBadFrameSize[];    // "This file has bad frame size data."
extern const char VelmoTextOldOrBeta[];       // the launcher's text for MagicIsOldOrBeta files

// ---------------------------------------------------------------------------------------------
// The file header.

enum : uint32_t {
  VelmoHeaderSize = 44,
  // Byte offsets of the fields a writer patches at each checkpoint.
  VelmoHeaderFileSizeAt = 4,  // FileSizeLess8, Frames, LargestFrameSize follow one another
  VelmoHeaderFramesAt = 8,
  VelmoHeaderLargestAt = 12,
  VelmoHeaderFlagsAt = 36,

  // Limits the reader enforces.
  VelmoMaxIndexFrames = 1000000,
  VelmoMaxTracks = 256,
  VelmoMaxDimension = 32767,
  VelmoMaxFrameStep = 0x10000000,  // largest distance between neighbouring frame offsets
  VelmoMaxFrameSeconds = 3600,     // the longest a frame may last
  VelmoMaxFramesPerSecond = 10000,
};

// `Flags` bits are the VelmoFlag* of velmo_flags.h. With VelmoFlagHdr the extras start with the
// 12-byte HDR block; with VelmoFlagColourMatrix (and not HDR) they hold a 24-byte colour matrix.
// The slice mode and text length are stored from writer version 101 on.
enum : uint32_t {
  // The flag bits a writer copies from its own flags.
  VelmoWriterFlagMask = VelmoFlagHdr | VelmoFlagFullRange | VelmoFlagColourMatrix |
                        VelmoFlagGrayscale | VelmoFlagAlpha,
};

struct VelmoHeader {
  uint32_t Magic;
  uint32_t FileSizeLess8;
  uint32_t Frames;            // complete frames; 0 until a writer's first checkpoint
  uint32_t LargestFrameSize;  // largest frame packet, sound included
  uint32_t IndexFrames;       // entries the frame table has room for (plus one)
  int32_t Width;              // raw; use VelmoHeaderWidth
  int32_t Height;             // raw; use VelmoHeaderHeight
  uint32_t FrameRate;
  uint32_t FrameRateDiv;
  uint32_t Flags;
  uint32_t TrackCount;        // raw; bit 30 is not part of the count, use VelmoHeaderTrackCount
};

// Fills `out` from the first 44 bytes. False (and `out` untouched) if fewer bytes are given.
bool VelmoParseHeader(const uint8_t* data, size_t size, VelmoHeader* out);
// Writes the 44 bytes of `header` to `out`.
void VelmoStoreHeader(const VelmoHeader& header, uint8_t* out);

// Field values after the reader's sign handling.
uint32_t VelmoHeaderWidth(const VelmoHeader& header);       // absolute value
uint32_t VelmoHeaderHeight(const VelmoHeader& header);      // negative: + 0x7F000000 mod 2^32
uint32_t VelmoHeaderTrackCount(const VelmoHeader& header);  // bit 30 cleared
uint32_t VelmoPaddedHeight(uint32_t height);                // rounded up to a multiple of 32

// The reader's header tests, in its order (magic, no frames yet, corrupt). Null if it opens.
const char* VelmoCheckHeader(const VelmoHeader& header);
// The frame index against the header: the largest packet the header states cannot exceed the
// largest step between frame offsets (a larger claim would size a giant buffer), and the frames
// end inside the file size it states (plus `wrap`, the 4 GiB turns of 32-bit entries). Null if
// both hold.
const char* VelmoCheckFrameExtent(const VelmoHeader& header, uint64_t largestStep,
                                  uint64_t framesEnd, uint64_t wrap);
// Parse and check together: a span shorter than the header counts as a failed read.
const char* VelmoReadHeader(const uint8_t* data, size_t size, VelmoHeader* out);

// ---------------------------------------------------------------------------------------------
// The extras block, directly behind the header in files whose magic has one.

enum : uint32_t {
  VelmoHdrBlockSize = 12,
  VelmoColourMatrixSize = 24,
  VelmoStampSize = 4,
  VelmoWriterStamp = 0x87E40602,  // reads "2020.6.2"
  VelmoMaxTextBytes = 255 * 4,    // the text length has 8 bits of 32-bit words
  VelmoMinNits = 80,
  VelmoMaxNits = 10000,
};

struct VelmoExtras {
  uint32_t Size;             // bytes of the whole block; 0 for a magic without extras
  uint32_t HasHdr;           // the HDR block was present
  uint32_t HasMatrix;        // the colour matrix was present
  int16_t HdrValues[6];      // raw HDR block
  float HdrCoefficients[5];  // HdrValues[0..4] / 32767
  uint32_t MaxNits;          // HdrValues[5], held to 80..10000
  int16_t MatrixValues[12];  // raw colour matrix
  float Matrix[16];          // 4 x 4, each row three values / 4096 and a 0
  uint32_t CompressorStamp;
  uint32_t TextOffset;       // from the block's start
  uint32_t TextSize;         // bytes, a multiple of 4, zero padding included; 0 if none
};

// Bytes of the extras block for this magic and flag word (0 when the magic has none).
uint32_t VelmoExtrasSize(uint32_t magic, uint32_t flags);
// Parses the block at `data` (the bytes behind the header). A magic without extras gives an
// empty record. A span shorter than the block: "Error reading Velmo header.".
const char* VelmoParseExtras(const uint8_t* data, size_t size, uint32_t magic, uint32_t flags,
                             VelmoExtras* out);

// "Compressed with Velmo %d.%d%s" or the older "%d.%d%c" form of a stamp, into out.
void VelmoStampText(uint32_t stamp, char* out, size_t outSize);
// "Uses HDR I-Ct-Cp colorspace.", "Uses full y-cr-cb colorspace." or "Uses old ...".
const char* VelmoColourSpaceText(uint32_t flags);
// "Grayscale" or "Color", with " with alpha plane" when the flags say so.
void VelmoFrameKindText(uint32_t flags, char* out, size_t outSize);

// ---------------------------------------------------------------------------------------------
// Colour tables: 16 floats, rows Cr, Cb, offset, Y; each row weights for red, green, blue,
// alpha.

enum : uint32_t { VelmoColourRowCr = 0, VelmoColourRowCb = 4, VelmoColourRowOffset = 8,
                  VelmoColourRowY = 12 };

// The table for files that bring none: video or full range by flag bit 4, and with the red
// and blue weights of the Cr and Cb rows exchanged for MagicHasSwappedChroma.
void VelmoDefaultColourTable(uint32_t magic, uint32_t flags, float out[16]);
// The table a file uses: its matrix; for HDR the five coefficients in entries 0-4 and MaxNits in
// entry 5 (the rest 0); otherwise the default table.
void VelmoFileColourTable(uint32_t magic, uint32_t flags, const VelmoExtras& extras,
                          float out[16]);

// ---------------------------------------------------------------------------------------------
// Tables: TrackMaxBytes, TrackFormat, TrackId (TrackCount words each), FrameOffsets
// (IndexFrames + 1 words), read by the library in one go.

// TrackFormat bits.
enum : uint32_t {
  VelmoTrackRateMask = 0xFFFF,
  VelmoTrackCurrent = 0x10000000,  // sound coded in the current form
  VelmoTrackStereo = 0x20000000,
  VelmoTrack16Bit = 0x40000000,
  VelmoTrackOlder = 0x80000000,    // sound coded in the older form
};

struct VelmoTrackInfo {
  uint32_t MaxBytes;  // TrackMaxBytes: most decoded bytes one frame yields
  uint32_t Format;    // TrackFormat
  uint32_t Id;        // TrackId
};

inline bool VelmoTrackUsable(uint32_t format) {
  return (format & (VelmoTrackCurrent | VelmoTrackOlder)) != 0;
}
// The decoder's mode flag: current form only.
inline bool VelmoTrackIsCurrentForm(uint32_t format) {
  return (format & VelmoTrackOlder) == 0 && (format & VelmoTrackCurrent) != 0;
}

// Bytes of the tables: (IndexFrames + 3 * TrackCount) * 4 + 4.
uint64_t VelmoTablesSize(uint32_t trackCount, uint32_t indexFrames);

// A view of the tables inside a caller's span; entries are read with the functions below.
struct VelmoTables {
  const uint8_t* Data;
  uint32_t TrackCount;
  uint32_t IndexFrames;
};

// Checks that the span holds all tables. Short: "Error reading Velmo header.".
const char* VelmoOpenTables(const uint8_t* data, size_t size, uint32_t trackCount,
                            uint32_t indexFrames, VelmoTables* out);
VelmoTrackInfo VelmoTableTrack(const VelmoTables& tables, uint32_t track);
// Raw entry i of FrameOffsets, 0 <= i <= IndexFrames.
uint32_t VelmoTableFrameEntry(const VelmoTables& tables, uint32_t i);

// Frame table entries: bits 2-31 the offset, bit 0 the key frame bit, bit 1 ignored.
inline uint64_t VelmoEntryOffset(uint64_t entry) { return entry & ~uint64_t(3); }
inline bool VelmoEntryIsKey(uint64_t entry) { return (entry & 1) != 0; }

// Expands entries 0..frames to 64 bits: each time a neighbour's offset is not above the one
// before, 2^32 more is added from there on. Bit 0 is kept, bit 1 cleared. `out` holds
// frames + 1 values, or is null to check only; `wrapBytes` (may be null) gets the total added,
// which also belongs to the file size. Fails with "This file has bad frame size data." if a
// step exceeds 256 MiB, and with the corrupt-header text if frames > IndexFrames.
const char* VelmoExpandFrameTable(const VelmoTables& tables, uint32_t frames, uint64_t* out,
                                  uint64_t* wrapBytes);

// ---------------------------------------------------------------------------------------------
// Everything at the start of a file, parsed in the reader's order.

struct VelmoFileInfo {
  VelmoHeader Header;
  uint32_t Width, Height, TrackCount;  // after sign handling
  VelmoExtras Extras;
  uint32_t TablesOffset;               // 44 + extras
  uint64_t FirstFrameOffset;           // TablesOffset + tables size
  VelmoTables Tables;
  uint64_t FileSize;                   // FileSizeLess8 + the frame table's wrap amount
  float ColourTable[16];
};

// The header checks, then the extras and tables (short span: "Error reading Velmo header."),
// then a check of the frame table. `data` must hold at least the header, extras and tables.
const char* VelmoParseFile(const uint8_t* data, size_t size, VelmoFileInfo* out);

// ---------------------------------------------------------------------------------------------
// Slices of the second generation (the first always has two: luma, and chroma with alpha).

struct VelmoSliceLayout {
  uint32_t Count;      // slices in a frame
  uint32_t RowHeight;  // rows of each slice but the last; 0 with one slice or first generation
};
VelmoSliceLayout VelmoSlicesFor(uint32_t magic, uint32_t flags, uint32_t height);

// ---------------------------------------------------------------------------------------------
// The frame packet: one sound packet per track in file order, then the video data.

struct VelmoSoundPacket {
  uint32_t Offset;        // of the PacketSize field, from the packet start
  uint32_t PacketSize;    // bytes behind the PacketSize field; 0 = no sound in this frame
  uint32_t DecodedBytes;  // decoded sound bytes, rounded down to a multiple of 16
  uint32_t DataOffset;    // first byte of the sound blocks
  uint32_t DataSize;      // PacketSize - 4
};

struct VelmoPacketLayout {
  uint32_t TracksFound;  // track packets that lie wholly inside the frame packet
  uint32_t HasVideo;     // all tracks were found: the video section follows
  uint32_t VideoOffset;
  uint32_t VideoSize;
};

// Walks the sound packets of `trackCount` tracks (all tracks of the file, dropped ones too).
// `sounds` receives up to `trackCount` entries (may be null). The walk stops at a packet that
// leaves the frame packet, or whose size cannot hold its DecodedBytes word.
VelmoPacketLayout VelmoWalkFramePacket(const uint8_t* packet, size_t size, uint32_t trackCount,
                                       VelmoSoundPacket* sounds);

// ---------------------------------------------------------------------------------------------
// Writing. A writer emits VelmoBuildHeaderImage's bytes at the start, the frames behind them,
// and at each checkpoint applies VelmoCheckpointPatches by seeking to each patch's offset.

struct VelmoWriteParams {
  uint32_t Version;       // below 101 "VLMi", 101-199 "VLMk", 200 and up second generation
  int32_t Width, Height;
  uint32_t FrameRate, FrameRateDiv;
  uint32_t IndexFrames;   // planned frames
  uint32_t Flags;         // the writer's flags; only VelmoWriterFlagMask bits are stored
  uint32_t SliceMode;     // 0..3, stored from version 101 on
  const int16_t* HdrBlock;      // six values, needed when Flags has VelmoFlagHdr
  const int16_t* ColourMatrix;  // twelve values, needed when Flags has VelmoFlagColourMatrix
  const char* Text;       // extra text (from version 101 on); TextLength bytes, may hold a zero
  uint32_t TextLength;
  uint32_t TrackCount;
  const VelmoTrackInfo* Tracks;
};

struct VelmoHeaderImage {
  std::vector<uint8_t> Bytes;  // header, extras, tables, a frame table of zeros
  uint32_t Magic;
  uint32_t Flags;              // the flag word as stored at offset 36
  uint32_t ExtrasOffset;       // 44
  uint32_t ExtrasSize;
  uint32_t TableOffset;        // TrackMaxBytes; the tables are rewritten from here
  uint32_t FrameTableOffset;   // FrameOffsets entry 0
  uint32_t FirstFrameOffset;   // where the first frame goes (the image's size)
  uint32_t TrackCount;
  uint32_t IndexFrames;
};

// The magic and stored flag word a writer uses for these parameters.
uint32_t VelmoWriterMagic(uint32_t version, uint32_t flags);
uint32_t VelmoWriterFlagWord(const VelmoWriteParams& params);
// Builds the initial image. False for bad parameters: rate 0, IndexFrames or TrackCount over the
// limits, text over 1020 bytes, a missing HDR block or matrix, or a track count with no tracks.
bool VelmoBuildHeaderImage(const VelmoWriteParams& params, VelmoHeaderImage* out);

// A frame table entry: the position's low 32 bits with bit 0 for a key frame.
uint32_t VelmoMakeFrameEntry(uint64_t position, bool key);

// The sound packet's two leading words: PacketSize = 4 + data bytes, DecodedBytes. A packet
// without sound is the single word 0 (use VelmoEmptySoundPacket).
void VelmoStoreSoundPacketHead(uint32_t dataBytes, uint32_t decodedBytes, uint8_t out[8]);
void VelmoEmptySoundPacket(uint8_t out[4]);

struct VelmoPatch {
  uint64_t Offset;  // from the header start
  std::vector<uint8_t> Bytes;
};

// The checkpoint's writes: offset 4 (size less 8, frames, largest frame), offset 36 (flags), and
// the tables with the whole frame index at TableOffset. Counts are the image's.
struct VelmoCheckpoint {
  uint64_t FileSize;             // total bytes of the file
  uint32_t Frames;               // frames complete
  uint32_t LargestFrameSize;
  uint32_t Flags;                // flag word to store (may differ from the initial one)
  const VelmoTrackInfo* Tracks;  // image.TrackCount entries
  const uint32_t* FrameEntries;  // image.IndexFrames + 1 entries
};
bool VelmoCheckpointPatches(const VelmoHeaderImage& image, const VelmoCheckpoint& state,
                            std::vector<VelmoPatch>* out);
// Writes the patches into an in-memory file image; false if one lies outside it.
bool VelmoApplyPatches(std::vector<uint8_t>* file, const std::vector<VelmoPatch>& patches);

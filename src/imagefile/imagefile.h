// Image file library: reads BMP, GIF (animated too), JPEG, PNG, TIFF, TGA and OpenEXR files and
// writes PNG, TGA, BMP, JPEG, TIFF, GIF and OpenEXR files.
//
// Pixels are handed over as an `ImagePixels` record: base pointer, signed pitch in bytes (a
// bottom-up image has a negative pitch and a base at its top row in display order), size and
// kind. Integer pixels are 32-bit ARGB with A in the top byte (bytes B, G, R, A in memory);
// 16-bit pixels are four uint16 R, G, B, A; float pixels are four floats R, G, B, A.
//
// Every call reports failure by its return value and fills an optional `ImageError`.
// The readers take hostile input: they bound every read, reject giant sizes before allocating
// and answer a damaged file with an error (or, for some formats, with a partial picture).
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// File formats; the numbers are those the media layer uses for its input types.
enum ImageFormat {
  IMAGE_FORMAT_UNKNOWN = 0,
  IMAGE_FORMAT_BMP = 3,
  IMAGE_FORMAT_GIF = 4,
  IMAGE_FORMAT_TIFF = 5,
  IMAGE_FORMAT_JPEG = 6,
  IMAGE_FORMAT_TGA = 7,
  IMAGE_FORMAT_PNG = 8,
  IMAGE_FORMAT_EXR = 140,
};

enum ImageErrorCode {
  IMAGE_OK = 0,
  IMAGE_ERROR_ARGUMENT = 1,     // a bad argument from the caller
  IMAGE_ERROR_OPEN = 2,         // the file cannot be opened or read
  IMAGE_ERROR_UNKNOWN_TYPE = 3, // no reader recognises the content
  IMAGE_ERROR_CORRUPT = 4,      // the content is damaged or truncated
  IMAGE_ERROR_UNSUPPORTED = 5,  // a valid file of a kind this library does not read
  IMAGE_ERROR_TOO_LARGE = 6,    // the picture is over the size limits
  IMAGE_ERROR_MEMORY = 7,       // out of memory
  IMAGE_ERROR_WRITE = 8,        // an output file cannot be written
};

typedef struct ImageError {
  int code;        // an ImageErrorCode
  char text[256];  // a readable reason
} ImageError;

enum ImagePixelKind {
  IMAGE_PIXELS_ARGB32 = 0,  // uint32 0xAARRGGBB
  IMAGE_PIXELS_RGBA16 = 1,  // four uint16: R, G, B, A
  IMAGE_PIXELS_FLOAT = 2,   // four floats: R, G, B, A (1.0 is full scale)
};

typedef struct ImagePixels {
  void* base;       // first byte of the top row in display order
  ptrdiff_t pitch;  // bytes from one display row to the next; negative for bottom-up memory
  int width;
  int height;
  int kind;  // an ImagePixelKind
} ImagePixels;

// What a file holds, filled at open.
typedef struct ImageInfo {
  int format;            // an ImageFormat
  int width, height;     // the picture (the logical screen for GIF, the data window for EXR)
  int frame_count;       // 1 except for animated GIF
  int has_alpha;         // the file carries transparency (alpha channel, tRNS, transparent index)
  int bits_per_channel;  // 8, 16, or 32 for float EXR data
  int bits_per_pixel;    // as stored: 1, 4, 8, 15, 16, 24, 32, 48, 64, 96, 128
  int is_palette;        // pixels are indices into a colour table
  int palette_size;      // entries of that table
  int is_gray;           // a grey-scale picture
  int is_hdr;            // wide-range float data (EXR)
  // Format details the media layer tests: the PNG colour type, TGA image type, TIFF photometric
  // value, BMP compression value, JPEG colour space (libjpeg's J_COLOR_SPACE), EXR compression.
  int sub_format;
  int alpha_bits;        // TGA attribute bits; TIFF extra-sample value + 1 (0 none); else 0/8/16
  int extra_samples;     // TIFF extra samples
  int compression;       // TIFF compression tag, BMP compression, TGA 1 for RLE
  int loop_count;        // GIF loop count (0 forever), -1 when the file gives none
  int cut_short;         // GIF: the file ends inside a frame behind the whole ones, left out
} ImageInfo;

// Size limits applied by every reader before it allocates. Process-wide; set before use.
enum { IMAGE_DEFAULT_MAX_SIDE = 32768 };
#define IMAGE_DEFAULT_MAX_PIXELS ((uint64_t)1 << 28)
void ImageSetLimits(uint32_t max_side, uint64_t max_pixels);
void ImageGetLimits(uint32_t* max_side, uint64_t* max_pixels);

// Guesses the format by content; `name` (may be null) breaks ties by its extension.
int ImageProbeFormat(const void* data, size_t size, const char* name);
// The format a file name's extension stands for, IMAGE_FORMAT_UNKNOWN when none.
int ImageFormatFromName(const char* name);
const char* ImageFormatName(int format);

typedef struct ImageFile ImageFile;

// Opens a file by name; the whole file is read into memory.
ImageFile* ImageFileOpen(const char* name, ImageError* error);
// Opens a copy of `size` bytes at `data`; `name` (may be null) serves the type probe.
ImageFile* ImageFileOpenMemory(const void* data, size_t size, const char* name, ImageError* error);
// Opens a copy of memory as the given format, without probing (fuzzing, callers that probed).
ImageFile* ImageFileOpenMemoryAs(const void* data, size_t size, int format, ImageError* error);
void ImageFileClose(ImageFile* file);

const ImageInfo* ImageFileInfo(const ImageFile* file);
// Delay of a frame in 1/100 second (GIF); 0 for other formats or frames without a delay.
int ImageFileFrameDelay(const ImageFile* file, int frame);
// The colour table of a palette picture as 0xAARRGGBB entries; returns the entry count.
int ImageFilePalette(const ImageFile* file, uint32_t palette[256]);

// Decodes frame `frame` (from 0) into `dest`, whose size must equal the picture's. Any source
// can be read into any pixel kind: 8-bit data is widened (v * 257, v / 255), 16-bit data is
// narrowed with rounding, float data is clamped to 0..1 for the integer kinds. Pictures without
// alpha read as opaque. Animated GIF frames come composed on the logical screen; reading the
// frames in order is cheap, going back restarts the animation.
int ImageFileReadFrame(ImageFile* file, int frame, const ImagePixels* dest, ImageError* error);

// Writers. The format comes from the parameters, never from the name.
typedef struct ImageWriteParams {
  int format;        // PNG, TGA, BMP, JPEG, TIFF or EXR
  int keep_alpha;    // store the alpha channel (PNG, TGA, BMP, TIFF, EXR)
  int jpeg_quality;  // 0..100
  int exr_half;      // EXR channels as 16-bit half floats instead of 32-bit floats
} ImageWriteParams;

int ImageWriteFile(const char* name, const ImageWriteParams* params, const ImagePixels* pixels,
                   ImageError* error);
// Writes into a buffer allocated with malloc; the caller frees it with ImageFreeMemory.
int ImageWriteMemory(const ImageWriteParams* params, const ImagePixels* pixels, void** data,
                     size_t* size, ImageError* error);
void ImageFreeMemory(void* data);

// Animated GIF writer: 8-bit index frames with a 256-entry palette each (0x00RRGGBB entries).
typedef struct ImageGifWriter ImageGifWriter;
typedef struct ImageGifFrame {
  const uint8_t* indices;   // top row first
  ptrdiff_t pitch;          // bytes from row to row
  const uint32_t* palette;  // 256 entries
  int delay;                // 1/100 second
  int disposal;             // 0 unspecified, 1 keep, 2 clear to background, 3 restore previous
  int transparent_index;    // -1 for none
  int left, top, width, height;  // the frame's rectangle on the screen; width 0 = whole screen
  int interlaced;
} ImageGifFrame;

// `loop_count` < 0 writes no loop extension; 0 loops forever.
ImageGifWriter* ImageGifWriterOpen(int width, int height, int loop_count, ImageError* error);
int ImageGifWriterAddFrame(ImageGifWriter* writer, const ImageGifFrame* frame, ImageError* error);
// Finishes the file and writes it to `name`, or into `*data`/`*size` (ImageFreeMemory) when
// `name` is null. The writer is freed in either case.
int ImageGifWriterFinish(ImageGifWriter* writer, const char* name, void** data, size_t* size,
                         ImageError* error);

#ifdef __cplusplus
}
#endif

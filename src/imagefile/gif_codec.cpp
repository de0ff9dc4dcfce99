// GIF through giflib's record-level calls. Opening walks the file once without decoding pixels,
// to count frames and collect delays, disposal values and transparency. Frames are composed on
// the logical screen in order; the decoder stays open so that reading the next frame continues
// where the previous read stopped. The writer makes animated files with a palette per frame.
#include "imagefile/imagefile_internal.h"

#include <cstdlib>

#include <gif_lib.h>

namespace orn::imagefile {

namespace {

// Beyond this many frames the rest of an animation is ignored (giflib keeps a record per frame).
constexpr size_t kMaxFrames = 20000;

struct MemoryReader {
  const uint8_t* data;
  size_t size;
  size_t at;
};

int ReadBytes(GifFileType* gif, GifByteType* out, int length) {
  auto* r = static_cast<MemoryReader*>(gif->UserData);
  if (length <= 0 || r->at >= r->size) return 0;
  const size_t count = std::min(size_t(length), r->size - r->at);
  std::memcpy(out, r->data + r->at, count);
  r->at += count;
  return int(count);
}

struct GifFrameInfo {
  int left = 0, top = 0, width = 0, height = 0;
  int disposal = 0;
  int transparent = -1;
  int delay = 0;
};

struct GifState : ReaderState {
  std::vector<GifFrameInfo> frames;
  uint32_t background = 0;
  MemoryReader reader{};
  GifFileType* gif = nullptr;
  int next_frame = 0;          // the frame the open decoder reaches next
  std::vector<uint32_t> canvas;
  std::vector<uint32_t> saved;  // the canvas before a frame with disposal 3
  std::vector<uint8_t> indices;

  ~GifState() override { CloseDecoder(); }
  void CloseDecoder() {
    if (gif) DGifCloseFile(gif, nullptr);
    gif = nullptr;
  }
};

GifFileType* OpenDecoder(ImageFile* file, MemoryReader* reader) {
  *reader = MemoryReader{file->data.data(), file->data.size(), 0};
  int err = 0;
  return DGifOpen(reader, ReadBytes, &err);
}

// Skips the data blocks of an extension or of an image's compressed data.
bool SkipExtensionBlocks(GifFileType* gif, GifByteType* block) {
  while (block) {
    if (DGifGetExtensionNext(gif, &block) == GIF_ERROR) return false;
  }
  return true;
}

bool SkipImageData(GifFileType* gif) {
  int code_size = 0;
  GifByteType* block = nullptr;
  if (DGifGetCode(gif, &code_size, &block) == GIF_ERROR) return false;
  while (block) {
    if (DGifGetCodeNext(gif, &block) == GIF_ERROR) return false;
  }
  return true;
}

// Reads one extension record; notes a graphics control block and the loop count.
bool ReadExtension(GifFileType* gif, GifFrameInfo* pending, int* loop_count) {
  int code = 0;
  GifByteType* block = nullptr;
  if (DGifGetExtension(gif, &code, &block) == GIF_ERROR) return false;
  if (code == GRAPHICS_EXT_FUNC_CODE && block && block[0] >= 4) {
    GraphicsControlBlock gcb;
    if (DGifExtensionToGCB(block[0], block + 1, &gcb) == GIF_OK) {
      pending->disposal = gcb.DisposalMode;
      pending->delay = gcb.DelayTime;
      pending->transparent = gcb.TransparentColor;
    }
  } else if (code == APPLICATION_EXT_FUNC_CODE && block && block[0] == 11 && loop_count &&
             std::memcmp(block + 1, "NETSCAPE2.0", 11) == 0) {
    if (DGifGetExtensionNext(gif, &block) == GIF_ERROR) return false;
    if (block && block[0] >= 3 && block[1] == 1) *loop_count = block[2] | block[3] << 8;
  }
  return SkipExtensionBlocks(gif, block);
}

int GifOpen(ImageFile* file, ImageError* error) {
  auto* st = new GifState;
  file->state = st;
  MemoryReader reader;
  GifFileType* gif = OpenDecoder(file, &reader);
  if (!gif) return Fail(error, IMAGE_ERROR_CORRUPT, "GIF header is damaged");
  ImageInfo& info = file->info;
  info.width = gif->SWidth;
  info.height = gif->SHeight;
  if (!SizeAllowed(uint64_t(info.width), uint64_t(info.height), error)) {
    DGifCloseFile(gif, nullptr);
    return 0;
  }
  GifFrameInfo pending;
  bool done = false;
  while (!done && st->frames.size() < kMaxFrames) {
    GifRecordType type;
    if (DGifGetRecordType(gif, &type) == GIF_ERROR) {
      info.cut_short = 1;  // the file ends before its trailer
      break;
    }
    switch (type) {
      case IMAGE_DESC_RECORD_TYPE: {
        if (DGifGetImageDesc(gif) == GIF_ERROR) {
          info.cut_short = 1;
          done = true;
          break;
        }
        const GifImageDesc& d = gif->Image;
        if (!SizeAllowed(uint64_t(d.Width), uint64_t(d.Height), nullptr)) { done = true; break; }
        if (!SkipImageData(gif)) {
          info.cut_short = 1;  // a frame whose data the file does not hold whole
          done = true;
          break;
        }
        pending.left = d.Left;
        pending.top = d.Top;
        pending.width = d.Width;
        pending.height = d.Height;
        st->frames.push_back(pending);
        pending = GifFrameInfo{};
        break;
      }
      case EXTENSION_RECORD_TYPE:
        if (!ReadExtension(gif, &pending, &info.loop_count)) done = true;
        break;
      default:
        done = true;  // the trailer, or a record type giflib does not know
        break;
    }
  }
  const ColorMapObject* map = gif->SColorMap;
  if (!map && gif->ImageCount > 0) map = gif->SavedImages[0].ImageDesc.ColorMap;
  if (map) {
    for (int i = 0; i < map->ColorCount && i < 256; ++i) {
      const GifColorType& c = map->Colors[i];
      file->palette.push_back(0xFF000000u | uint32_t(c.Red) << 16 | uint32_t(c.Green) << 8 | c.Blue);
    }
  }
  const int background_index = gif->SBackGroundColor;
  DGifCloseFile(gif, nullptr);
  if (st->frames.empty()) return Fail(error, IMAGE_ERROR_CORRUPT, "GIF holds no complete frame");

  for (const GifFrameInfo& f : st->frames) {
    info.has_alpha |= f.transparent >= 0;
    file->delays.push_back(f.delay);
  }
  // Clear to transparent when the animation uses transparency, else to the background colour.
  st->background = info.has_alpha ? 0u
                   : size_t(background_index) < file->palette.size() ? file->palette[size_t(background_index)]
                                                                      : 0xFF000000u;
  info.frame_count = int(st->frames.size());
  info.is_palette = 1;
  info.palette_size = int(file->palette.size());
  info.bits_per_pixel = 8;
  info.sub_format = info.frame_count > 1 ? 1 : 0;
  return 1;
}

// Decodes the next frame's indices (rows in display order) into st->indices.
bool DecodeIndices(GifState* st, GifFileType* gif) {
  const GifImageDesc& d = gif->Image;
  const size_t w = size_t(d.Width), h = size_t(d.Height);
  st->indices.assign(w * h, 0);
  if (!d.Interlace) {
    for (size_t y = 0; y < h; ++y)
      if (DGifGetLine(gif, &st->indices[y * w], int(w)) == GIF_ERROR) return false;
    return true;
  }
  static const size_t kStart[4] = {0, 4, 2, 1}, kStep[4] = {8, 8, 4, 2};
  for (int pass = 0; pass < 4; ++pass)
    for (size_t y = kStart[pass]; y < h; y += kStep[pass])
      if (DGifGetLine(gif, &st->indices[y * w], int(w)) == GIF_ERROR) return false;
  return true;
}

// Moves the decoder to the next image and reads its descriptor.
bool NextImage(GifFileType* gif) {
  for (;;) {
    GifRecordType type;
    if (DGifGetRecordType(gif, &type) == GIF_ERROR) return false;
    if (type == IMAGE_DESC_RECORD_TYPE) return DGifGetImageDesc(gif) != GIF_ERROR;
    GifFrameInfo ignored;
    if (type != EXTENSION_RECORD_TYPE || !ReadExtension(gif, &ignored, nullptr)) return false;
  }
}

void FillRect(std::vector<uint32_t>& canvas, int screen_w, int screen_h, const GifFrameInfo& f, uint32_t colour) {
  for (int y = std::max(f.top, 0); y < std::min(f.top + f.height, screen_h); ++y)
    for (int x = std::max(f.left, 0); x < std::min(f.left + f.width, screen_w); ++x)
      canvas[size_t(y) * size_t(screen_w) + size_t(x)] = colour;
}

void DrawFrame(GifState* st, GifFileType* gif, const GifFrameInfo& f, int screen_w, int screen_h) {
  const ColorMapObject* map = gif->Image.ColorMap ? gif->Image.ColorMap : gif->SColorMap;
  uint32_t colours[256];
  for (int i = 0; i < 256; ++i) {
    colours[i] = map && i < map->ColorCount
                     ? 0xFF000000u | uint32_t(map->Colors[i].Red) << 16 | uint32_t(map->Colors[i].Green) << 8 | map->Colors[i].Blue
                     : 0xFF000000u | uint32_t(i) * 0x010101u;  // no colour table: a grey ramp
  }
  for (int y = 0; y < f.height; ++y) {
    const int sy = f.top + y;
    if (sy < 0 || sy >= screen_h) continue;
    const uint8_t* src = &st->indices[size_t(y) * size_t(f.width)];
    uint32_t* dst = &st->canvas[size_t(sy) * size_t(screen_w)];
    for (int x = 0; x < f.width; ++x) {
      const int sx = f.left + x;
      if (sx >= 0 && sx < screen_w && src[x] != f.transparent) dst[sx] = colours[src[x]];
    }
  }
}

// Composes the next frame onto the canvas; false when its data is damaged (drawn as far as read).
bool ComposeNext(ImageFile* file, GifState* st) {
  const int w = file->info.width, h = file->info.height;
  const int n = st->next_frame++;
  const GifFrameInfo& f = st->frames[size_t(n)];
  if (n > 0) {  // undo the previous frame as its disposal asks
    const GifFrameInfo& prev = st->frames[size_t(n - 1)];
    if (prev.disposal == DISPOSE_BACKGROUND) FillRect(st->canvas, w, h, prev, st->background);
    if (prev.disposal == DISPOSE_PREVIOUS && st->saved.size() == st->canvas.size()) st->canvas = st->saved;
  }
  if (f.disposal == DISPOSE_PREVIOUS) st->saved = st->canvas;
  if (!NextImage(st->gif)) return false;
  const GifImageDesc& d = st->gif->Image;
  if (d.Width != f.width || d.Height != f.height) return false;
  const bool complete = DecodeIndices(st, st->gif);
  DrawFrame(st, st->gif, f, w, h);
  return complete;
}

int GifRead(ImageFile* file, int frame, const ImagePixels* dest, ImageError* error) {
  auto* st = static_cast<GifState*>(file->state);
  if (!st->gif || frame < st->next_frame - 1) {  // start again from the first frame
    st->CloseDecoder();
    st->gif = OpenDecoder(file, &st->reader);
    if (!st->gif) return Fail(error, IMAGE_ERROR_CORRUPT, "GIF header is damaged");
    st->next_frame = 0;
    st->canvas.assign(size_t(file->info.width) * size_t(file->info.height), st->background);
    st->saved.clear();
  }
  bool ok = true;
  while (ok && st->next_frame <= frame) ok = ComposeNext(file, st);
  for (int y = 0; y < dest->height; ++y) StoreRowArgb(dest, y, &st->canvas[size_t(y) * size_t(dest->width)]);
  if (!ok) {
    st->CloseDecoder();  // the next read starts again
    return Fail(error, IMAGE_ERROR_CORRUPT, "GIF frame %d is damaged", frame);
  }
  return 1;
}

}  // namespace

const ImageCodec kGifCodec = {IMAGE_FORMAT_GIF, GifOpen, GifRead};

}  // namespace orn::imagefile

using namespace orn::imagefile;

struct ImageGifWriter {
  GifFileType* gif = nullptr;
  ByteSink sink;
  int width = 0, height = 0;
  bool failed = false;
};

namespace {

int WriteBytes(GifFileType* gif, const GifByteType* data, int length) {
  auto* writer = static_cast<ImageGifWriter*>(gif->UserData);
  writer->sink.bytes.insert(writer->sink.bytes.end(), data, data + length);
  return length;
}

bool PutLoopExtension(GifFileType* gif, int loop_count) {
  const GifByteType loop[3] = {1, GifByteType(loop_count & 255), GifByteType((loop_count >> 8) & 255)};
  return EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE) != GIF_ERROR &&
         EGifPutExtensionBlock(gif, 11, "NETSCAPE2.0") != GIF_ERROR &&
         EGifPutExtensionBlock(gif, 3, loop) != GIF_ERROR && EGifPutExtensionTrailer(gif) != GIF_ERROR;
}

}  // namespace

extern "C" {

ImageGifWriter* ImageGifWriterOpen(int width, int height, int loop_count, ImageError* error) {
  if (width <= 0 || height <= 0 || width > 65535 || height > 65535) {
    Fail(error, IMAGE_ERROR_ARGUMENT, "GIF screen of %dx%d", width, height);
    return nullptr;
  }
  auto* writer = new ImageGifWriter;
  writer->width = width;
  writer->height = height;
  int err = 0;
  writer->gif = EGifOpen(writer, WriteBytes, &err);
  if (!writer->gif) {
    delete writer;
    Fail(error, IMAGE_ERROR_WRITE, "GIF: %s", GifErrorString(err));
    return nullptr;
  }
  EGifSetGifVersion(writer->gif, true);
  if (EGifPutScreenDesc(writer->gif, width, height, 8, 0, nullptr) == GIF_ERROR ||
      (loop_count >= 0 && !PutLoopExtension(writer->gif, loop_count))) {
    EGifCloseFile(writer->gif, nullptr);
    delete writer;
    Fail(error, IMAGE_ERROR_WRITE, "GIF: cannot write the screen");
    return nullptr;
  }
  return writer;
}

int ImageGifWriterAddFrame(ImageGifWriter* writer, const ImageGifFrame* frame, ImageError* error) {
  if (!writer || !frame || !frame->indices || !frame->palette || writer->failed)
    return Fail(error, IMAGE_ERROR_ARGUMENT, "Bad GIF frame arguments");
  const int w = frame->width ? frame->width : writer->width;
  const int h = frame->width ? frame->height : writer->height;
  if (w <= 0 || h <= 0 || frame->left < 0 || frame->top < 0 || frame->left + w > writer->width ||
      frame->top + h > writer->height)
    return Fail(error, IMAGE_ERROR_ARGUMENT, "GIF frame lies outside the screen");
  GifFileType* gif = writer->gif;
  GraphicsControlBlock gcb{};
  gcb.DisposalMode = frame->disposal;
  gcb.DelayTime = frame->delay;
  gcb.TransparentColor = frame->transparent_index >= 0 && frame->transparent_index < 256 ? frame->transparent_index : NO_TRANSPARENT_COLOR;
  GifByteType extension[4];
  EGifGCBToExtension(&gcb, extension);
  GifColorType colours[256];
  for (int i = 0; i < 256; ++i) {
    colours[i].Red = GifByteType(frame->palette[i] >> 16);
    colours[i].Green = GifByteType(frame->palette[i] >> 8);
    colours[i].Blue = GifByteType(frame->palette[i]);
  }
  ColorMapObject* map = GifMakeMapObject(256, colours);
  bool ok = map && EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, 4, extension) != GIF_ERROR &&
            EGifPutImageDesc(gif, frame->left, frame->top, w, h, frame->interlaced != 0, map) != GIF_ERROR;
  GifFreeMapObject(map);
  static const int kStart[4] = {0, 4, 2, 1}, kStep[4] = {8, 8, 4, 2};
  const int passes = frame->interlaced ? 4 : 1;
  for (int pass = 0; pass < passes && ok; ++pass) {
    const int start = frame->interlaced ? kStart[pass] : 0, step = frame->interlaced ? kStep[pass] : 1;
    for (int y = start; y < h && ok; y += step) {
      auto* row = const_cast<GifPixelType*>(frame->indices + ptrdiff_t(y) * frame->pitch);
      ok = EGifPutLine(gif, row, w) != GIF_ERROR;
    }
  }
  if (!ok) {
    writer->failed = true;
    return Fail(error, IMAGE_ERROR_WRITE, "GIF: cannot write a frame");
  }
  return 1;
}

int ImageGifWriterFinish(ImageGifWriter* writer, const char* name, void** data, size_t* size, ImageError* error) {
  if (!writer) return Fail(error, IMAGE_ERROR_ARGUMENT, "No GIF writer");
  int err = 0;
  const bool closed = EGifCloseFile(writer->gif, &err) != GIF_ERROR;
  ByteSink sink = std::move(writer->sink);
  const bool failed = writer->failed;
  delete writer;
  if (!closed || failed) return Fail(error, IMAGE_ERROR_WRITE, "GIF: cannot finish the file");
  if (name) return WriteFileBytes(name, sink.bytes, error);
  if (!data || !size) return Fail(error, IMAGE_ERROR_ARGUMENT, "No output buffer");
  *data = std::malloc(sink.bytes.empty() ? 1 : sink.bytes.size());
  if (!*data) return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  if (!sink.bytes.empty()) std::memcpy(*data, sink.bytes.data(), sink.bytes.size());
  *size = sink.bytes.size();
  return 1;
}

}  // extern "C"

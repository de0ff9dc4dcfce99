// Motion-JPEG decoding through libjpeg-turbo. Library errors jump back through an error manager
// instead of ending the process; the jumping functions hold only plain locals.
#include "media/readers/mjpeg_codec.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

namespace orn::media {

namespace {

constexpr uint32_t kMaxSide = 16384;
constexpr int kMaxScans = 100;

// The standard Huffman tables of baseline JPEG: class/id byte, 16 code counts, symbols.
const uint8_t kDcLumaBits[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
const uint8_t kDcChromaBits[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
const uint8_t kDcValues[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
const uint8_t kAcLumaBits[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
const uint8_t kAcLumaValues[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07,
    0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0,
    0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28,
    0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49,
    0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69,
    0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89,
    0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7,
    0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5,
    0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2,
    0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8,
    0xf9, 0xfa};
const uint8_t kAcChromaBits[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
const uint8_t kAcChromaValues[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71,
    0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0,
    0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26,
    0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48,
    0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68,
    0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87,
    0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5,
    0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda,
    0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8,
    0xf9, 0xfa};

void AppendTable(std::vector<uint8_t>* out, uint8_t class_id, const uint8_t* bits, const uint8_t* values,
                 size_t count) {
  out->push_back(class_id);
  out->insert(out->end(), bits, bits + 16);
  out->insert(out->end(), values, values + count);
}

// Position of the first scan marker (FF DA), or 0 when the markers before it cannot be walked.
// Sets *has_tables when a DHT segment comes first.
size_t FindFirstScan(const uint8_t* d, size_t size, bool* has_tables) {
  *has_tables = false;
  if (size < 4 || d[0] != 0xFF || d[1] != 0xD8) return 0;
  size_t at = 2;
  while (at + 1 < size) {
    if (d[at] != 0xFF) return 0;
    while (at + 1 < size && d[at + 1] == 0xFF) ++at;  // fill bytes
    if (at + 1 >= size) return 0;
    const uint8_t marker = d[at + 1];
    if (marker == 0xDA) return at;
    if (marker == 0xC4) *has_tables = true;
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {
      at += 2;
      continue;
    }
    if (at + 4 > size) return 0;
    at += 2 + size_t(d[at + 2] << 8 | d[at + 3]);
  }
  return 0;
}

struct ErrorManager {
  jpeg_error_mgr base;
  jmp_buf jump;
};

void OnError(j_common_ptr info) { longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1); }
void OnMessage(j_common_ptr) {}

void OnProgress(j_common_ptr info) {
  auto* d = reinterpret_cast<j_decompress_ptr>(info);
  if (info->is_decompressor && d->input_scan_number > kMaxScans) OnError(info);
}

struct PictureResult {
  bool decoded;          // at least one row was written
  bool fields;           // the picture was half the frame height (a field)
  size_t consumed;       // bytes behind the picture's last scan data read so far
};

// Decodes one picture into rows first_row, first_row + step, ... of the frame. With
// `detect_fields` a picture of half the frame height is laid on the even rows.
PictureResult DecodePicture(const uint8_t* data, size_t size, uint8_t* pixels, ptrdiff_t pitch, uint32_t width,
                            uint32_t height, uint32_t first_row, bool detect_fields, uint8_t* scratch) {
  PictureResult result{false, false, 0};
  jpeg_decompress_struct cinfo;
  ErrorManager mgr;
  jpeg_progress_mgr progress;
  jpeg_std_error(&mgr.base);
  mgr.base.error_exit = OnError;
  mgr.base.output_message = OnMessage;
  progress.progress_monitor = OnProgress;
  cinfo.err = &mgr.base;
  jpeg_create_decompress(&cinfo);
  cinfo.progress = &progress;
  // Locals written after setjmp and read after the jump must be volatile.
  volatile uint32_t step = 1;
  volatile bool decoded = false;
  if (setjmp(mgr.jump)) {
    result.decoded = decoded;
    result.consumed = cinfo.src ? size - cinfo.src->bytes_in_buffer : 0;
    jpeg_destroy_decompress(&cinfo);
    return result;
  }
  jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
  jpeg_read_header(&cinfo, TRUE);
  const bool known = cinfo.jpeg_color_space == JCS_GRAYSCALE || cinfo.jpeg_color_space == JCS_YCbCr ||
                     cinfo.jpeg_color_space == JCS_RGB;
  if (!known || cinfo.image_width > kMaxSide || cinfo.image_height > kMaxSide) OnError(reinterpret_cast<j_common_ptr>(&cinfo));
  if (detect_fields && cinfo.image_height < height && cinfo.image_height * 2 >= height) result.fields = true;
  if (result.fields || first_row) step = 2;
  cinfo.out_color_space = JCS_EXT_BGRA;
  jpeg_start_decompress(&cinfo);
  const size_t copy = size_t(std::min<uint32_t>(width, cinfo.output_width)) * 4;
  while (cinfo.output_scanline < cinfo.output_height) {
    const uint32_t row = first_row + cinfo.output_scanline * step;
    JSAMPROW line = scratch;
    jpeg_read_scanlines(&cinfo, &line, 1);
    if (row < height) {
      std::memcpy(pixels + ptrdiff_t(row) * pitch, scratch, copy);
      decoded = true;
    }
  }
  result.decoded = decoded;
  result.consumed = size - cinfo.src->bytes_in_buffer;
  jpeg_finish_decompress(&cinfo);
  result.consumed = size - cinfo.src->bytes_in_buffer;
  jpeg_destroy_decompress(&cinfo);
  return result;
}

// The next start of a picture (FF D8 FF) at or behind `from`, or size when there is none.
size_t NextPicture(const uint8_t* d, size_t size, size_t from) {
  for (size_t i = from; i + 2 < size; ++i)
    if (d[i] == 0xFF && d[i + 1] == 0xD8 && d[i + 2] == 0xFF) return i;
  return size;
}

}  // namespace

bool MjpegHasHuffmanTables(const uint8_t* data, size_t size) {
  bool has = false;
  return FindFirstScan(data, size, &has) == 0 || has;
}

bool MjpegInsertStandardTables(const uint8_t* data, size_t size, std::vector<uint8_t>* out) {
  bool has = false;
  const size_t scan = FindFirstScan(data, size, &has);
  if (scan == 0) return false;
  std::vector<uint8_t> segment = {0xFF, 0xC4, 0, 0};
  AppendTable(&segment, 0x00, kDcLumaBits, kDcValues, 12);
  AppendTable(&segment, 0x10, kAcLumaBits, kAcLumaValues, 162);
  AppendTable(&segment, 0x01, kDcChromaBits, kDcValues, 12);
  AppendTable(&segment, 0x11, kAcChromaBits, kAcChromaValues, 162);
  const size_t length = segment.size() - 2;
  segment[2] = uint8_t(length >> 8);
  segment[3] = uint8_t(length);
  out->clear();
  out->reserve(size + segment.size());
  out->insert(out->end(), data, data + scan);
  out->insert(out->end(), segment.begin(), segment.end());
  out->insert(out->end(), data + scan, data + size);
  return true;
}

bool MjpegDecodeFrame(MjpegBuffers* buffers, const uint8_t* data, size_t size, uint8_t* pixels, ptrdiff_t pitch,
                      uint32_t width, uint32_t height) {
  if (!buffers || !data || size < 4 || !pixels || width == 0 || height == 0) return false;
  if (buffers->scratch.size() < size_t(kMaxSide) * 4) buffers->scratch.resize(size_t(kMaxSide) * 4);
  uint8_t* scratch = buffers->scratch.data();
  if (!MjpegHasHuffmanTables(data, size) && MjpegInsertStandardTables(data, size, &buffers->fixed)) {
    data = buffers->fixed.data();
    size = buffers->fixed.size();
  }
  const PictureResult first = DecodePicture(data, size, pixels, pitch, width, height, 0, true, scratch);
  if (!first.decoded) return false;
  if (!first.fields) return true;
  // The second field: its own picture, maybe without tables too.
  const size_t at = NextPicture(data, size, first.consumed);
  if (at >= size) return true;
  const uint8_t* second = data + at;
  size_t second_size = size - at;
  if (!MjpegHasHuffmanTables(second, second_size) &&
      MjpegInsertStandardTables(second, second_size, &buffers->fixed_second)) {
    second = buffers->fixed_second.data();
    second_size = buffers->fixed_second.size();
  }
  DecodePicture(second, second_size, pixels, pitch, width, height, 1, false, scratch);
  return true;
}

}  // namespace orn::media

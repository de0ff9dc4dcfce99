// Small helpers shared by the media layer's files.
#include <sys/stat.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "media/media_internal.h"

int MediaSay(const ProgressSink& progress, int level, const char* format, ...) {
  if (!progress.fn) return 0;
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return ProgressSend(progress, text, level);
}

const char* MediaExtension(const char* name) {
  const char* dot = nullptr;
  for (const char* p = name; *p; ++p) {
    if (*p == '/' || *p == '\\' || *p == ':') dot = nullptr;
    else if (*p == '.') dot = p;
  }
  return dot && dot[1] ? dot : nullptr;
}

bool MediaSameText(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b)
    if (tolower(static_cast<unsigned char>(*a)) != tolower(static_cast<unsigned char>(*b)))
      return false;
  return *a == *b;
}

bool MediaFileExists(const char* name) {
  struct stat info;
  return stat(name, &info) == 0 && !S_ISDIR(info.st_mode);
}

uint64_t MediaFileSize(const char* name) {
  struct stat info;
  if (stat(name, &info) != 0 || S_ISDIR(info.st_mode)) return 0;
  return static_cast<uint64_t>(info.st_size);
}

bool MediaEnsureBuffer(uint8_t** buffer, size_t* bytes, size_t need) {
  if (*buffer && *bytes >= need) return true;
  uint8_t* fresh = static_cast<uint8_t*>(calloc(need ? need : 1, 1));
  if (!fresh) return false;
  free(*buffer);
  *buffer = fresh;
  *bytes = need;
  return true;
}

namespace {

// One axis of the crop window: the window [request, request + size) against [0, picture).
void PlaceAxis(int32_t request, uint32_t size, uint32_t picture, int32_t* crop, uint32_t* visible,
               int32_t* padLow, int32_t* padHigh) {
  const int64_t low = request, high = int64_t(request) + size;
  const int64_t seenLow = low > 0 ? low : 0;
  const int64_t seenHigh = high < int64_t(picture) ? high : int64_t(picture);
  if (seenHigh <= seenLow) {  // wholly outside: all padding
    *crop = 0;
    *visible = 0;
    *padLow = 0;
    *padHigh = static_cast<int32_t>(size);
    return;
  }
  *crop = static_cast<int32_t>(seenLow);
  *visible = static_cast<uint32_t>(seenHigh - seenLow);
  *padLow = -static_cast<int32_t>(seenLow - low);
  *padHigh = static_cast<int32_t>(high - seenHigh);
}

}  // namespace

void MediaPlaceWindow(MediaInput* input, uint32_t width, uint32_t height) {
  PlaceAxis(input->crop_x_request, input->output_width, width, &input->crop_x,
            &input->visible_width, &input->pad_left, &input->pad_right);
  PlaceAxis(input->crop_y_request, input->output_height, height, &input->crop_y,
            &input->visible_height, &input->pad_top, &input->pad_bottom);
}

void MediaCloseReader(MediaInput* input) {
  if (input->reader && input->reader->close && input->reader_state) input->reader->close(input);
  input->reader_state = nullptr;
  input->reader = nullptr;
}

// Lists (".lst") and numbered series as one sound: each entry is opened in turn as a sound of
// its own, converted to the format of the first entry, and read through until it ends.
//
// A list line's /S and /E are milliseconds within that entry. The open walks the whole list
// once to learn each entry's length, so that a start position can pass over whole entries
// without opening them.
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "media/media_internal.h"
#include "media/media_list.h"
#include "media/sound_source.h"

namespace {

constexpr uint64_t MaxListFileBytes = 1 << 20;
// Lists may name lists; a list that names itself stops here.
constexpr int MaxListDepth = 4;
thread_local int ListDepth = 0;

struct SoundList {
  MediaList* list = nullptr;
  uint32_t rate = 0, bits = 0, channels = 0;  // the list's format: its first entry's output
  uint32_t bytes_per_sample = 0;
  uint32_t track = 0;
  uint32_t force = 0, skip = 0;  // a raw type for entries that are raw files
  SoundInput* entry = nullptr;
  std::vector<uint64_t> lengths;  // output samples of each entry, in walk order
};

MediaList* ReadListFile(const char* name) {
  FILE* file = fopen(name, "rb");
  if (!file) return nullptr;
  std::vector<char> text(MaxListFileBytes);
  const size_t got = fread(text.data(), 1, text.size(), file);
  fclose(file);
  char folder[MediaNameBytes];
  snprintf(folder, sizeof folder, "%s", name);
  char* slash = strrchr(folder, '/');
  if (slash)
    slash[1] = 0;
  else
    folder[0] = 0;
  return MediaListParse(text.data(), got, folder);
}

// A line's range in milliseconds; the walk gives 0, 0 for a whole file and start 1 when only
// an end was given.
uint32_t EntryStart(const MediaListItem& item) {
  return item.start > 1 ? static_cast<uint32_t>(item.start) : 0;
}
uint32_t EntryEnd(const MediaListItem& item) {
  return item.end > 0 && item.end != MediaListDefaultEnd ? static_cast<uint32_t>(item.end) : 0;
}

SoundInput* OpenEntry(const SoundList* list, const MediaListItem& item, uint32_t rate,
                      uint32_t bits, uint32_t channels, uint64_t offset_ms) {
  uint64_t start = EntryStart(item) + offset_ms;
  const uint32_t end = EntryEnd(item);
  if (start > 0xFFFFFFFFu) start = 0xFFFFFFFFu;
  return SoundOpen(item.name, rate, bits, channels, static_cast<uint32_t>(start), end, list->track,
                   list->force, list->skip, {});
}

// Opens every entry once: the first sets the format, each gives its length.
bool Enumerate(SoundList* list, const SoundOpenRequest& request) {
  MediaListItem item;
  while (MediaListNext(list->list, &item, nullptr, nullptr)) {
    const bool first = list->lengths.empty();
    SoundInput* entry = first ? OpenEntry(list, item, request.rate, request.bits, request.channels, 0)
                              : OpenEntry(list, item, list->rate, list->bits, list->channels, 0);
    if (!entry) return false;
    if (first) {
      list->rate = entry->rate;
      list->bits = entry->bits;
      list->channels = entry->channels;
      list->bytes_per_sample = entry->bytes_per_sample;
    }
    list->lengths.push_back(entry->total_bytes / entry->bytes_per_sample);
    SoundClose(entry);
  }
  MediaListRewind(list->list);
  return !list->lengths.empty();
}

void CloseEntry(SoundList* list) {
  SoundClose(list->entry);
  list->entry = nullptr;
}

uint32_t ListRead(void* state, uint8_t* dest, uint32_t bytes) {
  SoundList* list = static_cast<SoundList*>(state);
  uint32_t done = 0;
  while (done < bytes) {
    if (!list->entry) {
      MediaListItem item;
      if (!MediaListNext(list->list, &item, nullptr, nullptr)) break;
      list->entry = OpenEntry(list, item, list->rate, list->bits, list->channels, 0);
      if (!list->entry) break;  // an entry that no longer opens ends the list
    }
    const uint32_t got = SoundRead(list->entry, dest + done, bytes - done);
    if (got == 0) CloseEntry(list);
    done += got;
  }
  return done;
}

// Passes over output samples of the open entry by reading them.
bool Discard(SoundList* list, uint64_t samples) {
  uint8_t scratch[4096];
  const uint32_t per = sizeof scratch / list->bytes_per_sample;
  while (samples > 0) {
    const uint32_t n = samples < per ? static_cast<uint32_t>(samples) : per;
    const uint32_t got = SoundRead(list->entry, scratch, n * list->bytes_per_sample);
    if (got == 0) return true;
    samples -= got / list->bytes_per_sample;
  }
  return true;
}

// Whole entries shorter than what is left to skip are passed over unopened; the entry that
// holds the position is opened at its millisecond, and the rest is read away.
bool ListSeek(void* state, uint64_t sample) {
  SoundList* list = static_cast<SoundList*>(state);
  CloseEntry(list);
  MediaListRewind(list->list);
  MediaListItem item;
  for (size_t index = 0; index < list->lengths.size(); ++index) {
    if (!MediaListNext(list->list, &item, nullptr, nullptr)) return false;
    if (sample >= list->lengths[index]) {
      sample -= list->lengths[index];
      continue;
    }
    const uint64_t ms = sample * 1000 / list->rate;
    list->entry = OpenEntry(list, item, list->rate, list->bits, list->channels, ms);
    return list->entry && Discard(list, sample - ms * list->rate / 1000);
  }
  return sample == 0;
}

void ListClose(void* state) {
  SoundList* list = static_cast<SoundList*>(state);
  CloseEntry(list);
  MediaListFree(list->list);
  delete list;
}

const SoundSourceOps ListOps = {ListRead, ListSeek, ListClose, false};

}  // namespace

bool SoundIsListName(const char* name) {
  if (strchr(name, '?')) return true;
  FileSeries series;
  if (strchr(name, '%') && SeriesParse(name, &series)) return true;
  const char* extension = MediaExtension(name);
  return extension && MediaSameText(extension, ".lst");
}

bool SoundOpenList(const SoundOpenRequest& request, SoundReader* reader) {
  if (ListDepth >= MaxListDepth) return false;
  SoundList* list = new (std::nothrow) SoundList;
  if (!list) return false;
  const char* extension = MediaExtension(request.name);
  const bool file = extension && MediaSameText(extension, ".lst");
  list->list = file ? ReadListFile(request.name) : MediaListFromLine(request.name);
  list->track = request.track;
  list->force = request.force;
  list->skip = request.skip;
  ++ListDepth;
  const bool ok = list->list && Enumerate(list, request);
  --ListDepth;
  if (!ok) {
    ListClose(list);
    return false;
  }
  SoundFormat& f = reader->format;
  f.rate = list->rate;
  f.channels = list->channels;
  f.bits = list->bits;
  f.bytes_per_sample = list->bytes_per_sample;
  for (uint64_t length : list->lengths) f.total_samples += length;
  reader->ops = &ListOps;
  reader->state = list;
  reader->kind = SoundKindList;
  reader->type_name = "List";
  return true;
}

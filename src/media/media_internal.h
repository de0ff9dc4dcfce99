// Shared helpers of the media layer's source files; not for other subsystems.
#pragma once
#include <cstdarg>
#include <cstdio>
#include <cstddef>
#include <cstdint>

#include "media/media.h"

// Formats a message and hands it to the input's progress function; returns its answer (0
// when there is none).
int MediaSay(const ProgressSink& progress, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The extension of a name (pointing at its "."), or null: a "." behind the last "/", "\" or ":".
const char* MediaExtension(const char* name);
bool MediaSameText(const char* a, const char* b);  // without regard to case
bool MediaFileExists(const char* name);
uint64_t MediaFileSize(const char* name);

// Makes `*buffer` hold at least `need` bytes, zero-filled when (re)made; false on memory
// failure (the old buffer stays).
bool MediaEnsureBuffer(uint8_t** buffer, size_t* bytes, size_t need);

// The crop window against a picture of `width` by `height`: crop_x, crop_y, visible size and
// padding, from the crop request and the output size.
void MediaPlaceWindow(MediaInput* input, uint32_t width, uint32_t height);

// Finds and runs the probe for `name` (steps of the type table); on failure the reason went
// to progress. The input's file_name, open flags and want_alpha are set before.
bool MediaProbe(MediaInput* input, const char* name);
// A probe whose format matched the file's head but could not open it notes why; MediaProbe
// puts the last reason under "Error opening: %s" when no row succeeds.
void MediaNoteProbeFailure(const char* reason);

// A reader that cannot deliver a whole frame says here what is missing (printf-style); the
// pipeline puts it under "Error reading: <file>" when the read fails.
void MediaNoteReadProblem(MediaInput* input, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// A frame that the format allows to be short (the cut end of a recording): one warning for the
// input, naming the file, and the run goes on.
void MediaWarnShortFrame(MediaInput* input, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Frees what the reader holds.
void MediaCloseReader(MediaInput* input);

// Reports a crash of a guarded region: the warning once a run, the status line every time.
void MediaReportCrash(MediaInput* input, uint32_t region);

// The reader rows built into this program.
extern const MediaReaderOps MediaBmpReader, MediaGifReader, MediaTiffReader, MediaJpegReader,
    MediaTgaReader, MediaPngReader, MediaExrReader, MediaVelmoReader, MediaWaveReader,
    MediaSoundOnlyReader;

// The open arguments of a list's entries: the list's flags, forced rate and scale request; no
// crop and no adjusted rate (the list itself adds and drops frames).
MediaOpenArgs MediaListEntryArgs(const MediaInput* list, int32_t start, int32_t end);

/* The flag words of the reader library: the file's flags (the handle's FileFlags), the open
 * flags (VelmoOpen's argument, completed in the handle's OpenFlags) and the flags of the copy
 * calls (VelmoCopyToBuffer). A few bits mean the same in all three words and have the same
 * value there; each word still has names of its own. */
#ifndef ORN_VELMO_FLAGS_H
#define ORN_VELMO_FLAGS_H

/* File flags: the Flags word of the file's header. Bits not named here carry no meaning for
 * playback. */
enum {
  VelmoFlagSliceMode = 0x3,        /* second generation: slices per frame, 0..3 = 2, 3, 4, 8 */
  VelmoFlagHdr = 0x4,              /* HDR colour; frames fill the HDR plane */
  VelmoFlagFullRange = 0x10,       /* full-range YCrCb */
  VelmoFlagColourMatrix = 0x10000, /* the file brings its own colour matrix */
  VelmoFlagGrayscale = 0x20000,    /* no chroma planes */
  VelmoFlagAlpha = 0x100000,       /* an alpha plane */
  VelmoFlagTextWordsShift = 24     /* bits 24-31: the file's extra text, in 32-bit words */
};

/* Open flags, as the caller passes them (some are added by the library). */
enum {
  VelmoOpenSliceMode = VelmoFlagSliceMode,   /* from the file's flags */
  VelmoOpenHdr = VelmoFlagHdr,               /* from the file's flags */
  VelmoOpenFullRange = VelmoFlagFullRange,   /* from the file's flags */
  VelmoOpenFileOffset = 0x20,         /* use FileOffset */
  VelmoOpenKeepThreads = 0x40,        /* keep the background threads when the last file closes */
  VelmoOpenFileLoop = 0x80,           /* at the end of the file, touch the loop point once; the
                                         read-ahead clears the flag when it does */
  VelmoOpenOwnBuffers = 0x100,        /* the caller brings its frame buffers: becomes 0x400 */
  VelmoOpenNoBuffers = 0x400,         /* allocate no frame buffers; no decoding */
  VelmoOpenForceRate = 0x1000,        /* use ForcedRate */
  VelmoOpenPreload = 0x2000,          /* preload all frames into memory */
  VelmoOpenTrackList = 0x4000,        /* use the track list */
  VelmoOpenOldFirst = 0x8000,         /* set by the library for the old first-generation files */
  VelmoOpenGrayscale = VelmoFlagGrayscale,   /* from the file's flags */
  VelmoOpenNeverSkip = 0x80000,       /* never skip a frame */
  VelmoOpenAlpha = VelmoFlagAlpha,    /* decode the alpha plane; dropped if the file has none */
  VelmoOpenNoFill = 0x200000,         /* do not fill the read buffer during the open */
  VelmoOpenSimulate = 0x400000,       /* use SimulateRate */
  VelmoOpenFileHandle = 0x800000,     /* the name argument is an open file handle */
  VelmoOpenIOSize = 0x1000000,        /* use IOBufferSize */
  VelmoOpenCustomIO = 0x2000000,      /* use CustomIO */
  VelmoOpenImage = 0x4000000,         /* the name argument points at a file image in memory */
  VelmoOpenNoBackground = 0x8000000,  /* reads happen in the caller's thread */
  VelmoOpenReadWhole = 0x10000000     /* read the whole file into a block and return that */
};

/* Copy flags: a surface format in the low four bits (other values copy nothing), and option
 * bits. Channel positions are bit positions in a little-endian pixel word. Grayscale and the
 * alpha flip also apply when the handle's OpenFlags have them. */
enum {
  VelmoSurfaceFormatMask = 0xF,
  VelmoSurfaceXrgb32 = 3,      /* 32-bit, blue at bit 0, green 8, red 16, alpha 24 */
  VelmoSurfaceXbgr32 = 4,      /* 32-bit, red at bit 0, green 8, blue 16, alpha 24 */
  VelmoSurfaceArgb32 = 5,      /* as 3 */
  VelmoSurfaceAbgr32 = 6,      /* as 4 */
  VelmoSurfaceRgb555 = 8,      /* 16-bit 1-5-5-5, alpha in the top bit */
  VelmoSurfaceArgb1555 = 9,    /* as 8 */
  VelmoSurfaceRgb565 = 10,     /* 16-bit 5-6-5, no alpha */
  VelmoSurfaceArgb32Alt = 12,  /* 32-bit as 3, converted by the second 32-bit kernel */

  VelmoCopyFlipAlpha = 0x800,                /* show the alpha plane as luma and luma as alpha */
  VelmoCopyGrayscale = VelmoOpenGrayscale,   /* luma only; chroma is neutral */
  VelmoCopyNeverSkip = VelmoOpenNeverSkip    /* the skip check only reports; the copy happens */
};

#endif

/* The I/O provider: the table of functions with a ring buffer behind it that stands between the
 * reader library and the file. One `IOProvider` record lives inside each open handle. Its first
 * seven fields are the operations the library calls (a custom provider fills them in from its
 * open function); then come the services the library gives to the provider; then the state.
 *
 * This header is part of the public C interface: velmo.h includes it so that programs can write
 * their own providers. Keep it plain C; internal C++ declarations of the I/O module belong in a
 * header of their own. */
#ifndef ORN_VELMO_IO_H
#define ORN_VELMO_IO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct VelmoHandle;
struct VelmoOpenOptions;
typedef struct IOProvider IOProvider;

/* Positions and sizes that mean "go on from where the last read ended" and "could not lock". */
#define VELMO_IO_CONTINUE UINT64_C(0xFFFFFFFFFFFFFFFF)
#define VELMO_IO_BUSY 0xFFFFFFFFu

/* The account of a simulated slow medium, kept by the provider and handed to the library's
 * SimulateWait: the ms owed (below 0, credit for the next read) and the medium's rate. */
typedef struct VelmoSimulateCounter {
  int64_t Owed;
  uint32_t Rate; /* bytes per second; 0 = no simulation */
} VelmoSimulateCounter;

/* `BackgroundControl` bits. */
enum {
  VelmoIOSuspend = 0x1,          /* suspend reading ahead */
  VelmoIOResume = 0x2,           /* resume it */
  VelmoIOTestFree = 0x40000000,  /* try the lock; report 1 if it was free */
  VelmoIOFlush = (int)0x80000000 /* with suspend: wait until no read runs; with resume: one Idle */
};

struct IOProvider {
  /* 1-7: operations, given by the provider. */
  /* Unbuffered read; position VELMO_IO_CONTINUE goes on from the last read's end. */
  uint64_t (*ReadHeader)(IOProvider* io, uint64_t position, void* dest, uint64_t size);
  /* Read through the ring. Returns the bytes delivered. */
  uint64_t (*ReadFrame)(IOProvider* io, uint32_t frame, uint64_t position, void* dest,
                        uint64_t size);
  /* What the provider will use when asked for a buffer of `wanted` bytes. */
  uint64_t (*GetBufferSize)(IOProvider* io, uint64_t wanted);
  /* Gives the provider its buffer. */
  void (*SetInfo)(IOProvider* io, void* buffer, uint64_t size, uint64_t fileSize,
                  uint32_t simulateRate);
  /* One step of reading ahead: bytes read, 0 if nothing to do, VELMO_IO_BUSY if it could not
   * lock. */
  uint32_t (*Idle)(IOProvider* io);
  void (*Close)(IOProvider* io);
  /* Suspend/resume control; returns the suspended state (or the lock test with bit 30). */
  uint32_t (*BackgroundControl)(IOProvider* io, uint32_t control);

  /* 8-18: services, given by the library (15 and 18 optional, null when not installed). */
  struct VelmoHandle* Owner;
  void (*Lock)(IOProvider* io);        /* the provider lock, unless no background reading */
  uint32_t (*TryLock)(IOProvider* io); /* nonzero if locked; always so without background */
  void (*Unlock)(IOProvider* io);
  void (*UnlockIfHeld)(IOProvider* io); /* try-lock with a long wait and unlock: a flush */
  /* Adds bytes * 1000 / the counter's rate ms to what the counter owes, takes off the time
   * since startTime, and sleeps off a positive debt 1 ms at a time; what is left (at most 0)
   * stays in the counter for the next read. */
  void (*SimulateWait)(VelmoSimulateCounter* counter, uint64_t bytes, uint32_t startTime);
  uint32_t (*Timer)(void);
  void (*AfterRead)(void* dest, uint64_t bytes);
  void (*AddCounter)(volatile uint64_t* address, int64_t delta); /* atomic 64-bit add */
  void (*CopyBytes)(void* dest, const void* source, uint64_t bytes);
  void (*BeforeRead)(IOProvider* io, uint64_t position, uint64_t size);

  /* State. */
  uint64_t BytesRead;            /* all bytes read from the medium */
  uint64_t BufferSize;           /* bytes of ring, 0 when reading directly */
  uint64_t HighWater;            /* largest BufferUsed so far */
  uint64_t BufferFree;           /* room that could still be filled, for statistics */
  volatile uint64_t BufferUsed;  /* bytes in the ring ready to copy out; AddCounter only */
  uint32_t ReadError;            /* set on any short read */
  uint32_t Reading;              /* 1 while the medium is being read */
  uint32_t InCall;               /* copy of the handle's InFrame */
  uint32_t IOTime;               /* ms in all reads */
  uint32_t IdleTime;             /* ms of reads that began while no library call ran */
  uint32_t ThreadTime;           /* ms of reads that began during a library call */
  uint32_t Suspended;            /* 1 if reading ahead is suspended */
  uint64_t BaseOffset;           /* the handle's FileOffset */
  uint64_t FileTotal;            /* bytes of the whole file */
  uint64_t LogicalPos;           /* file position of the next byte to copy out */
  uint64_t FileHandle;           /* platform handle; closed with the provider if owned */
  volatile uint64_t RingRead;    /* offset of the next byte to copy out; AddCounter only */
  uint64_t NextFilePos;          /* next position to fetch from the file */
  volatile uint64_t RingFree;    /* free bytes; AddCounter only */
  uint8_t* RingWrite;
  uint8_t* RingStart;
  uint8_t* RingEnd;
  uint32_t WrapRead;             /* the read-ahead has been to the file's start at a loop */
  uint32_t OwnsHandle;           /* 0 if the file handle was passed in */

  /* Provider-owned extras. */
  VelmoSimulateCounter Simulate; /* the simulated medium: its rate and what is owed to it */
  void* Context;                 /* a custom provider's own data */
  uint64_t MediumPos;            /* the medium's place (without BaseOffset); all ones unknown */
  uint64_t RingBase;             /* while the ring holds the whole file: the file position of
                                    ring offset 0, */
  uint64_t RingHeldFrom;         /* and of the first byte it holds */
};

/* Opens a provider on `name` (a path; an open file handle with open flag 0x800000; whatever a
 * custom provider takes) and fills in its operations. Nonzero on success. On failure it may
 * leave a message through VelmoSetError. */
typedef uint32_t (*VelmoIOOpenFunction)(IOProvider* io, const char* name, uint32_t flags,
                                        const struct VelmoOpenOptions* options);

#ifdef __cplusplus
}
#endif

#endif

// The search for the quality value that brings a second-generation frame to its byte budget.
//
// Quality is handed out on a log scale: the encoder codes a pass at quality 2^x, and the
// search looks for the root of f(x) = log2(size at quality 2^x) - log2(budget). Size grows
// with x; x runs from -12.0 (the least a frame can take: its floor) to 15.0. The search is a
// bracketing root finder driven as a state machine: it hands out one x at a time, is told the
// size each pass came to, and alternates interpolation and bisection once it holds a bracket.
// The caller ends it long before the bracket closes (by its tolerance and pass limit).
//
// The record lives as long as the encoder: LastValue (where the last pass was) and Slope (the
// latest estimate of d log2(size) / dx) carry over, so each frame starts where the last ended.
#pragma once
#include <cstddef>
#include <cstdint>

#include "decode/velmo2_syntax.h"

// Which floor a frame is searched against.
enum : uint32_t {
  Velmo2FloorInter = 0,  // a frame that may skip macroblocks
  Velmo2FloorKey = 1,    // a frame of intra macroblocks only
};

constexpr uint32_t kVelmo2RateSamples = 64;
constexpr double kVelmo2RateLowest = -12.0;   // the log-quality of the floor
constexpr double kVelmo2RateHighest = 15.0;   // the highest log-quality handed out

struct Velmo2RateSample {
  double X;           // log2 of the quality
  double Y;           // log2 of the size in bytes
  double Distortion;
};

struct Velmo2RateSearch {
  double FloorLog[2];   // log2 of the least bytes of a frame, by Velmo2FloorInter / Velmo2FloorKey
  uint32_t FloorIndex;  // the floor of the current frame
  double TargetLog;     // log2 of the current frame's budget
  Velmo2RateSample Samples[kVelmo2RateSamples];
  uint32_t Count;       // samples of the current frame
  uint32_t State;       // 0 .. 10; 10: no further pass wanted
  double Value;         // the x to try next
  double A, B, C, D;    // the bracket and the interpolation points
  double FA, FB, FC, FD;
  double LastValue;     // x of the latest pass; carries over between frames
  double Slope;         // d log2(size) / dx; carries over between frames
};

// A fresh search with the two floor sizes in bytes (Velmo2FloorBytes).
Velmo2RateSearch Velmo2RateSearchCreate(double floorInterBytes, double floorKeyBytes);

// Starts the search of a frame against floor `floorIndex` and a budget in bytes, and steps:
// returns 1 with the first Value to try (0 would mean no pass is wanted).
int Velmo2RateSearchStart(Velmo2RateSearch& s, uint32_t floorIndex, double budgetBytes);

// Adds the result of a pass at `quality` (2^x) of `sizeBytes` bytes, refreshes Slope from the
// samples around it, and steps: returns 1 with the next Value, or 0 when no further pass is
// wanted (the search has nowhere left to go, or its sample store is full).
int Velmo2RateSearchAdd(Velmo2RateSearch& s, double quality, double sizeBytes,
                        double distortion);

// One step of the state machine: 1 with a new Value, or 0.
int Velmo2RateSearchStep(Velmo2RateSearch& s);

// The least bytes a frame can take in a picture of width x height cut into slices by
// `layout`: every macroblock coded with its shortest code (`key` false: all SKIPPED; true:
// all INTRA with no AC, no DC residual and an unchanged quantiser), plus the frame word, the
// slice offsets and each slice's padding to a whole word. `extraLumaPlanes` counts the alpha
// and HDR planes a key macroblock also codes.
double Velmo2FloorBytes(const Velmo2SliceLayout& layout, uint32_t width, uint32_t height,
                        bool key, uint32_t extraLumaPlanes);

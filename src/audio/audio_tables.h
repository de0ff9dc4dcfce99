// Figures shared by the Velmo sound encoder and decoder: block lengths, the critical-band
// layout, the quantiser steps and the 29-bit float form of the two leading coefficients.
#pragma once
#include <cstdint>

constexpr uint32_t VelmoAudioMaxBands = 25;
constexpr uint32_t VelmoAudioMaxLength = 4096;     // longest transform of either form
constexpr uint32_t VelmoAudioQuantSteps = 96;      // entries of the quantiser table
constexpr uint32_t VelmoAudioMaxIndex = 95;        // largest index the decoder uses
constexpr uint32_t VelmoAudioMaxMagnitude = 32767; // largest coded magnitude (15 bits)

// Band edges in Hz on the Bark scale.
extern const uint32_t VelmoAudioBandEdges[VelmoAudioMaxBands];

// Group counts (in groups of 8 coefficients) that a run may cover, by its 4-bit code.
extern const uint32_t VelmoAudioRunGroups[16];

// Samples per channel of one block, from the sample rate alone: 512, 1024 or 2048.
uint32_t VelmoAudioBlockSamples(uint32_t rate);

// Nyquist figure used by the band tables: (rate + 1) / 2.
inline uint32_t VelmoAudioNyquist(uint32_t bandRate) { return (bandRate + 1) / 2; }

// Number of band edges below Nyquist, at most 25.
uint32_t VelmoAudioBandCount(uint32_t bandRate);

// Fills bounds[0..bandCount] (in coefficient pairs) for transform length `length`. With
// `raiseZero` a bound of 0 becomes 1, as the decoder has it. bounds[bandCount] is length / 2.
void VelmoAudioBandBounds(uint32_t bandRate, uint32_t length, bool raiseZero,
                          uint32_t bandCount, uint32_t* bounds);

// Quantiser step of an index: 10 ^ (index * 0.0664); indices above 95 use entry 95.
float VelmoAudioQuantStep(uint32_t index);

// The 29-bit float: exponent in bits 0-4, mantissa in bits 5-27, sign in bit 28.
uint32_t VelmoAudioPackFloat(float value);
float VelmoAudioUnpackFloat(uint32_t bits);

// The copy-out kernels of each family; only the family table and the tests name them.
#pragma once
#include "reader/copyout.h"

void VelmoCopyKernel32Reference(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32AltReference(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel16Reference(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32Sse2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32AltSse2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel16Sse2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32Avx2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32AltAvx2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel16Avx2(const VelmoCopyLine* line, const VelmoConversionState* state);

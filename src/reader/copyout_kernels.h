// The copy-out kernels of each level; only the kernel table's init and the vector sources name
// them.
#pragma once
#include "host/cpu_features.h"
#include "reader/copyout.h"

void VelmoCopyKernel32Plain(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32AltPlain(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel16Plain(const VelmoCopyLine* line, const VelmoConversionState* state);
#if ORN_X86_KERNELS
void VelmoCopyKernel32Sse2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32AltSse2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel16Sse2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32Avx2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel32AltAvx2(const VelmoCopyLine* line, const VelmoConversionState* state);
void VelmoCopyKernel16Avx2(const VelmoCopyLine* line, const VelmoConversionState* state);
#endif

// Fuzz target: the EXR reader on arbitrary bytes.
#include "fuzz_image.h"

ORN_IMAGE_FUZZER(IMAGE_FORMAT_EXR)

#include "main/dispatch.h"

#include <cstdio>

int DispatchMain(int argc, char** argv) {
  std::fprintf(stderr, "Unknown command line command.\n");
  return 1;
}

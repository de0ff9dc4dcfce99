#include "main/dispatch.h"

int main(int argc, char** argv) { return DispatchMain(argc, argv); }

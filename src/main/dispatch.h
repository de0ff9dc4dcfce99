// The entry: picks the tool by the first word of the command line.
#pragma once

int DispatchMain(int argc, char** argv);

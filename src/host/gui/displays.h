// What the system information tool says about the displays: the video driver and each
// display's mode, one line each. Empty without a display.
#pragma once
#include <string>

std::string GuiDisplayDescription();

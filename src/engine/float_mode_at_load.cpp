#include "common/float_mode.h"

const bool se::kLoadingSetsFloatMode = true;

// Filled in by the platform layer.
#pragma once
#include "win_types.h"

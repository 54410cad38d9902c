// High-resolution absolute waits on Windows.
#include "platform/mmsystem.h"

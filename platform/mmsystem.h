// The one seam between the engine and the operating system's multimedia and kernel services:
// MIDI stream output, MIDI in/out, the multimedia timer, the performance counter, waitable
// timers, high-resolution absolute waits and thread priority.
//
// On Windows this is the system's own <windows.h>/<mmsystem.h> (link winmm). Elsewhere the same
// names, types, constants and struct layouts are declared by the headers under platform/posix/
// and implemented in libvelt_platform, so that the engine's Win32 classes compile and run
// unchanged. Each POSIX header documents what its calls guarantee and where they differ from
// Windows.
#pragma once

// The system headers must come in this order (windows.h first).
// clang-format off
#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#include <mmsystem.h>
// windows.h keeps GetCurrentTime() as a macro for GetTickCount(), a name left from 16-bit
// Windows; the engine's classes have members of that name.
#undef GetCurrentTime
#else
#include "posix/win_types.h"
#include "posix/mm_midi.h"
#include "posix/mm_time.h"
#include "posix/kernel.h"
#endif
// clang-format on

// A wide string literal of the platform's WCHAR type: L"..." on Windows (wchar_t is 16 bits
// there), u"..." elsewhere (WCHAR is char16_t).
#ifdef _WIN32
#define VELT_WTEXT(text) L##text
#else
#define VELT_WTEXT(text) u##text
#endif

// Our own additions, declared for both systems (high-resolution absolute waits).
#include "precise_wait.h"

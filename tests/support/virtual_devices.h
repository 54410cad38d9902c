// Tests that play into virtual MIDI devices (platform/virtual_midi.h). The devices are part of
// the POSIX platform layer only: a Windows build uses the system's own devices, and a test
// machine there (Wine in CI) may have none. Such a test is declared with VIRTUAL_DEVICE_TEST
// instead of TEST: on Windows it is reported as skipped with the reason, and its body is still
// compiled (as a template that is never instantiated, so nothing of the devices is linked).
#pragma once

#include <gtest/gtest.h>

#include "platform/virtual_midi.h"

#ifdef _WIN32
#define VIRTUAL_DEVICE_TEST(suite, name)                                                   \
    TEST(suite, name) {                                                                    \
        GTEST_SKIP() << "needs virtual MIDI devices, which only the POSIX platform layer " \
                        "provides";                                                        \
    }                                                                                      \
    template <class>                                                                       \
    [[maybe_unused]] void suite##_##name##_NeedsVirtualDevices()
#else
#define VIRTUAL_DEVICE_TEST(suite, name) TEST(suite, name)
#endif

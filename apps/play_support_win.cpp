// The Windows side of the player's wake-ups and stop signals (the POSIX side is in
// play_support.cpp): an auto-reset event instead of the pipe, WaitForMultipleObjects on it and
// the console's input instead of poll, and the console's control handler instead of sigwait.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <system_error>

#include "apps/play_support.h"
#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "platform/mmsystem.h"

namespace velt_play {
namespace {

// True when the console's input holds a key press with a character (or a VT sequence's first
// byte). Every other record (key releases, focus, mouse, resize) is taken off the queue, so that
// the handle is signalled again only by new input and a read never blocks on records that carry
// no character.
bool ConsoleHasCharacter(HANDLE input) {
    for (;;) {
        INPUT_RECORD record{};
        DWORD count = 0;
        if (!PeekConsoleInputW(input, &record, 1, &count) || count == 0) {
            return false;
        }
        if (record.EventType == KEY_EVENT && record.Event.KeyEvent.bKeyDown &&
            record.Event.KeyEvent.uChar.UnicodeChar != 0) {
            return true;
        }
        ReadConsoleInputW(input, &record, 1, &count);
    }
}

// The callback of the process's one StopSignals (empty when there is none). The console calls
// ControlHandler on a thread it starts for each event; the callback runs under the mutex, so the
// destructor, which takes it too, returns only after a running call has finished.
std::mutex handlerMutex;
std::condition_variable handlerRemoved;
std::function<void(int)> installedHandler;

// The system ends the process when the handler of a close, log-off or shut-down event returns,
// and at the latest five seconds after the event: the handler waits (a little less) for the
// player to have silenced the device and removed the handler.
constexpr std::chrono::milliseconds closeGrace{4500};

BOOL WINAPI ControlHandler(DWORD event) {
    int signal = 0;
    switch (event) {
        case CTRL_C_EVENT:
        case CTRL_BREAK_EVENT:
            signal = SIGINT;
            break;
        case CTRL_CLOSE_EVENT:
        case CTRL_LOGOFF_EVENT:
        case CTRL_SHUTDOWN_EVENT:
            signal = SIGTERM;
            break;
        default:
            return FALSE;
    }
    std::unique_lock lock(handlerMutex);
    if (!installedHandler) {
        return FALSE;
    }
    try {
        installedHandler(signal);
    } catch (const std::exception& error) {
        VeltLogException(error.what(), __FILE__, __LINE__);
    } catch (...) {
        VeltLogException("Unknown exception.", __FILE__, __LINE__);
    }
    if (signal == SIGTERM) {
        handlerRemoved.wait_for(lock, closeGrace, [] { return !installedHandler; });
    }
    return TRUE;
}

}  // namespace

MainEvents::MainEvents() : wakeEvent_(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    if (wakeEvent_ == nullptr) {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                                "CreateEvent");
    }
}

MainEvents::~MainEvents() {
    CloseHandle(wakeEvent_);
}

void MainEvents::Wake_() {
    SetEvent(wakeEvent_);
}

bool MainEvents::Wait(int inputFd, std::chrono::milliseconds timeout) {
    HANDLE handles[2] = {wakeEvent_, inputFd >= 0 ? GetStdHandle(STD_INPUT_HANDLE) : nullptr};
    const DWORD count = handles[1] != nullptr && handles[1] != INVALID_HANDLE_VALUE ? 2 : 1;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        const DWORD result = WaitForMultipleObjects(
            count, handles, FALSE, static_cast<DWORD>(std::max<long long>(left.count(), 0)));
        if (result != WAIT_OBJECT_0 + 1) {
            return false;  // woken, timed out, or failed: the caller looks at what was posted
        }
        if (ConsoleHasCharacter(handles[1])) {
            return true;
        }
    }
}

StopSignals::StopSignals(std::function<void(int)> onSignal) {
    std::scoped_lock lock(handlerMutex);
    installedHandler = std::move(onSignal);
    SetConsoleCtrlHandler(ControlHandler, TRUE);
}

StopSignals::~StopSignals() {
    SetConsoleCtrlHandler(ControlHandler, FALSE);
    std::scoped_lock lock(handlerMutex);
    installedHandler = nullptr;
    handlerRemoved.notify_all();
}

}  // namespace velt_play

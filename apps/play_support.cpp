#include "apps/play_support.h"

#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "interfaces/notify.h"
#include "midi/win32/midi_device_info.h"
#include "platform/mmsystem.h"

namespace velt_play {
namespace {

// A status per downbeat arrives a few times a second; a main thread that falls this far behind
// keeps the newest.
constexpr std::size_t statusQueueLimit = 4096;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool IsNumber(const std::string& text) {
    return !text.empty() && text.size() < 6 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

#ifndef _WIN32
// Ends the signal thread; never sent to another thread, so it needs no meaning of its own.
constexpr int endSignal = SIGUSR1;

sigset_t StopSignalSet() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, endSignal}) {
        sigaddset(&set, signal);
    }
    return set;
}
#endif

}  // namespace

// ---------------------------------------------------------------------------------------------
// MainEvents

#ifndef _WIN32
// The pipe and poll; the Windows counterparts are in play_support_win.cpp.
MainEvents::MainEvents() {
    int fds[2];
    if (pipe(fds) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    readFd_ = fds[0];
    writeFd_ = fds[1];
    for (const int fd : fds) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

MainEvents::~MainEvents() {
    close(readFd_);
    close(writeFd_);
}

void MainEvents::Wake_() {
    const char byte = 0;
    // A full pipe already wakes the main thread.
    [[maybe_unused]] const auto written = write(writeFd_, &byte, 1);
}
#endif

void MainEvents::PostStatus(const SessionStatus& status) {
    {
        std::scoped_lock lock(mutex_);
        statuses_.push_back(status);
        if (statuses_.size() > statusQueueLimit) {
            statuses_.pop_front();
        }
    }
    Wake_();
}

void MainEvents::PostLogLine(std::string line) {
    {
        std::scoped_lock lock(mutex_);
        logLines_.push_back(std::move(line));
    }
    Wake_();
}

void MainEvents::PostWake() {
    Wake_();
}

void MainEvents::PostSignal(int signalNumber) {
    int none = 0;
    signal_.compare_exchange_strong(none, signalNumber);
    Wake_();
}

#ifndef _WIN32
bool MainEvents::Wait(int inputFd, std::chrono::milliseconds timeout) {
    pollfd fds[2] = {{readFd_, POLLIN, 0}, {inputFd, POLLIN, 0}};
    const nfds_t count = inputFd >= 0 ? 2 : 1;
    if (poll(fds, count, static_cast<int>(timeout.count())) <= 0) {
        return false;
    }
    if ((fds[0].revents & POLLIN) != 0) {
        char bytes[256];
        while (read(readFd_, bytes, sizeof bytes) > 0) {
        }
    }
    return count == 2 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}
#endif

std::deque<SessionStatus> MainEvents::TakeStatuses() {
    std::scoped_lock lock(mutex_);
    return std::exchange(statuses_, {});
}

std::vector<std::string> MainEvents::TakeLogLines() {
    std::scoped_lock lock(mutex_);
    return std::exchange(logLines_, {});
}

// ---------------------------------------------------------------------------------------------
// StopSignals

#ifndef _WIN32
StopSignals::StopSignals(std::function<void(int)> onSignal) {
    std::signal(SIGPIPE, SIG_IGN);
    const sigset_t set = StopSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    thread_ = std::thread([set, onSignal = std::move(onSignal)] {
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0) {
                continue;
            }
            if (signal == endSignal) {
                return;
            }
            try {
                onSignal(signal);
            } catch (const std::exception& error) {
                VeltLogException(error.what(), __FILE__, __LINE__);
            } catch (...) {
                VeltLogException("Unknown exception.", __FILE__, __LINE__);
            }
        }
    });
}

StopSignals::~StopSignals() {
    pthread_kill(thread_.native_handle(), endSignal);
    thread_.join();
}
#endif

// ---------------------------------------------------------------------------------------------
// Choices

std::vector<std::string> OutputDeviceNames() {
    std::vector<std::string> names;
    const UINT count = midiOutGetNumDevs();
    for (UINT id = 0; id < count; ++id) {
        names.push_back(GetMidiOutDeviceName(id).value_or(""));
    }
    return names;
}

std::string ResolveDevice(const std::string& spec) {
    const auto names = OutputDeviceNames();
    if (names.empty()) {
        throw std::out_of_range("there is no MIDI output device");
    }
    if (IsNumber(spec)) {
        const auto number = static_cast<std::size_t>(std::stoul(spec));
        if (number >= names.size()) {
            throw std::out_of_range("there is no MIDI output device " + spec + " (devices 0 to " +
                                    std::to_string(names.size() - 1) +
                                    "; --list-devices lists them)");
        }
        return names[number];
    }
    if (std::find(names.begin(), names.end(), spec) != names.end()) {
        return spec;
    }
    std::vector<std::string> matches;
    std::copy_if(names.begin(), names.end(), std::back_inserter(matches),
                 [&](const std::string& name) {
                     return !spec.empty() && Lower(name).find(Lower(spec)) != std::string::npos;
                 });
    if (matches.size() == 1) {
        return matches.front();
    }
    if (matches.empty()) {
        throw std::out_of_range("no MIDI output device is called \"" + spec +
                                "\" (--list-devices lists them)");
    }
    std::string list;
    for (const auto& name : matches) {
        list += (list.empty() ? "\"" : ", \"") + name + "\"";
    }
    throw std::out_of_range("\"" + spec + "\" matches several MIDI output devices: " + list +
                            "; give more of the name, or the number");
}

unsigned short ResolveTrack(const std::map<unsigned short, std::string>& tracks,
                            const std::string& spec) {
    if (IsNumber(spec)) {
        const auto id = static_cast<unsigned short>(std::stoul(spec));
        if (tracks.contains(id)) {
            return id;
        }
    }
    std::vector<unsigned short> exact;
    std::vector<unsigned short> partial;
    for (const auto& [id, name] : tracks) {
        if (spec.empty()) {
            break;
        }
        if (Lower(name) == Lower(spec)) {
            exact.push_back(id);
        } else if (Lower(name).find(Lower(spec)) != std::string::npos) {
            partial.push_back(id);
        }
    }
    if (exact.size() == 1) {
        return exact.front();
    }
    if (exact.empty() && partial.size() == 1) {
        return partial.front();
    }
    std::string list;
    for (const auto& [id, name] : tracks) {
        list += (list.empty() ? "" : ", ") + std::to_string(id) + " " + name;
    }
    throw std::out_of_range((exact.size() + partial.size() > 1
                                 ? "several tracks are called \"" + spec + "\""
                                 : "the show has no track \"" + spec + "\"") +
                            " (its tracks: " + list + ")");
}

int ParseWholeNumber(const std::string& text, const std::string& what) {
    const char* first = text.data();
    const char* last = first + text.size();
    if (first != last && *first == '+') {
        ++first;
    }
    int value = 0;
    const auto [end, error] = std::from_chars(first, last, value);
    if (first == last || error != std::errc() || end != last) {
        throw std::invalid_argument(what + " must be a whole number, not \"" + text + "\"");
    }
    return value;
}

double ParseDecimal(const std::string& text, const std::string& what) {
    double value = 0;
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value);
    if (text.empty() || error != std::errc() || end != last || !std::isfinite(value)) {
        throw std::invalid_argument(what + " must be a number, not \"" + text + "\"");
    }
    return value;
}

std::string SignedText(int value) {
    return value > 0 ? "+" + std::to_string(value) : std::to_string(value);
}

}  // namespace velt_play

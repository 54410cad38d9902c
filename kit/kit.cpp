#include "interfaces/kit.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <vector>

#if defined(__linux__) || defined(__APPLE__)
#include <pthread.h>
#elif defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif
#if __has_include(<execinfo.h>)
#include <execinfo.h>
#define KIT_HAVE_EXECINFO 1
#endif

namespace kit {

namespace {

void WriteToStandardOutput(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// The sink and the lock that serialises every line written through it. Lines from different
// threads never interleave because the whole write happens under this lock.
struct LogState {
    std::mutex mutex;
    LogSink sink = WriteToStandardOutput;
    bool platformCallLogging = false;
};

LogState& GetLogState() {
    static LogState state;  // constructed on first use, before any engine thread logs
    return state;
}

}  // namespace

LogSink SetLogSink(LogSink sink) {
    auto& state = GetLogState();
    std::scoped_lock lock(state.mutex);
    LogSink previous = std::move(state.sink);
    state.sink = sink ? std::move(sink) : LogSink(WriteToStandardOutput);
    return previous;
}

void WriteLogLine(const std::string& line) {
    auto& state = GetLogState();
    std::scoped_lock lock(state.mutex);
    state.sink(line);
}

CoutBuffer::~CoutBuffer() {
    if (!stream_.view().empty()) {
        WriteLogLine(stream_.str());
    }
}

CoutBuffer& CoutBuffer::operator<<(EndLine) {
    WriteLogLine(stream_.str());
    stream_.str(std::string());
    return *this;
}

CoutBuffer& CoutBuffer::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    stream_ << manipulator;
    return *this;
}

CoutBuffer& CoutBuffer::operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    stream_ << manipulator;
    return *this;
}

std::string vformat(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) {
        return std::string(format);
    }
    std::vector<char> text(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, args);
    return std::string(text.data(), static_cast<std::size_t>(length));
}

std::string format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    return text;
}

void LogAttempt(const char* source, unsigned int line, const std::string& action) {
    WriteLogLine(kit::format("%s line %u: attempting %s", source, line, action.c_str()));
}

void LogSuccess(const char* source, unsigned int line, const std::string& action) {
    WriteLogLine(kit::format("%s line %u: succeeded %s", source, line, action.c_str()));
}

void LogFilter(PlatformCallLogger logger, const char* source, unsigned int line,
               const std::string& action, bool enabled) {
    if (enabled && logger != nullptr) {
        logger(source, line, action);
    }
}

bool GetPlatformCallLogging() {
    auto& state = GetLogState();
    std::scoped_lock lock(state.mutex);
    return state.platformCallLogging;
}

void SetPlatformCallLogging(bool enabled) {
    auto& state = GetLogState();
    std::scoped_lock lock(state.mutex);
    state.platformCallLogging = enabled;
}

std::string CreateFailureMessage(const char* source, unsigned int line, const std::string& action,
                                 const std::string& detail) {
    std::string text = kit::format("%s line %u: %s failed.", source, line, action.c_str());
    if (!detail.empty()) {
        text += ' ';
        text += detail;
    }
    return text;
}

void PrintStackTrace(int depth) {
#if defined(KIT_HAVE_EXECINFO)
    if (depth <= 0) {
        return;
    }
    std::vector<void*> frames(static_cast<std::size_t>(depth) + 1);
    int count = backtrace(frames.data(), static_cast<int>(frames.size()));
    // backtrace_symbols returns one malloc'ed block; own it so it is freed on every path.
    std::unique_ptr<char*, void (*)(void*)> symbols(backtrace_symbols(frames.data(), count),
                                                    std::free);
    WriteLogLine("Stack trace:");
    // Frame 0 is this function itself.
    for (int i = 1; i < count && i <= depth; ++i) {
        WriteLogLine(kit::format("  #%d %s", i - 1, symbols ? symbols.get()[i] : "?"));
    }
#else
    (void)depth;
    WriteLogLine("Stack trace: not available on this platform");
#endif
}

ThreadNames threadNames;

namespace {
// A number for the calling thread that no other thread of the process ever shares, even one that
// reuses its std::thread::id after it has ended.
std::uint64_t CurrentThreadLifetime() {
    static std::atomic<std::uint64_t> next{1};
    thread_local const std::uint64_t lifetime = next.fetch_add(1, std::memory_order_relaxed);
    return lifetime;
}

void NameOperatingSystemThread(const std::string& name) {
#if defined(__linux__)
    // Linux limits thread names to 15 characters plus the terminator.
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
#elif defined(__APPLE__)
    pthread_setname_np(name.c_str());
#elif defined(_WIN32)
    // SetThreadDescription exists from Windows 10 1607 on; it is looked up at run time so that
    // the library still loads on older systems (where threads simply stay unnamed).
    using SetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    static const auto setThreadDescription = reinterpret_cast<SetThreadDescriptionFunction>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"),
                                               "SetThreadDescription")));
    if (setThreadDescription != nullptr) {
        std::wstring wide(name.begin(), name.end());  // thread names are ASCII in this system
        setThreadDescription(GetCurrentThread(), wide.c_str());
    }
#else
    (void)name;
#endif
}
}  // namespace

void ThreadNames::SetNameOfCurrentThread(const std::string& name) {
    {
        std::scoped_lock lock(mutex_);
        names_[std::this_thread::get_id()] = Entry{CurrentThreadLifetime(), name};
    }
    NameOperatingSystemThread(name);
}

std::string ThreadNames::GetNameOfCurrentThread() const {
    std::scoped_lock lock(mutex_);
    auto it = names_.find(std::this_thread::get_id());
    return it != names_.end() && it->second.threadLifetime == CurrentThreadLifetime()
               ? it->second.name
               : std::string();
}

std::string ThreadNames::GetName(std::thread::id id) const {
    std::scoped_lock lock(mutex_);
    auto it = names_.find(id);
    return it == names_.end() ? std::string() : it->second.name;
}

namespace path {
std::string Join(const std::string& directory, const std::string& name) {
#ifdef _WIN32
    constexpr char separator = '\\';
#else
    constexpr char separator = '/';
#endif
    if (directory.empty()) {
        return name;
    }
    std::string joined = directory;
    bool directoryEnds = joined.back() == '/' || joined.back() == separator;
    bool nameStarts = !name.empty() && (name.front() == '/' || name.front() == separator);
    if (directoryEnds && nameStarts) {
        joined.pop_back();
    } else if (!directoryEnds && !nameStarts) {
        joined += separator;
    }
    return joined + name;
}
}  // namespace path

namespace midi {
std::string GetNoteName(unsigned char note) {
    static const char* const names[12] = {"C",  "C#", "D",  "D#", "E",  "F",
                                          "F#", "G",  "G#", "A",  "A#", "B"};
    if (note > 127) {
        std::string unknown = "?";
        unknown.append(std::to_string(note));
        return unknown;
    }
    std::string name = names[note % 12];
    name.append(std::to_string(note / 12 - 1));
    return name;
}
}  // namespace midi

}  // namespace kit

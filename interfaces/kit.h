// The utility library `kit`: log lines, printf-style formatting, the attempt/success logging
// around platform calls, failure texts, thread names, paths, note names and its error classes.
//
// Every operation here may be called from any thread concurrently (the engine logs from its
// clock, queue, input, loading and display threads). Nothing here throws into the caller except
// the error classes, which callers throw themselves.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace kit {

// ---------------------------------------------------------------------------------------------
// Log destination

/// Where whole log lines go. The default sink writes each line to standard output; a host (or a
/// test) installs its own with SetLogSink. A sink receives one complete line at a time without
/// its line end and must be safe to call from several threads (calls are serialised by kit).
using LogSink = std::function<void(const std::string& line)>;

/// Replaces the log sink; an empty function restores the standard-output sink. Returns the
/// previous sink so that a test can put it back.
LogSink SetLogSink(LogSink sink);

/// Writes one line to the current sink as one unit. Thread-safe.
void WriteLogLine(const std::string& line);

// ---------------------------------------------------------------------------------------------
// CoutBuffer: a line builder

struct EndLine {};
/// Ends a CoutBuffer line: `kit::CoutBuffer() << "text" << kit::endl;`
inline constexpr EndLine endl{};

/// Builds log lines. Stream text and numbers in with <<; `<< kit::endl` hands the line built so
/// far to the log sink as one unit and starts a new one. Text left without an end of line when
/// the buffer is destroyed is written as a final line, so nothing is lost. Not shared between
/// threads: each thread builds its own lines.
class CoutBuffer {
  public:
    CoutBuffer() = default;
    CoutBuffer(const CoutBuffer&) = delete;
    CoutBuffer& operator=(const CoutBuffer&) = delete;
    ~CoutBuffer();

    template <typename T>
    CoutBuffer& operator<<(const T& value) {
        stream_ << value;
        return *this;
    }
    CoutBuffer& operator<<(EndLine);
    /// Manipulators such as std::fixed and std::setprecision pass to the underlying stream.
    CoutBuffer& operator<<(std::ostream& (*manipulator)(std::ostream&));
    CoutBuffer& operator<<(std::ios_base& (*manipulator)(std::ios_base&));

    /// The stream being built, for code that writes with an std::ostream& interface.
    std::ostream& stream() { return stream_; }

  private:
    std::ostringstream stream_;
};

// ---------------------------------------------------------------------------------------------
// Formatting and platform-call logging

/// printf-style formatting into a string ("Main Buffer %d", "%s line %d: %s caused error %d, %s.").
std::string format(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
std::string vformat(const char* format, va_list args);

using PlatformCallLogger = void (*)(const char* source, unsigned int line,
                                    const std::string& action);

/// Logs "<source> line <line>: attempting <action>" — a platform call is about to be made.
void LogAttempt(const char* source, unsigned int line, const std::string& action);
/// Logs "<source> line <line>: succeeded <action>" — the platform call returned success.
void LogSuccess(const char* source, unsigned int line, const std::string& action);
/// Calls `logger` with the other arguments only when `enabled` is true. The engine always goes
/// through this filter so that the host decides whether platform calls are traced.
void LogFilter(PlatformCallLogger logger, const char* source, unsigned int line,
               const std::string& action, bool enabled);

/// Whether platform calls are traced by default (the `enabled` argument the engine passes to
/// LogFilter). Off by default; a host may switch it on for diagnostics.
bool GetPlatformCallLogging();
void SetPlatformCallLogging(bool enabled);

/// The text of a failed platform call: "<source> line <line>: <action> failed." followed by
/// " <detail>" when the detail is not empty.
std::string CreateFailureMessage(const char* source, unsigned int line, const std::string& action,
                                 const std::string& detail);

/// Writes the current call stack, at most `depth` frames, to the log (one line per frame, with a
/// first line "Stack trace:"). Where the platform cannot walk the stack a single line says so.
void PrintStackTrace(int depth);

// ---------------------------------------------------------------------------------------------
// Thread names

/// Names of threads for diagnostics. SetNameOfCurrentThread records the name for the calling
/// thread and also names the operating-system thread where the platform allows (Linux truncates
/// it to 15 characters; the recorded name is kept whole). Thread-safe; takes only its own mutex.
///
/// A thread's name belongs to that thread's lifetime: a later thread that happens to get the same
/// std::thread::id does not inherit it as its own name (GetNameOfCurrentThread is "" until it
/// names itself), although GetName of that id may show the old name until then.
class ThreadNames {
  public:
    void SetNameOfCurrentThread(const std::string& name);
    /// The recorded name of the calling thread, or "" when it has none.
    std::string GetNameOfCurrentThread() const;
    /// The name last recorded for the given thread id, or "" when it has none.
    std::string GetName(std::thread::id id) const;

  private:
    struct Entry {
        std::uint64_t threadLifetime;  // which thread of that id recorded the name
        std::string name;
    };
    mutable std::mutex mutex_;
    std::map<std::thread::id, Entry> names_;
};

extern ThreadNames threadNames;

// ---------------------------------------------------------------------------------------------
// Paths and MIDI names

namespace path {
/// Joins a directory and a file name with the platform's separator ('\\' on Windows, '/'
/// elsewhere); no separator is doubled, and an empty directory yields the name alone.
std::string Join(const std::string& directory, const std::string& name);
}  // namespace path

namespace midi {
/// The name of a MIDI note number with its octave, middle C (60) being "C4" and 0 "C-1"; sharps
/// are used for the black keys ("C#4" = 61). Numbers above 127 give "?<number>".
std::string GetNoteName(unsigned char note);
}  // namespace midi

// ---------------------------------------------------------------------------------------------
// Error classes

/// A settings file could not be written or read.
class IoError : public std::runtime_error {
  public:
    explicit IoError(const std::string& message) : std::runtime_error(message) {}
};

/// An operation this platform does not offer ("Global Reverb Not Supported").
class NotImplementedError : public std::runtime_error {
  public:
    explicit NotImplementedError(const std::string& message) : std::runtime_error(message) {}
};

/// A general run-time failure; copied when caught and rethrown.
class RuntimeError : public std::runtime_error {
  public:
    explicit RuntimeError(const std::string& message) : std::runtime_error(message) {}
};

// ---------------------------------------------------------------------------------------------
// ptr_map: an ordered map of shared values

/// An ordered map from key to a shared value. Iteration yields (key, std::shared_ptr<V>) pairs in
/// ascending key order; `at` returns the value itself and throws std::out_of_range for an absent
/// key. Copies share the values (copy the values yourself for a deep copy).
template <typename K, typename V>
class ptr_map {
  public:
    using map_type = std::map<K, std::shared_ptr<V>>;
    using iterator = typename map_type::iterator;
    using const_iterator = typename map_type::const_iterator;

    iterator begin() { return map_.begin(); }
    iterator end() { return map_.end(); }
    const_iterator begin() const { return map_.begin(); }
    const_iterator end() const { return map_.end(); }
    std::size_t size() const { return map_.size(); }
    bool empty() const { return map_.empty(); }
    bool contains(const K& key) const { return map_.count(key) != 0; }

    V& at(const K& key) { return *map_.at(key); }
    const V& at(const K& key) const { return *map_.at(key); }

    /// Inserts or replaces the value for `key`; returns it.
    V& insert(const K& key, std::shared_ptr<V> value) {
        auto& slot = map_[key];
        slot = std::move(value);
        return *slot;
    }
    void erase(const K& key) { map_.erase(key); }
    void clear() { map_.clear(); }

  private:
    map_type map_;
};

}  // namespace kit

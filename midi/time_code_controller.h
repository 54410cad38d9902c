// The host's switch for MIDI Time Code output: keeps the user's choices (on or off, output port,
// frame rate), keeps them in a small binary settings file, owns the generator while time code
// is on, forwards the playback side's per-period calls to it and tells the user interface about
// every change.
//
// Settings file, 28 bytes, little-endian: the tag as one length byte (20) and the characters
// "MidiTimeCodeSettings", then isActive (1 byte), hasOutputPortIndex (1 byte), outputPortIndex
// (4 bytes), frameRate (1 byte, 0..3). Strings in the file are a length byte and the
// characters. The stored on/off flag is read and discarded: time code never starts on by itself.
// A file that cannot be read whole, has another tag ("Unrecognized command settings file.") or an
// unknown rate changes nothing: the defaults (off, no port, 30 fps) stay and the failure is
// logged. The file is written after every change of port or rate; a file that cannot be written
// raises kit::IoError "<path> is not writable.".
//
// Switching on (StartMidiTimeCode) creates the generator through the factory given to the
// constructor, hands it the rate and the port, and from then on the per-period calls reach it;
// switching off (CancelMidiTimeCode, PrepareForExit, Shutdown) makes those calls do nothing and
// destroys the generator, which stops and joins its thread.
//
// Threads: the host thread calls the switches and setters; the playback side (the clock's
// thread) calls SetMidiTimeCodeInterval and SendMidiTimeCodeWithSeconds. Locks: the
// controller's mutex guards every field and is held while a per-period call runs into the
// generator (then the generator's own mutex); it is never held while the user interface is
// notified.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "midi/midi_time_code.h"
#include "midi/mtc_thread.h"

class MidiTimeCodeController {
  public:
    using GeneratorFactory = std::function<std::unique_ptr<MidiTimeCodeThread>()>;

    /// Loads the settings (see above); the generator is the platform's MIDI output generator.
    explicit MidiTimeCodeController(const std::string& settingsPath);
    /// The same with the generator `factory` makes when time code is switched on.
    MidiTimeCodeController(const std::string& settingsPath, GeneratorFactory factory);
    /// Shutdown().
    ~MidiTimeCodeController();
    MidiTimeCodeController(const MidiTimeCodeController&) = delete;
    MidiTimeCodeController& operator=(const MidiTimeCodeController&) = delete;

    /// Kept for hosts that announce the switch before making it; changes nothing.
    void ActivateMidiTimeCode() {}
    /// Switches time code on (if off): creates the generator with the rate and the port (a port
    /// that cannot be opened is logged; time code is on all the same and a later
    /// SetOutputPortIndex retries), then notifies the user interface.
    void StartMidiTimeCode();
    /// Switches time code off (PrepareForExit) and notifies the user interface.
    void CancelMidiTimeCode();

    /// Stores the rate (and gives it to the generator), writes the file, then notifies the
    /// user interface with the rate's text. A file that cannot be written throws after the
    /// rate has changed, and nothing is notified.
    void SetFrameRate(FrameRate rate);
    /// Stores the port, hands it to the generator if there is one (a failure there is logged),
    /// and notifies the user interface either way.
    void SetOutputPortIndex(unsigned int index);

    /// One period of playback: time code from `start` to `end` seconds in `duration` seconds.
    /// Ignored while time code is off.
    void SetMidiTimeCodeInterval(double start, double end, double duration);
    /// Locates the receivers at `seconds` with a full frame. Ignored while time code is off.
    void SendMidiTimeCodeWithSeconds(double seconds);

    bool GetIsActive();
    bool GetHasOutputPortIndex();
    unsigned int GetOutputPortIndex();
    FrameRate GetFrameRate();

    /// Off, without a notification: the callbacks do nothing and the generator is destroyed.
    void PrepareForExit();
    /// At program end: PrepareForExit (the generator's thread is joined when this returns).
    void Shutdown();

  private:
    void LoadFromFile();
    /// With the mutex held.
    void SaveToFile();
    /// With the mutex held: gives the generator, if any, the stored port (a failure is logged).
    void SetMtcThreadOutputPortIndex_();
    /// SetMtcThreadOutputPortIndex_ under the mutex, then the port notification without it.
    void HandOverPortAndNotify_();
    /// With the mutex held: the per-period calls do nothing.
    void InstallIdleCallbacks_();

    std::mutex mutex_;
    const std::string settingsPath;
    bool isActive = false;
    std::unique_ptr<MidiTimeCodeThread> generator;
    std::function<void(double, double, double)> intervalCallback;
    std::function<void(double)> secondsCallback;
    bool hasOutputPortIndex = false;
    unsigned int outputPortIndex = 0;
    FrameRate frameRate = FrameRate::Fps30;
    const GeneratorFactory factory_;
};

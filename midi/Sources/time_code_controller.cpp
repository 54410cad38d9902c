#include "midi/time_code_controller.h"

#include <array>
#include <fstream>
#include <stdexcept>

#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/win32/midi_time_code_thread_win32.h"

namespace {

const std::string kSettingsTag = "MidiTimeCodeSettings";

std::string ReadString(std::istream& in) {
    const auto length = static_cast<unsigned char>(in.get());
    std::string text(length, '\0');
    in.read(text.data(), length);
    return text;
}

void WriteString(std::ostream& out, const std::string& text) {
    if (text.size() > 255) {
        throw std::length_error("String length is limited to 256 characters");
    }
    out.put(static_cast<char>(text.size()));
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

unsigned char ReadByte(std::istream& in) {
    char byte = 0;
    in.read(&byte, 1);
    return static_cast<unsigned char>(byte);
}

}  // namespace

MidiTimeCodeController::MidiTimeCodeController(const std::string& path)
    : MidiTimeCodeController(path, [] { return std::make_unique<MidiTimeCodeThreadWin32>(); }) {}

MidiTimeCodeController::MidiTimeCodeController(const std::string& path, GeneratorFactory factory)
    : settingsPath(path), factory_(std::move(factory)) {
    InstallIdleCallbacks_();
    try {
        LoadFromFile();
    } catch (const std::exception& error) {
        kit::CoutBuffer() << "MidiTimeCodeController::LoadFromFile failed with " << error.what()
                          << kit::endl;
    }
}

MidiTimeCodeController::~MidiTimeCodeController() {
    Shutdown();
}

void MidiTimeCodeController::LoadFromFile() {
    std::ifstream in;
    in.exceptions(std::ios::failbit | std::ios::badbit);
    in.open(settingsPath, std::ios::binary);
    if (ReadString(in) != kSettingsTag) {
        throw VeltMidiError("Unrecognized command settings file.");
    }
    ReadByte(in);  // the stored on/off flag: time code never starts on from the file
    const bool hasPort = ReadByte(in) != 0;
    std::array<unsigned char, 4> port{};
    for (unsigned char& byte : port) {
        byte = ReadByte(in);
    }
    const auto rate = static_cast<FrameRate>(ReadByte(in));
    ConvertFrameRateToString(rate);  // an unknown rate fails here, before anything is kept

    std::lock_guard lock(mutex_);
    isActive = false;
    hasOutputPortIndex = hasPort;
    outputPortIndex = port[0] | (port[1] << 8) | (port[2] << 16) | (unsigned{port[3]} << 24);
    frameRate = rate;
}

void MidiTimeCodeController::SaveToFile() {
    std::ofstream out(settingsPath, std::ios::binary | std::ios::trunc);
    if (!out.is_open()) {
        throw kit::IoError(settingsPath + " is not writable.");
    }
    WriteString(out, kSettingsTag);
    out.put(static_cast<char>(isActive ? 1 : 0));
    out.put(static_cast<char>(hasOutputPortIndex ? 1 : 0));
    for (int shift = 0; shift < 32; shift += 8) {
        out.put(static_cast<char>((outputPortIndex >> shift) & 0xFF));
    }
    out.put(static_cast<char>(frameRate));
    out.flush();
    if (!out) {
        throw kit::IoError(settingsPath + " is not writable.");
    }
}

void MidiTimeCodeController::InstallIdleCallbacks_() {
    intervalCallback = [](double, double, double) {};
    secondsCallback = [](double) {};
}

void MidiTimeCodeController::StartMidiTimeCode() {
    {
        std::lock_guard lock(mutex_);
        if (isActive) {
            return;
        }
        generator = factory_();
        generator->SetFrameRate(frameRate);
        MidiTimeCodeThread* target = generator.get();
        intervalCallback = [target](double start, double end, double duration) {
            target->SetMidiTimeCodeInterval(start, end, duration);
        };
        secondsCallback = [target](double seconds) {
            target->SendMidiTimeCodeWithSeconds(seconds);
        };
        isActive = true;
    }
    HandOverPortAndNotify_();
    notify::guiDispatcher.SendMtcActiveStateNotification(true);
}

void MidiTimeCodeController::CancelMidiTimeCode() {
    PrepareForExit();
    notify::guiDispatcher.SendMtcActiveStateNotification(GetIsActive());
}

void MidiTimeCodeController::PrepareForExit() {
    std::unique_ptr<MidiTimeCodeThread> released;
    {
        std::lock_guard lock(mutex_);
        if (!isActive) {
            return;
        }
        isActive = false;
        InstallIdleCallbacks_();
        released = std::move(generator);
    }
    released.reset();  // stops and joins its thread; no per-period call can reach it any more
}

void MidiTimeCodeController::Shutdown() {
    PrepareForExit();
}

void MidiTimeCodeController::SetFrameRate(FrameRate rate) {
    {
        std::lock_guard lock(mutex_);
        frameRate = rate;
        if (generator) {
            generator->SetFrameRate(rate);
        }
        SaveToFile();
    }
    notify::guiDispatcher.SendMtcFrameRateNotification(ConvertFrameRateToString(rate));
}

void MidiTimeCodeController::SetOutputPortIndex(unsigned int index) {
    {
        std::lock_guard lock(mutex_);
        outputPortIndex = index;
        hasOutputPortIndex = true;
        SaveToFile();
    }
    HandOverPortAndNotify_();
}

void MidiTimeCodeController::HandOverPortAndNotify_() {
    unsigned int index = 0;
    {
        std::lock_guard lock(mutex_);
        SetMtcThreadOutputPortIndex_();
        index = outputPortIndex;
    }
    notify::guiDispatcher.SendMtcOutputPortNotification(static_cast<int>(index));
}

void MidiTimeCodeController::SetMtcThreadOutputPortIndex_() {
    if (!generator || !hasOutputPortIndex) {
        return;
    }
    try {
        generator->SetOutputPortIndex(outputPortIndex);
    } catch (const std::exception& error) {
        kit::CoutBuffer() << "[ERROR] MidiTimeCodeController::SetMtcThreadOutputPortIndex_ "
                          << error.what() << kit::endl;
    }
}

void MidiTimeCodeController::SetMidiTimeCodeInterval(double start, double end, double duration) {
    std::lock_guard lock(mutex_);
    intervalCallback(start, end, duration);
}

void MidiTimeCodeController::SendMidiTimeCodeWithSeconds(double seconds) {
    std::lock_guard lock(mutex_);
    secondsCallback(seconds);
}

bool MidiTimeCodeController::GetIsActive() {
    std::lock_guard lock(mutex_);
    return isActive;
}

bool MidiTimeCodeController::GetHasOutputPortIndex() {
    std::lock_guard lock(mutex_);
    return hasOutputPortIndex;
}

unsigned int MidiTimeCodeController::GetOutputPortIndex() {
    std::lock_guard lock(mutex_);
    return outputPortIndex;
}

FrameRate MidiTimeCodeController::GetFrameRate() {
    std::lock_guard lock(mutex_);
    return frameRate;
}

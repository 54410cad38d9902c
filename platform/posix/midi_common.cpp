// Helpers shared by the POSIX MIDI service: time, thread names, MIDI byte packing, device
// names, result texts and callbacks.
#include <pthread.h>

#include <array>
#include <cstdio>
#include <exception>
#include <utility>

#include "midi_service.h"

namespace velt_platform::detail {

std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void SetCurrentThreadName(const char* name) {
    std::array<char, 16> shortName{};
    std::snprintf(shortName.data(), shortName.size(), "%s", name);
    pthread_setname_np(pthread_self(), shortName.data());
}

int ShortMessageLength(BYTE status) {
    if (status < 0x80 || status == 0xF0 || status == 0xF7) {
        return 0;
    }
    if (status < 0xF0) {
        const BYTE kind = status & 0xF0;
        return (kind == 0xC0 || kind == 0xD0) ? 2 : 3;
    }
    switch (status) {
        case 0xF1:  // MTC quarter frame
        case 0xF3:  // song select
            return 2;
        case 0xF2:  // song position pointer
            return 3;
        default:  // tune request, real-time, undefined
            return 1;
    }
}

// Packed short message: byte 0 (low) = status, byte 1 = data 1, byte 2 = data 2. With running
// status the low byte is already data 1. Channel statuses set the running status, system common
// messages clear it, real-time messages leave it alone.
Bytes UnpackShortMessage(DWORD packed, BYTE& runningStatus) {
    const std::array<BYTE, 3> raw{static_cast<BYTE>(packed & 0xFF),
                                  static_cast<BYTE>((packed >> 8) & 0xFF),
                                  static_cast<BYTE>((packed >> 16) & 0xFF)};
    BYTE status = raw[0];
    std::size_t dataAt = 1;
    if (status < 0x80) {
        if (runningStatus == 0) {
            return {};
        }
        status = runningStatus;
        dataAt = 0;
    }
    const int length = ShortMessageLength(status);
    if (length == 0) {
        return {};
    }
    if (status < 0xF0) {
        runningStatus = status;
    } else if (status < 0xF8) {
        runningStatus = 0;
    }
    Bytes message{status};
    for (int i = 1; i < length; ++i) {
        message.push_back(raw[dataAt++]);
    }
    return message;
}

DWORD PackShortMessage(std::span<const BYTE> message) {
    DWORD packed = 0;
    for (std::size_t i = 0; i < message.size() && i < 3; ++i) {
        packed |= static_cast<DWORD>(message[i]) << (8 * i);
    }
    return packed;
}

void CopyDeviceName(const std::string& utf8, WCHAR (&field)[MAXPNAMELEN]) {
    std::u16string wide;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        char32_t code = 0xFFFD;
        std::size_t extra = 0;
        if (lead < 0x80) {
            code = lead;
        } else if ((lead & 0xE0) == 0xC0) {
            code = lead & 0x1F;
            extra = 1;
        } else if ((lead & 0xF0) == 0xE0) {
            code = lead & 0x0F;
            extra = 2;
        } else if ((lead & 0xF8) == 0xF0) {
            code = lead & 0x07;
            extra = 3;
        }
        ++i;
        for (std::size_t k = 0; k < extra; ++k, ++i) {
            if (i >= utf8.size() || (static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) {
                code = 0xFFFD;
                break;
            }
            code = (code << 6) | (static_cast<unsigned char>(utf8[i]) & 0x3F);
        }
        if (code >= 0x10000) {
            code -= 0x10000;
            wide.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            wide.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            wide.push_back(static_cast<char16_t>(code));
        }
    }
    std::size_t keep = std::min<std::size_t>(wide.size(), MAXPNAMELEN - 1);
    if (keep > 0 && keep < wide.size() && wide[keep - 1] >= 0xD800 && wide[keep - 1] < 0xDC00) {
        --keep;  // do not leave half a surrogate pair
    }
    for (std::size_t i = 0; i < MAXPNAMELEN; ++i) {
        field[i] = i < keep ? wide[i] : u'\0';
    }
}

const char* ResultText(MMRESULT result) {
    switch (result) {
        case MMSYSERR_NOERROR:
            return "The specified command was carried out.";
        case MMSYSERR_ERROR:
            return "Undefined external error.";
        case MMSYSERR_BADDEVICEID:
            return "A device ID has been used that is out of range for your system.";
        case MMSYSERR_NOTENABLED:
            return "The driver was not enabled.";
        case MMSYSERR_ALLOCATED:
            return "The specified device is already in use. Wait until it is free, and then try "
                   "again.";
        case MMSYSERR_INVALHANDLE:
            return "The specified device handle is invalid.";
        case MMSYSERR_NODRIVER:
            return "There is no driver installed on your system.";
        case MMSYSERR_NOMEM:
            return "Not enough memory available for this task.";
        case MMSYSERR_NOTSUPPORTED:
            return "This function is not supported. Use the Capabilities function to determine "
                   "which functions and messages the driver supports.";
        case MMSYSERR_BADERRNUM:
            return "An error number was specified that is not defined in the system.";
        case MMSYSERR_INVALFLAG:
            return "An invalid flag was passed to a system function.";
        case MMSYSERR_INVALPARAM:
            return "An invalid parameter was passed to a system function.";
        case MMSYSERR_HANDLEBUSY:
            return "The specified handle is being used simultaneously by another thread (such as a "
                   "callback).";
        case MIDIERR_UNPREPARED:
            return "The MIDI header was not prepared. Use the Prepare function to prepare the "
                   "header, and then try again.";
        case MIDIERR_STILLPLAYING:
            return "Cannot perform this operation while media data is still playing. Reset the "
                   "device, or wait until the data is finished playing.";
        case MIDIERR_NOMAP:
            return "A MIDI map was not found.";
        case MIDIERR_NOTREADY:
            return "The port is transmitting data to the device. Wait until the data has been "
                   "transmitted, and then try again.";
        case MIDIERR_NODEVICE:
            return "The MIDI port is no longer connected.";
        case MIDIERR_INVALIDSETUP:
            return "The current MIDI setup is damaged.";
        case MIDIERR_BADOPENMODE:
            return "The operation is not supported in the mode the device was opened in.";
        case MIDIERR_DONT_CONTINUE:
            return "The MIDI thru device consumed the message.";
        default:
            return nullptr;
    }
}

MMRESULT CopyResultText(MMRESULT result, LPWSTR text, UINT cchText) {
    if (text == nullptr || cchText == 0) {
        return MMSYSERR_INVALPARAM;
    }
    const char* source = ResultText(result);
    if (source == nullptr) {
        text[0] = u'\0';
        return MMSYSERR_BADERRNUM;
    }
    UINT i = 0;
    for (; source[i] != '\0' && i + 1 < cchText; ++i) {
        text[i] = static_cast<WCHAR>(static_cast<unsigned char>(source[i]));
    }
    text[i] = u'\0';
    return MMSYSERR_NOERROR;
}

void ReportFailure(const char* what, const std::exception* error) noexcept {
    std::fprintf(stderr, "%s threw: %s\n", what,
                 error != nullptr ? error->what() : "a non-standard exception");
}

void CallbackTarget::Invoke(const void* handle, UINT message, DWORD_PTR param1,
                            DWORD_PTR param2) const {
    if (kind != CALLBACK_FUNCTION || function == 0) {
        return;
    }
    const auto call = reinterpret_cast<LPDRVCALLBACK>(function);
    try {
        call(static_cast<HDRVR>(const_cast<void*>(handle)), message, instance, param1, param2);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "MIDI callback for message 0x%X threw: %s\n", message, e.what());
    } catch (...) {
        std::fprintf(stderr, "MIDI callback for message 0x%X threw.\n", message);
    }
}

MMRESULT MakeCallbackTarget(DWORD flags, DWORD allowed, DWORD_PTR function, DWORD_PTR instance,
                            CallbackTarget& target) {
    if ((flags & ~(CALLBACK_TYPEMASK | allowed)) != 0) {
        return MMSYSERR_INVALFLAG;
    }
    const DWORD kind = flags & CALLBACK_TYPEMASK;
    switch (kind) {
        case CALLBACK_NULL:
        case CALLBACK_FUNCTION:
            target = CallbackTarget{kind, function, instance};
            return MMSYSERR_NOERROR;
        case CALLBACK_WINDOW:
        case CALLBACK_THREAD:
        case CALLBACK_EVENT:
            return MMSYSERR_NOTSUPPORTED;
        default:
            return MMSYSERR_INVALFLAG;
    }
}

}  // namespace velt_platform::detail

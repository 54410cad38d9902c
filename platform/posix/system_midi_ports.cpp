// The system's MIDI ports as devices of the POSIX MIDI service: the ALSA sequencer's through
// RtMidi, then the JACK server's (platform/posix/jack_midi_ports.cpp). Without RtMidi at build
// time there are no ALSA ports.
//
// Listing: the ALSA sequencer is asked (through RtMidi objects kept for the purpose) only when
// its device node exists, so a machine without it stays quiet.
// Opening: each open makes its own RtMidi client ("VELT") and connects it to the port found by
// name, since device ids may have moved since the list was made.
//
// Locks: the list's mutex guards the probes; a port's mutex guards its RtMidi object. Neither is
// held while the other is taken.
#include "midi_service.h"

#ifndef VELT_HAVE_RTMIDI

namespace velt_platform::detail {
void AppendSystemOutputs(std::vector<std::shared_ptr<OutputPort>>& ports) {
    AppendJackOutputs(ports);
}
void AppendSystemInputs(std::vector<std::shared_ptr<InputPort>>& ports) {
    AppendJackInputs(ports);
}
}  // namespace velt_platform::detail

#else

#include <RtMidi.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>

namespace velt_platform::detail {
namespace {

constexpr const char* kAlsaSequencerDevice = "/dev/snd/seq";
constexpr unsigned kInputQueueSize = 1024;

struct PortRef {
    RtMidi::Api api = RtMidi::UNSPECIFIED;
    std::string name;
};

void ReportRtMidiError(RtMidiError::Type type, const std::string& text, void* /*user*/) {
    if (type != RtMidiError::WARNING && type != RtMidiError::DEBUG_WARNING) {
        std::fprintf(stderr, "MIDI: %s\n", text.c_str());
    }
}

template <typename RtObject>
std::optional<unsigned> FindPortByName(RtObject& rt, const std::string& name) {
    const unsigned count = rt.getPortCount();
    for (unsigned i = 0; i < count; ++i) {
        if (rt.getPortName(i) == name) {
            return i;
        }
    }
    return std::nullopt;
}

class RtMidiOutputPort final : public OutputPort {
  public:
    explicit RtMidiOutputPort(PortRef ref) : ref_(std::move(ref)) {}

    std::string Name() const override { return ref_.name; }

    MMRESULT Open() override {
        std::scoped_lock lock(mutex_);
        try {
            auto out = std::make_unique<RtMidiOut>(ref_.api, kServiceClientName);
            out->setErrorCallback(&ReportRtMidiError);
            const auto index = FindPortByName(*out, ref_.name);
            if (!index) {
                return MIDIERR_NODEVICE;
            }
            out->openPort(*index, kServiceOutputPortName);
            if (!out->isPortOpen()) {
                return MMSYSERR_ERROR;
            }
            out_ = std::move(out);
            return MMSYSERR_NOERROR;
        } catch (const RtMidiError& e) {
            std::fprintf(stderr, "MIDI: %s\n", e.getMessage().c_str());
            return MMSYSERR_ERROR;
        }
    }

    void Close() override {
        std::unique_ptr<RtMidiOut> out;
        {
            std::scoped_lock lock(mutex_);
            out = std::move(out_);
        }
    }

    MMRESULT Send(std::span<const BYTE> message, std::optional<std::uint64_t>) override {
        std::scoped_lock lock(mutex_);
        if (!out_) {
            return MIDIERR_NODEVICE;
        }
        try {
            out_->sendMessage(message.data(), message.size());
        } catch (const RtMidiError&) {
            return MMSYSERR_ERROR;
        }
        return MMSYSERR_NOERROR;
    }

    PacketTicket QueuePacket() override { return PacketTicket{nextPacket_++}; }

  private:
    const PortRef ref_;
    std::mutex mutex_;
    std::unique_ptr<RtMidiOut> out_;
    std::atomic<std::uint64_t> nextPacket_{0};
};

class RtMidiInputPort final : public InputPort {
  public:
    explicit RtMidiInputPort(PortRef ref) : ref_(std::move(ref)) {}

    std::string Name() const override { return ref_.name; }

    MMRESULT Open(InputSink& sink) override {
        std::scoped_lock lock(mutex_);
        try {
            auto in = std::make_unique<RtMidiIn>(ref_.api, kServiceClientName, kInputQueueSize);
            in->setErrorCallback(&ReportRtMidiError);
            in->ignoreTypes(false, false, false);  // SysEx, timing and active sensing all pass
            const auto index = FindPortByName(*in, ref_.name);
            if (!index) {
                return MIDIERR_NODEVICE;
            }
            sink_.store(&sink);
            in->setCallback(&RtMidiInputPort::OnMessage_, this);
            in->openPort(*index, kServiceInputPortName);
            if (!in->isPortOpen()) {
                return MMSYSERR_ERROR;
            }
            in_ = std::move(in);
            return MMSYSERR_NOERROR;
        } catch (const RtMidiError& e) {
            std::fprintf(stderr, "MIDI: %s\n", e.getMessage().c_str());
            return MMSYSERR_ERROR;
        }
    }

    // Destroying the RtMidi object ends its input thread, so no message follows.
    void Close() override {
        std::unique_ptr<RtMidiIn> in;
        {
            std::scoped_lock lock(mutex_);
            in = std::move(in_);
        }
        in.reset();
        sink_.store(nullptr);
    }

  private:
    // Runs on RtMidi's input thread (the ALSA listener).
    static void OnMessage_(double /*delta*/, std::vector<unsigned char>* message, void* self) {
        InputSink* sink = static_cast<RtMidiInputPort*>(self)->sink_.load();
        if (sink != nullptr && message != nullptr && !message->empty()) {
            RunReportingFailure("MIDI input", [&] {
                sink->Receive(Bytes(message->begin(), message->end()), NowNs());
            });
        }
    }

    const PortRef ref_;
    std::mutex mutex_;
    std::unique_ptr<RtMidiIn> in_;
    std::atomic<InputSink*> sink_{nullptr};
};

class SystemPortList {
  public:
    SystemPortList() = default;
    SystemPortList(const SystemPortList&) = delete;
    SystemPortList& operator=(const SystemPortList&) = delete;

    // Destinations (outputs = true) or sources of the ALSA sequencer.
    std::vector<PortRef> List(bool outputs) {
        std::scoped_lock lock(mutex_);
        std::vector<PortRef> ports;
        ListAlsa_(outputs, ports);
        return ports;
    }

  private:
    void ListAlsa_(bool outputs, std::vector<PortRef>& ports) {
        if (!alsaTried_) {
            alsaTried_ = true;
            std::vector<RtMidi::Api> apis;
            RtMidi::getCompiledApi(apis);
            const bool compiled =
                std::find(apis.begin(), apis.end(), RtMidi::LINUX_ALSA) != apis.end();
            if (compiled && access(kAlsaSequencerDevice, R_OK | W_OK) == 0) {
                try {
                    alsaOut_ = std::make_unique<RtMidiOut>(RtMidi::LINUX_ALSA, kServiceClientName);
                    alsaOut_->setErrorCallback(&ReportRtMidiError);
                    alsaIn_ = std::make_unique<RtMidiIn>(RtMidi::LINUX_ALSA, kServiceClientName);
                    alsaIn_->setErrorCallback(&ReportRtMidiError);
                } catch (const RtMidiError&) {
                    alsaOut_.reset();
                    alsaIn_.reset();
                }
            }
        }
        RtMidi* probe = outputs ? static_cast<RtMidi*>(alsaOut_.get()) : alsaIn_.get();
        if (probe == nullptr) {
            return;
        }
        const unsigned count = probe->getPortCount();
        for (unsigned i = 0; i < count; ++i) {
            ports.push_back(PortRef{RtMidi::LINUX_ALSA, probe->getPortName(i)});
        }
    }

    std::mutex mutex_;
    bool alsaTried_ = false;
    std::unique_ptr<RtMidiOut> alsaOut_;
    std::unique_ptr<RtMidiIn> alsaIn_;
};

SystemPortList& SystemPorts() {
    static SystemPortList list;
    return list;
}

}  // namespace

void AppendSystemOutputs(std::vector<std::shared_ptr<OutputPort>>& ports) {
    for (PortRef& ref : SystemPorts().List(true)) {
        ports.push_back(std::make_shared<RtMidiOutputPort>(std::move(ref)));
    }
    AppendJackOutputs(ports);
}

void AppendSystemInputs(std::vector<std::shared_ptr<InputPort>>& ports) {
    for (PortRef& ref : SystemPorts().List(false)) {
        ports.push_back(std::make_shared<RtMidiInputPort>(std::move(ref)));
    }
    AppendJackInputs(ports);
}

}  // namespace velt_platform::detail

#endif  // VELT_HAVE_RTMIDI

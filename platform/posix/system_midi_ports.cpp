// The system's MIDI ports, reached through RtMidi (ALSA sequencer and JACK), as devices of the
// POSIX MIDI service. Without RtMidi at build time there are none.
//
// Listing: the ALSA sequencer is asked (through RtMidi objects kept for the purpose) only when
// its device node exists, so a machine without it stays quiet. JACK ports are listed through a
// plain JACK client kept connected to the server; when no server runs, a new connection is tried
// at most once a second, with the JACK library's complaints silenced for that attempt.
// Opening: each open makes its own RtMidi client ("VELT") and connects it to the port found by
// name, since device ids may have moved since the list was made.
//
// Locks: the list's mutex guards the probes and the JACK client; a port's mutex guards its
// RtMidi object. Neither is held while the other is taken.
#include "midi_service.h"

#ifndef VELT_HAVE_RTMIDI

namespace velt_platform::detail {
void AppendSystemOutputs(std::vector<std::shared_ptr<OutputPort>>&) {}
void AppendSystemInputs(std::vector<std::shared_ptr<InputPort>>&) {}
}  // namespace velt_platform::detail

#else

#include <RtMidi.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>

#ifdef VELT_HAVE_JACK
#include <jack/jack.h>
#endif

namespace velt_platform::detail {
namespace {

constexpr const char* kClientName = "VELT";
constexpr const char* kOutputPortName = "VELT Out";
constexpr const char* kInputPortName = "VELT In";
constexpr const char* kAlsaSequencerDevice = "/dev/snd/seq";
constexpr unsigned kInputQueueSize = 1024;

struct PortRef {
    RtMidi::Api api = RtMidi::UNSPECIFIED;
    std::string name;
};

void ReportRtMidiError(RtMidiError::Type type, const std::string& text, void* /*user*/)
{
    if (type != RtMidiError::WARNING && type != RtMidiError::DEBUG_WARNING) {
        std::fprintf(stderr, "MIDI: %s\n", text.c_str());
    }
}

template <typename RtObject>
std::optional<unsigned> FindPortByName(RtObject& rt, const std::string& name)
{
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

    MMRESULT Open() override
    {
        std::scoped_lock lock(mutex_);
        try {
            auto out = std::make_unique<RtMidiOut>(ref_.api, kClientName);
            out->setErrorCallback(&ReportRtMidiError);
            const auto index = FindPortByName(*out, ref_.name);
            if (!index) {
                return MIDIERR_NODEVICE;
            }
            out->openPort(*index, kOutputPortName);
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

    void Close() override
    {
        std::unique_ptr<RtMidiOut> out;
        {
            std::scoped_lock lock(mutex_);
            out = std::move(out_);
        }
    }

    MMRESULT Send(std::span<const BYTE> message, std::optional<std::uint64_t>) override
    {
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

    MMRESULT Open(InputSink& sink) override
    {
        std::scoped_lock lock(mutex_);
        try {
            auto in = std::make_unique<RtMidiIn>(ref_.api, kClientName, kInputQueueSize);
            in->setErrorCallback(&ReportRtMidiError);
            in->ignoreTypes(false, false, false);  // SysEx, timing and active sensing all pass
            const auto index = FindPortByName(*in, ref_.name);
            if (!index) {
                return MIDIERR_NODEVICE;
            }
            sink_.store(&sink);
            in->setCallback(&RtMidiInputPort::OnMessage_, this);
            in->openPort(*index, kInputPortName);
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

    // Destroying the RtMidi object ends its input thread / JACK client, so no message follows.
    void Close() override
    {
        std::unique_ptr<RtMidiIn> in;
        {
            std::scoped_lock lock(mutex_);
            in = std::move(in_);
        }
        in.reset();
        sink_.store(nullptr);
    }

private:
    // Runs on RtMidi's input thread (the ALSA listener or the JACK process thread).
    static void OnMessage_(double /*delta*/, std::vector<unsigned char>* message, void* self)
    {
        InputSink* sink = static_cast<RtMidiInputPort*>(self)->sink_.load();
        if (sink != nullptr && message != nullptr && !message->empty()) {
            sink->Receive(Bytes(message->begin(), message->end()), NowNs());
        }
    }

    const PortRef ref_;
    std::mutex mutex_;
    std::unique_ptr<RtMidiIn> in_;
    std::atomic<InputSink*> sink_{nullptr};
};

#ifdef VELT_HAVE_JACK
thread_local bool quietJackMessages = false;

void PrintJackMessage(const char* text)
{
    if (!quietJackMessages) {
        std::fprintf(stderr, "JACK: %s\n", text);
    }
}
#endif

class SystemPortList {
public:
    SystemPortList() { RtMidi::getCompiledApi(apis_); }

    SystemPortList(const SystemPortList&) = delete;
    SystemPortList& operator=(const SystemPortList&) = delete;

    ~SystemPortList()
    {
#ifdef VELT_HAVE_JACK
        if (jack_ != nullptr) {
            jack_client_close(jack_);
        }
#endif
    }

    // Destinations (outputs = true) or sources, per compiled API in RtMidi's order.
    std::vector<PortRef> List(bool outputs)
    {
        std::scoped_lock lock(mutex_);
        std::vector<PortRef> ports;
        for (const RtMidi::Api api : apis_) {
            if (api == RtMidi::LINUX_ALSA) {
                ListAlsa_(outputs, ports);
            }
#ifdef VELT_HAVE_JACK
            if (api == RtMidi::UNIX_JACK) {
                ListJack_(outputs, ports);
            }
#endif
        }
        return ports;
    }

private:
    void ListAlsa_(bool outputs, std::vector<PortRef>& ports)
    {
        if (!alsaTried_) {
            alsaTried_ = true;
            if (access(kAlsaSequencerDevice, R_OK | W_OK) == 0) {
                try {
                    alsaOut_ = std::make_unique<RtMidiOut>(RtMidi::LINUX_ALSA, kClientName);
                    alsaOut_->setErrorCallback(&ReportRtMidiError);
                    alsaIn_ = std::make_unique<RtMidiIn>(RtMidi::LINUX_ALSA, kClientName);
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

#ifdef VELT_HAVE_JACK
    static void OnJackShutdown_(void* self)
    {
        static_cast<SystemPortList*>(self)->jackShutDown_.store(true);
    }

    jack_client_t* JackClient_()
    {
        const auto now = std::chrono::steady_clock::now();
        if (jack_ != nullptr && jackShutDown_.load()) {
            jack_client_close(jack_);
            jack_ = nullptr;
        }
        if (jack_ == nullptr && now >= nextJackAttempt_) {
            static std::once_flag handlers;
            std::call_once(handlers, [] {
                jack_set_error_function(&PrintJackMessage);
                jack_set_info_function(&PrintJackMessage);
            });
            quietJackMessages = true;
            jack_status_t status{};
            jack_ = jack_client_open(kClientName, JackNoStartServer, &status);
            quietJackMessages = false;
            if (jack_ == nullptr) {
                nextJackAttempt_ = now + std::chrono::seconds(1);
            } else {
                jackShutDown_.store(false);
                jack_on_shutdown(jack_, &SystemPortList::OnJackShutdown_, this);
            }
        }
        return jack_;
    }

    // A destination is a JACK MIDI port that takes input; a source one that gives output.
    void ListJack_(bool outputs, std::vector<PortRef>& ports)
    {
        jack_client_t* client = JackClient_();
        if (client == nullptr) {
            return;
        }
        const char** names = jack_get_ports(client, nullptr, JACK_DEFAULT_MIDI_TYPE,
                                            outputs ? JackPortIsInput : JackPortIsOutput);
        if (names == nullptr) {
            return;
        }
        for (const char** name = names; *name != nullptr; ++name) {
            ports.push_back(PortRef{RtMidi::UNIX_JACK, *name});
        }
        jack_free(static_cast<void*>(names));
    }

    jack_client_t* jack_ = nullptr;
    std::atomic<bool> jackShutDown_{false};
    std::chrono::steady_clock::time_point nextJackAttempt_{};
#endif

    std::mutex mutex_;
    std::vector<RtMidi::Api> apis_;
    bool alsaTried_ = false;
    std::unique_ptr<RtMidiOut> alsaOut_;
    std::unique_ptr<RtMidiIn> alsaIn_;
};

SystemPortList& SystemPorts()
{
    static SystemPortList list;
    return list;
}

}  // namespace

void AppendSystemOutputs(std::vector<std::shared_ptr<OutputPort>>& ports)
{
    for (PortRef& ref : SystemPorts().List(true)) {
        ports.push_back(std::make_shared<RtMidiOutputPort>(std::move(ref)));
    }
}

void AppendSystemInputs(std::vector<std::shared_ptr<InputPort>>& ports)
{
    for (PortRef& ref : SystemPorts().List(false)) {
        ports.push_back(std::make_shared<RtMidiInputPort>(std::move(ref)));
    }
}

}  // namespace velt_platform::detail

#endif  // VELT_HAVE_RTMIDI

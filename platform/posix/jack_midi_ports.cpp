// The JACK MIDI ports of the running JACK server, as devices of the POSIX MIDI service. Without
// libjack at build time there are none.
//
// One JACK client per process. The JACK library keeps per-process state that its clients share
// and that its own threads update without a lock: every client's notification thread walks the
// client's port list when the server recomputes latencies (after any connection change by anyone),
// while jack_port_unregister erases from that list on the caller's thread; and client add/remove
// notifications, which the server sends without waiting, map and unmap the process-wide wake-up
// table that the process threads of all clients in the process use. A service that made a client
// (or a port) per open device and dropped it at close therefore crashed, or silently stopped
// delivering, when a device was closed while such a notification was still being handled. So:
//   - the service connects one client ("VELT") on first use and keeps it while the server lives;
//   - each open device takes a slot: a port of that client, registered the first time the slot
//     is used and never unregistered while the client lives. Closing disconnects the port and
//     parks it for the next open;
//   - one process callback serves all slots.
// When the server goes away the client is dropped once no open device uses it any more, and a
// new connection is tried at most once a second, with the JACK library's complaints silenced for
// that attempt.
//
// An output device whose port has no connection any more (its destination went away, or someone
// disconnected it) reports MIDIERR_NODEVICE from Send, as when the server is gone: what it sent
// would reach nobody. It stays so until closed; a destination that comes back is a new device,
// listed again under its name. Send must stay cheap and must not wait for the server, and the
// JACK library promises nothing about asking a port's connections from a thread other than the
// process thread (off it, the library may sleep through a pending graph change). So the client's
// notification thread counts each output slot's connections from the server's connect and
// disconnect notifications, which come in the order the server made the changes, and Send reads
// the count. An open returns once its own connection has been counted, a close once its
// disconnection has been (a slot whose count did not come back to zero is never reused: the
// disconnections still on their way would count against the next open's connection).
//
// Threads: callers of the device operations (handle layer, listing), the client's process thread
// (Process_), its notification thread (OnConnect_, OnShutdown_) and, per open input, a delivery
// thread ("jack_midi_in"). Neither JACK thread takes a lock but the progress mutex (and the
// process thread only when someone waits for it): slots hand over through atomics, bytes through
// one single-producer single-consumer ring buffer per slot, in both directions. The process
// thread never allocates: input messages are copied into the slot's ring (a SysEx split over
// several events is first put together in the slot's fixed assembly buffer) and the delivery
// thread is woken through an atomic; it hands them to the device's sink, which queues them for
// the handle's callback thread. A slot's port, ring buffer and assembly buffer are created before
// the slot is published and live as long as the session, so the JACK threads never see them
// freed.
// Locks, in order: a device's own mutex (held while it waits for the process thread to drain or
// let go of its slot), the service's mutex (current session), a session's mutex (slot
// allocation, port registration, connection), the session's progress mutex (waits for the JACK
// threads, which take it only to wake someone waiting).
#include "midi_service.h"

#ifndef VELT_HAVE_JACK

namespace velt_platform::detail {
void AppendJackOutputs(std::vector<std::shared_ptr<OutputPort>>&) {}
void AppendJackInputs(std::vector<std::shared_ptr<InputPort>>&) {}
}  // namespace velt_platform::detail

#else

#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

namespace velt_platform::detail {
namespace {

constexpr std::size_t kSlotsPerDirection = 64;  // JACK devices open at once, per direction
constexpr std::size_t kOutputQueueBytes = 64 * 1024;
// Input waiting for its delivery thread; what does not fit is dropped. A SysEx longer than the
// assembly buffer is dropped whole.
constexpr std::size_t kInputQueueBytes = 256 * 1024;
constexpr std::size_t kSysExAssemblyBytes = 64 * 1024;
// How long a close waits for bytes already sent to leave through the process thread, and an
// open or a close for its connection change to take effect (the server applies it from the next
// cycle) and to be heard back.
constexpr std::chrono::seconds kDrainLimit{1};
constexpr std::chrono::seconds kConnectLimit{1};
constexpr std::chrono::seconds kReconnectInterval{1};
constexpr BYTE kSysExStart = 0xF0;
constexpr BYTE kSysExEnd = 0xF7;
constexpr BYTE kFirstRealTime = 0xF8;  // real-time bytes may come in the middle of a SysEx

// The JACK library reports on whichever thread notices a problem, also on threads it may cancel
// at any instruction (its notification threads are cancelled asynchronously when a client
// closes). The report is therefore formatted on the stack and written with one write(2), so a
// cancelled report cannot leave the stdio lock taken.
thread_local bool quietJackMessages = false;

void PrintJackMessage(const char* text) {
    if (quietJackMessages) {
        return;
    }
    std::array<char, 512> line{};
    const int length = std::snprintf(line.data(), line.size(), "JACK: %s\n", text);
    if (length > 0) {
        const auto size = std::min<std::size_t>(static_cast<std::size_t>(length), line.size() - 1);
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), size);
    }
}

class QuietJackMessages {
  public:
    QuietJackMessages() { quietJackMessages = true; }
    ~QuietJackMessages() { quietJackMessages = false; }
    QuietJackMessages(const QuietJackMessages&) = delete;
    QuietJackMessages& operator=(const QuietJackMessages&) = delete;
};

struct RingBufferFree {
    void operator()(jack_ringbuffer_t* buffer) const { jack_ringbuffer_free(buffer); }
};
using RingBuffer = std::unique_ptr<jack_ringbuffer_t, RingBufferFree>;

// One message in an output slot's queue: this header, then the bytes.
struct QueueRecord {
    std::uint32_t length = 0;
    jack_nframes_t frame = 0;  // the server's frame time when it was sent
};

// Port names: the first slot's port is "VELT Out", the next "VELT Out 2", and so on.
std::string SlotPortName(const char* base, std::size_t slot) {
    return slot == 0 ? std::string(base) : std::string(base) + " " + std::to_string(slot + 1);
}

// One client connection to the server. Shared by the devices opened through it and by the
// service while the server lives; the last owner closes the client.
class JackSession {
  public:
    // A connected, activated session, or nullptr when no server answers.
    static std::shared_ptr<JackSession> Connect() {
        jack_client_t* client = nullptr;
        {
            QuietJackMessages quiet;
            jack_status_t status{};
            client = jack_client_open(kServiceClientName, JackNoStartServer, &status);
        }
        if (client == nullptr) {
            return nullptr;
        }
        auto session = std::make_shared<JackSession>(client);
        if (jack_set_process_callback(client, &JackSession::Process_, session.get()) != 0 ||
            jack_set_port_connect_callback(client, &JackSession::OnConnect_, session.get()) != 0) {
            return nullptr;
        }
        jack_on_shutdown(client, &JackSession::OnShutdown_, session.get());
        if (jack_activate(client) != 0) {
            return nullptr;
        }
        return session;
    }

    explicit JackSession(jack_client_t* client) : client_(client) {}
    JackSession(const JackSession&) = delete;
    JackSession& operator=(const JackSession&) = delete;

    // Closing stops the process and notification threads first; the ring buffers go after.
    // Every input is closed before (the devices hold the session while open), so no delivery
    // thread runs; one that does (an input never closed) is ended here all the same.
    ~JackSession() {
        {
            QuietJackMessages quiet;  // a server that has gone only reports it is not running
            jack_client_close(client_);
        }
        for (InputSlot& input : inputs_) {
            if (input.delivery.joinable()) {
                input.quit.store(true);
                input.arrivals.fetch_add(1);
                input.arrivals.notify_one();
                input.delivery.join();
            }
        }
    }

    bool Gone() const { return gone_.load(); }

    // Full names of the server's MIDI ports that take input (destinations) or give output
    // (sources), without this client's own ports.
    std::vector<std::string> PortNames(bool destinations) {
        std::vector<std::string> names;
        if (Gone()) {
            return names;
        }
        const char** found = jack_get_ports(client_, nullptr, JACK_DEFAULT_MIDI_TYPE,
                                            destinations ? JackPortIsInput : JackPortIsOutput);
        if (found == nullptr) {
            return names;
        }
        const std::string own = std::string(jack_get_client_name(client_)) + ":";
        for (const char** name = found; *name != nullptr; ++name) {
            if (std::strncmp(*name, own.c_str(), own.size()) != 0) {
                names.emplace_back(*name);
            }
        }
        jack_free(static_cast<void*>(found));
        return names;
    }

    // Takes a free output slot and connects its port to destination. On success slot is set;
    // what is sent from then on reaches the destination, and the slot counts as connected.
    MMRESULT OpenOutput(const std::string& destination, std::size_t& slot) {
        std::scoped_lock lock(mutex_);
        const auto index = FreeSlot_(outputs_);
        if (!index) {
            return MMSYSERR_NOMEM;
        }
        OutputSlot& output = outputs_[*index];
        if (output.port.load() == nullptr) {
            output.queue.reset(jack_ringbuffer_create(kOutputQueueBytes));
            if (!output.queue) {
                return MMSYSERR_NOMEM;
            }
            if (!Register_(output.port, SlotPortName(kServiceOutputPortName, *index),
                           JackPortIsOutput)) {
                return MMSYSERR_ERROR;
            }
        }
        jack_port_t* port = output.port.load();
        if (!Connected_(jack_connect(client_, jack_port_name(port), destination.c_str()))) {
            return MIDIERR_NODEVICE;
        }
        AwaitNewCycle_();
        AwaitJackThreads_(std::chrono::steady_clock::now() + kConnectLimit,
                          [&] { return output.connections.load() > 0 || Gone(); });
        output.state.store(SlotState::Active);
        slot = *index;
        return MMSYSERR_NOERROR;
    }

    // False once the slot's port has no connection left. Any thread.
    bool HasConnection(std::size_t slot) const { return outputs_[slot].connections.load() > 0; }

    // Queues one message for the process thread, stamped with the server's frame time now.
    // Single producer per slot: the device's mutex serialises its callers. MIDIERR_NOTREADY when
    // the queue is full (the server stopped taking data).
    MMRESULT Write(std::size_t slot, std::span<const BYTE> message) {
        jack_ringbuffer_t* queue = outputs_[slot].queue.get();
        const QueueRecord record{static_cast<std::uint32_t>(message.size()),
                                 jack_frame_time(client_)};
        if (jack_ringbuffer_write_space(queue) < sizeof record + message.size()) {
            return MIDIERR_NOTREADY;
        }
        jack_ringbuffer_write(queue, reinterpret_cast<const char*>(&record), sizeof record);
        jack_ringbuffer_write(queue, reinterpret_cast<const char*>(message.data()), message.size());
        return MMSYSERR_NOERROR;
    }

    // Lets what was queued leave (bounded by kDrainLimit), disconnects the port and parks the
    // slot. A slot whose queue did not drain, or whose disconnection was not heard back (bounded
    // by kConnectLimit), is never used again by this session.
    void CloseOutput(std::size_t slot) {
        OutputSlot& output = outputs_[slot];
        output.state.store(SlotState::Closing);
        AwaitJackThreads_(std::chrono::steady_clock::now() + kDrainLimit,
                          [&] { return output.state.load() == SlotState::Drained || Gone(); });
        WaitUntilProcessThreadLetGo_();
        Disconnect_(output.port.load());
        AwaitJackThreads_(std::chrono::steady_clock::now() + kConnectLimit,
                          [&] { return output.connections.load() == 0 || Gone(); });
        std::scoped_lock lock(mutex_);
        SlotState drained = SlotState::Drained;
        if (output.connections.load() != 0 ||
            !output.state.compare_exchange_strong(drained, SlotState::Free)) {
            output.state.store(SlotState::Retired);
        }
    }

    // Takes a free input slot, connects source to its port and starts delivering to sink
    // everything the source sends from when this returns.
    MMRESULT OpenInput(const std::string& source, InputSink& sink, std::size_t& slot) {
        std::scoped_lock lock(mutex_);
        const auto index = FreeSlot_(inputs_);
        if (!index) {
            return MMSYSERR_NOMEM;
        }
        InputSlot& input = inputs_[*index];
        if (input.port.load() == nullptr) {
            input.queue.reset(jack_ringbuffer_create(kInputQueueBytes));
            input.sysEx = std::make_unique<std::array<BYTE, kSysExAssemblyBytes>>();
            if (!input.queue) {
                return MMSYSERR_NOMEM;
            }
            if (!Register_(input.port, SlotPortName(kServiceInputPortName, *index),
                           JackPortIsInput)) {
                return MMSYSERR_ERROR;
            }
        }
        jack_port_t* port = input.port.load();
        if (!Connected_(jack_connect(client_, source.c_str(), jack_port_name(port)))) {
            return MIDIERR_NODEVICE;
        }
        AwaitNewCycle_();
        // The ring is empty and no thread uses it: the slot was closed (or never opened).
        input.quit.store(false);
        input.delivery = std::thread([&input, &sink] {
            RunReportingFailure("JACK MIDI input", [&] { Deliver_(input, sink); });
        });
        input.sink.store(&sink);
        input.state.store(SlotState::Active);
        slot = *index;
        return MMSYSERR_NOERROR;
    }

    // After this returns neither the process thread nor the delivery thread calls the slot's
    // sink again.
    void CloseInput(std::size_t slot) {
        InputSlot& input = inputs_[slot];
        input.sink.store(nullptr);
        WaitUntilProcessThreadLetGo_();
        input.quit.store(true);
        input.arrivals.fetch_add(1);
        input.arrivals.notify_one();
        input.delivery.join();
        // Both ends have let go: what the delivery thread left behind is thrown away.
        jack_ringbuffer_reset(input.queue.get());
        Disconnect_(input.port.load());
        std::scoped_lock lock(mutex_);
        input.state.store(SlotState::Free);
    }

  private:
    // Free: parked, ready for an open. Active: in use. Closing: the process thread empties the
    // queue, then marks it Drained. Retired: closed without draining; never reused.
    enum class SlotState { Free, Active, Closing, Drained, Retired };

    struct OutputSlot {
        std::atomic<jack_port_t*> port{nullptr};
        RingBuffer queue;
        std::atomic<SlotState> state{SlotState::Free};
        std::atomic<int> connections{0};  // written by the notification thread only
    };

    // Input ring record: InputRecord, then `length` message bytes.
    struct InputRecord {
        std::uint32_t length = 0;
        std::int64_t timeNs = 0;
    };

    struct InputSlot {
        std::atomic<jack_port_t*> port{nullptr};
        std::atomic<InputSink*> sink{nullptr};
        std::atomic<SlotState> state{SlotState::Free};
        // Process thread -> delivery thread. `arrivals` is raised (and notified) after records
        // were written, and to make the thread look at `quit`.
        RingBuffer queue;
        std::atomic<std::uint32_t> arrivals{0};
        std::atomic<bool> quit{false};
        std::thread delivery;  // runs from OpenInput to CloseInput
        // Owned by the process thread: a SysEx that arrived split over several events.
        std::unique_ptr<std::array<BYTE, kSysExAssemblyBytes>> sysEx;
        std::size_t sysExLength = 0;  // 0: no SysEx under way
        bool sysExTooLong = false;
        InputSink* sysExSink = nullptr;
    };

    // Process thread: one record, or nothing when the ring has no room for it. No allocation,
    // no lock.
    static bool QueueInput_(InputSlot& input, const BYTE* bytes, std::size_t length,
                            std::int64_t timeNs) {
        jack_ringbuffer_t* queue = input.queue.get();
        const InputRecord record{static_cast<std::uint32_t>(length), timeNs};
        if (jack_ringbuffer_write_space(queue) < sizeof record + length) {
            return false;
        }
        jack_ringbuffer_write(queue, reinterpret_cast<const char*>(&record), sizeof record);
        jack_ringbuffer_write(queue, reinterpret_cast<const char*>(bytes), length);
        return true;
    }

    // Delivery thread: hands every record to the sink in order, then sleeps until the process
    // thread writes more or the slot closes. The sink allocates and locks; here that is allowed.
    static void Deliver_(InputSlot& input, InputSink& sink) {
        SetCurrentThreadName("jack_midi_in");
        jack_ringbuffer_t* queue = input.queue.get();
        for (;;) {
            const std::uint32_t seen = input.arrivals.load();
            InputRecord record;
            while (jack_ringbuffer_read_space(queue) >= sizeof record) {
                jack_ringbuffer_read(queue, reinterpret_cast<char*>(&record), sizeof record);
                Bytes message(record.length);
                jack_ringbuffer_read(queue, reinterpret_cast<char*>(message.data()), record.length);
                sink.Receive(std::move(message), record.timeNs);
            }
            if (input.quit.load()) {
                return;
            }
            input.arrivals.wait(seen);
        }
    }

    template <typename Slots>
    static std::optional<std::size_t> FreeSlot_(const Slots& slots) {
        for (std::size_t i = 0; i < slots.size(); ++i) {
            if (slots[i].state.load() == SlotState::Free) {
                return i;
            }
        }
        return std::nullopt;
    }

    bool Register_(std::atomic<jack_port_t*>& port, const std::string& name, unsigned long flags) {
        jack_port_t* registered =
            jack_port_register(client_, name.c_str(), JACK_DEFAULT_MIDI_TYPE, flags, 0);
        port.store(registered);
        return registered != nullptr;
    }

    static bool Connected_(int result) { return result == 0 || result == EEXIST; }

    void Disconnect_(jack_port_t* port) {
        if (!Gone()) {
            jack_port_disconnect(client_, port);
        }
    }

    // Waits until the process thread is not inside a callback that may have seen a slot as it
    // was before the caller changed it. A callback that starts later sees the change. Needs no
    // server: the callback in progress only has to return.
    void WaitUntilProcessThreadLetGo_() {
        const unsigned seen = callbacks_.load();
        if ((seen & 1u) != 0) {
            AwaitJackThreads_(std::nullopt, [&] { return callbacks_.load() != seen; });
        }
    }

    // Waits until a callback that started after this call has returned (bounded): it ran in a
    // cycle that began after a connection made before this call, so the connection is in effect
    // for every later cycle. A callback already running may belong to the cycle before.
    void AwaitNewCycle_() {
        const unsigned start = callbacks_.load();
        const unsigned needed = (start & 1u) == 0 ? 2 : 3;
        AwaitJackThreads_(std::chrono::steady_clock::now() + kConnectLimit,
                          [&] { return callbacks_.load() - start >= needed || Gone(); });
    }

    // Blocks a caller's thread until done() holds (or the deadline passes). The JACK threads
    // wake waiters after each callback (WakeWaiters_); the waiter count is raised before done()
    // is first tested, so a callback that ends in between either is seen by done() or sees the
    // waiter.
    template <typename Done>
    void AwaitJackThreads_(std::optional<std::chrono::steady_clock::time_point> deadline,
                           Done done) {
        waiters_.fetch_add(1);
        {
            std::unique_lock lock(progressMutex_);
            if (deadline) {
                progress_.wait_until(lock, *deadline, done);
            } else {
                progress_.wait(lock, done);
            }
        }
        waiters_.fetch_sub(1);
    }

    // JACK process thread. callbacks_ is odd while a callback runs.
    static int Process_(jack_nframes_t frames, void* self) {
        auto& session = *static_cast<JackSession*>(self);
        session.callbacks_.fetch_add(1);
        // A cycle that fails is reported and the next one runs as usual.
        RunReportingFailure("JACK process cycle", [&] {
            for (OutputSlot& output : session.outputs_) {
                session.PlayOutput_(output, frames);
            }
            for (InputSlot& input : session.inputs_) {
                session.DeliverInput_(input, frames);
            }
        });
        session.callbacks_.fetch_add(1);
        session.WakeWaiters_();
        return 0;
    }

    // JACK threads, after a change a caller may wait for: takes progressMutex_ only while
    // someone waits.
    void WakeWaiters_() {
        if (waiters_.load() > 0) {
            std::scoped_lock lock(progressMutex_);
            progress_.notify_all();
        }
    }

    // An output port's buffer is cleared every cycle, or a connected reader would read the same
    // events again. Messages that do not fit this cycle's buffer stay queued for the next.
    //
    // Each message goes out exactly one period after it was sent: a message stamped at frame f,
    // sent while the cycle that began at frame c was being processed, lands at offset f - c of
    // the next cycle, so the time between messages survives (nothing is moved to a cycle's
    // start). A message whose place has passed (the process thread missed a cycle) goes at the
    // first free frame; one whose place lies beyond this cycle (the frame estimate ran ahead)
    // waits for the next. Offsets never go back, as a port buffer requires.
    void PlayOutput_(OutputSlot& output, jack_nframes_t frames) {
        jack_port_t* port = output.port.load();
        if (port == nullptr) {
            return;
        }
        void* buffer = jack_port_get_buffer(port, frames);
        jack_midi_clear_buffer(buffer);
        const SlotState state = output.state.load();
        if (state != SlotState::Active && state != SlotState::Closing) {
            return;
        }
        jack_ringbuffer_t* queue = output.queue.get();
        const jack_nframes_t cycleStart = jack_last_frame_time(client_);
        jack_nframes_t earliest = 0;
        QueueRecord record{};
        while (jack_ringbuffer_peek(queue, reinterpret_cast<char*>(&record), sizeof record) ==
                   sizeof record &&
               jack_ringbuffer_read_space(queue) >= sizeof record + record.length) {
            // Frame times wrap around; the difference of two of them does not, as a signed value.
            const auto place = static_cast<std::int32_t>(record.frame + frames - cycleStart);
            if (place >= static_cast<std::int32_t>(frames)) {
                break;  // due in a later cycle
            }
            const jack_nframes_t offset =
                std::max(earliest, static_cast<jack_nframes_t>(std::max<std::int32_t>(place, 0)));
            jack_midi_data_t* event = jack_midi_event_reserve(buffer, offset, record.length);
            if (event == nullptr && jack_midi_get_event_count(buffer) > 0) {
                break;  // the rest goes next cycle
            }
            earliest = offset;
            const std::uint32_t length = record.length;
            jack_ringbuffer_read_advance(queue, sizeof record);
            if (event == nullptr) {
                // Larger than a whole cycle's buffer: it can never go, and must not hold up
                // what follows.
                jack_ringbuffer_read_advance(queue, length);
                continue;
            }
            jack_ringbuffer_read(queue, reinterpret_cast<char*>(event), length);
        }
        if (state == SlotState::Closing && jack_ringbuffer_read_space(queue) == 0) {
            SlotState closing = SlotState::Closing;  // not if the close gave up meanwhile
            output.state.compare_exchange_strong(closing, SlotState::Drained);
        }
    }

    // Each JACK MIDI event is one message; a SysEx not ended by 0xF7 continues in the next
    // events and is handed on whole. Queued for the delivery thread, which is woken once per
    // cycle that brought something.
    void DeliverInput_(InputSlot& input, jack_nframes_t frames) {
        jack_port_t* port = input.port.load();
        InputSink* sink = input.sink.load();
        if (port == nullptr || sink == nullptr) {
            return;
        }
        if (input.sysExSink != sink) {
            input.sysExLength = 0;
            input.sysExTooLong = false;
            input.sysExSink = sink;
        }
        std::array<BYTE, kSysExAssemblyBytes>& sysEx = *input.sysEx;
        bool queued = false;
        void* buffer = jack_port_get_buffer(port, frames);
        const jack_nframes_t count = jack_midi_get_event_count(buffer);
        for (jack_nframes_t i = 0; i < count; ++i) {
            jack_midi_event_t event{};
            if (jack_midi_event_get(&event, buffer, i) != 0 || event.size == 0) {
                continue;
            }
            const BYTE* bytes = event.buffer;
            const BYTE first = bytes[0];
            const bool realTime = first >= kFirstRealTime;
            const bool continues = first < 0x80 || first == kSysExEnd;
            if (input.sysExLength > 0 && !realTime && !continues) {
                input.sysExLength = 0;  // a new status byte cut the SysEx off
                input.sysExTooLong = false;
            }
            if (!realTime && (first == kSysExStart || input.sysExLength > 0)) {
                if (input.sysExLength + event.size > sysEx.size()) {
                    input.sysExTooLong = true;
                } else {
                    std::memcpy(sysEx.data() + input.sysExLength, bytes, event.size);
                }
                input.sysExLength += event.size;
                if (bytes[event.size - 1] == kSysExEnd) {
                    if (!input.sysExTooLong) {
                        queued |= QueueInput_(input, sysEx.data(), input.sysExLength, NowNs());
                    }
                    input.sysExLength = 0;
                    input.sysExTooLong = false;
                }
                continue;
            }
            queued |= QueueInput_(input, bytes, event.size, NowNs());
        }
        if (queued) {
            input.arrivals.fetch_add(1);
            input.arrivals.notify_one();
        }
    }

    // JACK notification thread, for every connection made or broken between any two ports (also
    // the server's own disconnections of a port that goes away). The server gives a port id
    // again once its port has gone, so notifications about the earlier port may still come after
    // a slot's port got the id. They are disconnections (a port is disconnected from everything
    // before it goes), which a count at zero ignores; only a thread lagging behind a whole
    // connect, disconnect and removal of the earlier port could count it for a moment.
    static void OnConnect_(jack_port_id_t a, jack_port_id_t b, int connect, void* self) {
        auto& session = *static_cast<JackSession*>(self);
        const jack_port_t* first = jack_port_by_id(session.client_, a);
        const jack_port_t* second = jack_port_by_id(session.client_, b);
        for (OutputSlot& output : session.outputs_) {
            const jack_port_t* port = output.port.load();
            if (port != nullptr && (port == first || port == second)) {
                const int connections = output.connections.load();
                output.connections.store(connect != 0 ? connections + 1
                                                      : std::max(connections - 1, 0));
            }
        }
        session.WakeWaiters_();
    }

    // JACK notification thread, when the server shuts down or drops the client.
    static void OnShutdown_(void* self) {
        auto& session = *static_cast<JackSession*>(self);
        session.gone_.store(true);
        std::scoped_lock lock(session.progressMutex_);
        session.progress_.notify_all();  // a drain, a new cycle or a notification will not come
    }

    jack_client_t* const client_;
    std::atomic<bool> gone_{false};
    std::atomic<unsigned> callbacks_{0};  // odd while a callback runs
    std::atomic<unsigned> waiters_{0};
    std::mutex progressMutex_;
    std::condition_variable progress_;
    std::mutex mutex_;  // slot allocation and port registration
    std::array<OutputSlot, kSlotsPerDirection> outputs_;
    std::array<InputSlot, kSlotsPerDirection> inputs_;
};

// The process's session with the JACK server, made on first use and again after the server
// went away (at most once a second).
class JackService {
  public:
    JackService() {
        jack_set_error_function(&PrintJackMessage);
        jack_set_info_function(&PrintJackMessage);
    }

    std::shared_ptr<JackSession> Session() {
        std::scoped_lock lock(mutex_);
        if (session_ && session_->Gone()) {
            session_.reset();  // devices still open on it keep it until they close
        }
        const auto now = std::chrono::steady_clock::now();
        if (!session_ && now >= nextAttempt_) {
            session_ = JackSession::Connect();
            if (!session_) {
                nextAttempt_ = now + kReconnectInterval;
            }
        }
        return session_;
    }

  private:
    std::mutex mutex_;
    std::shared_ptr<JackSession> session_;
    std::chrono::steady_clock::time_point nextAttempt_{};
};

JackService& Jack() {
    static JackService service;
    return service;
}

// What the JACK output and input devices share: the port's full name, and while open the
// session and slot they hold. Open and Close come from the handle layer.
class JackDevice {
  protected:
    explicit JackDevice(std::string name) : name_(std::move(name)) {}

    // openSlot(session, slot) takes a slot of the current session.
    template <typename OpenSlot>
    MMRESULT OpenOn_(OpenSlot openSlot) {
        std::scoped_lock lock(mutex_);
        if (session_) {
            return MMSYSERR_ALLOCATED;
        }
        auto session = Jack().Session();
        if (!session) {
            return MIDIERR_NODEVICE;
        }
        std::size_t slot = 0;
        if (const MMRESULT result = openSlot(*session, slot); result != MMSYSERR_NOERROR) {
            return result;
        }
        session_ = std::move(session);
        slot_ = slot;
        return MMSYSERR_NOERROR;
    }

    // closeSlot(session, slot) gives the slot back.
    template <typename CloseSlot>
    void CloseOn_(CloseSlot closeSlot) {
        std::shared_ptr<JackSession> session;  // released after the lock: the client may close
        std::scoped_lock lock(mutex_);
        if (session_) {
            closeSlot(*session_, slot_);
            session = std::move(session_);
        }
    }

    const std::string name_;
    std::mutex mutex_;                      // Open, Close, Send
    std::shared_ptr<JackSession> session_;  // while open
    std::size_t slot_ = 0;
};

// Send comes from a handle's service thread and from midiOutShortMsg callers at once; the
// device's mutex makes it the single producer of its slot's queue. Send reports MIDIERR_NODEVICE
// once the server is gone or the port has no connection left.
class JackOutputPort final : public OutputPort, private JackDevice {
  public:
    explicit JackOutputPort(std::string name) : JackDevice(std::move(name)) {}

    std::string Name() const override { return name_; }

    MMRESULT Open() override {
        return OpenOn_([this](JackSession& session, std::size_t& slot) {
            return session.OpenOutput(name_, slot);
        });
    }

    // Blocks until what was sent has left (at most about a second).
    void Close() override {
        CloseOn_([](JackSession& session, std::size_t slot) { session.CloseOutput(slot); });
    }

    MMRESULT Send(std::span<const BYTE> message, std::optional<std::uint64_t>) override {
        std::scoped_lock lock(mutex_);
        if (!session_ || session_->Gone() || !session_->HasConnection(slot_)) {
            return MIDIERR_NODEVICE;
        }
        return session_->Write(slot_, message);
    }

    PacketTicket QueuePacket() override { return PacketTicket{nextPacket_++}; }

  private:
    std::atomic<std::uint64_t> nextPacket_{0};
};

class JackInputPort final : public InputPort, private JackDevice {
  public:
    explicit JackInputPort(std::string name) : JackDevice(std::move(name)) {}

    std::string Name() const override { return name_; }

    MMRESULT Open(InputSink& sink) override {
        return OpenOn_([this, &sink](JackSession& session, std::size_t& slot) {
            return session.OpenInput(name_, sink, slot);
        });
    }

    // Afterwards the sink given to Open is never called again.
    void Close() override {
        CloseOn_([](JackSession& session, std::size_t slot) { session.CloseInput(slot); });
    }
};

}  // namespace

void AppendJackOutputs(std::vector<std::shared_ptr<OutputPort>>& ports) {
    if (const auto session = Jack().Session()) {
        for (std::string& name : session->PortNames(true)) {
            ports.push_back(std::make_shared<JackOutputPort>(std::move(name)));
        }
    }
}

void AppendJackInputs(std::vector<std::shared_ptr<InputPort>>& ports) {
    if (const auto session = Jack().Session()) {
        for (std::string& name : session->PortNames(false)) {
            ports.push_back(std::make_shared<JackInputPort>(std::move(name)));
        }
    }
}

}  // namespace velt_platform::detail

#endif  // VELT_HAVE_JACK

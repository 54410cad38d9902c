// Stream output through the POSIX MIDI service on a virtual device: how many packets per second
// it plays and hands back, and how long a packet takes from midiStreamOut to its MOM_DONE.
//
//   bench_platform_midi [packets]      (default 20000 per measurement)
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/mmsystem.h"
#include "platform/virtual_midi.h"

namespace {

using Clock = std::chrono::steady_clock;

// One stream buffer of note-on events, 12 bytes each, delta 0 (as the engine sends them).
struct Packet {
    explicit Packet(int events) : storage(static_cast<std::size_t>(events) * 12) {
        for (int e = 0; e < events; ++e) {
            const DWORD words[3] = {0, 0, 0x00400090u | (static_cast<DWORD>(e % 128) << 8)};
            std::memcpy(storage.data() + e * 12, words, sizeof words);
        }
        header.lpData = reinterpret_cast<LPSTR>(storage.data());
        header.dwBufferLength = static_cast<DWORD>(storage.size());
        header.dwBytesRecorded = header.dwBufferLength;
    }
    std::vector<BYTE> storage;
    MIDIHDR header{};
};

// Counts MOM_DONE callbacks and stamps the last one.
struct Completions {
    std::mutex mutex;
    std::condition_variable done;
    std::uint64_t count = 0;
    Clock::time_point last;

    static void CALLBACK Callback(HDRVR, UINT message, DWORD_PTR instance, DWORD_PTR, DWORD_PTR) {
        if (message != MOM_DONE) {
            return;
        }
        const auto now = Clock::now();
        auto* self = reinterpret_cast<Completions*>(instance);
        {
            std::scoped_lock lock(self->mutex);
            ++self->count;
            self->last = now;
        }
        self->done.notify_all();
    }

    // Returns the time of the latest completion once target completions have been counted.
    Clock::time_point WaitFor(std::uint64_t target) {
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return count >= target; });
        return last;
    }
};

struct Stream {
    explicit Stream(velt_platform::VirtualMidiOutput& device) {
        UINT id = *device.DeviceId();
        if (midiStreamOpen(&handle, &id, 1, reinterpret_cast<DWORD_PTR>(&Completions::Callback),
                           reinterpret_cast<DWORD_PTR>(&completions),
                           CALLBACK_FUNCTION) != MMSYSERR_NOERROR) {
            std::fprintf(stderr, "cannot open the virtual device\n");
            std::exit(1);
        }
        midiStreamRestart(handle);
    }
    ~Stream() { midiStreamClose(handle); }

    void Prepare(Packet& packet) {
        midiOutPrepareHeader(reinterpret_cast<HMIDIOUT>(handle), &packet.header, sizeof(MIDIHDR));
    }

    HMIDISTRM handle = nullptr;
    Completions completions;
};

double Percentile(std::vector<double>& values, double p) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1));
    return values[index];
}

// The engine's way: one packet at a time, each awaited before the next is sent.
void MeasureLatency(int packets, int events) {
    velt_platform::VirtualMidiOutput device("Bench Out");
    Stream stream(device);
    Packet packet(events);
    stream.Prepare(packet);
    std::vector<double> microseconds;
    microseconds.reserve(static_cast<std::size_t>(packets));
    for (int i = 0; i < packets; ++i) {
        const auto sent = Clock::now();
        midiStreamOut(stream.handle, &packet.header, sizeof(MIDIHDR));
        const auto returned = stream.completions.WaitFor(static_cast<std::uint64_t>(i) + 1);
        microseconds.push_back(std::chrono::duration<double, std::micro>(returned - sent).count());
        if (i % 1024 == 0) {
            device.ClearMessages();
        }
    }
    std::printf(
        "latency midiStreamOut -> MOM_DONE, %2d events/packet: median %7.1f us  p99 %7.1f us  "
        "max %8.1f us  (%d packets)\n",
        events, Percentile(microseconds, 0.5), Percentile(microseconds, 0.99),
        Percentile(microseconds, 1.0), packets);
}

// Throughput with a window of packets in flight.
void MeasureThroughput(int packets, int events, int window) {
    velt_platform::VirtualMidiOutput device("Bench Out");
    Stream stream(device);
    std::vector<std::unique_ptr<Packet>> ring;
    for (int i = 0; i < window; ++i) {
        ring.push_back(std::make_unique<Packet>(events));
        stream.Prepare(*ring.back());
    }
    const auto start = Clock::now();
    for (int i = 0; i < packets; ++i) {
        if (i >= window) {
            stream.completions.WaitFor(static_cast<std::uint64_t>(i - window) + 1);
        }
        midiStreamOut(stream.handle, &ring[static_cast<std::size_t>(i % window)]->header,
                      sizeof(MIDIHDR));
        if (i % 1024 == 0) {
            device.ClearMessages();
        }
    }
    const auto end = stream.completions.WaitFor(static_cast<std::uint64_t>(packets));
    const double seconds = std::chrono::duration<double>(end - start).count();
    std::printf(
        "throughput, %2d events/packet, %2d in flight: %10.0f packets/s  %11.0f messages/s\n",
        events, window, packets / seconds, packets * static_cast<double>(events) / seconds);
}

}  // namespace

int main(int argc, char** argv) {
    const int packets = argc > 1 ? std::max(100, std::atoi(argv[1])) : 20000;
    for (const int events : {1, 16, 64}) {
        MeasureLatency(packets, events);
    }
    for (const int events : {1, 16}) {
        for (const int window : {1, 4, 32}) {
            MeasureThroughput(packets, events, window);
        }
    }
    return 0;
}

// The recorder of playback_timing_bench's JACK mode, in a process of its own (the JACK library
// shares state between the clients of one process): a client with one MIDI input port,
// "<client>:in", that prints each message it receives as one line, "<frame> <rate> <hex bytes>",
// the frame being the server's frame time of the message (its cycle's first frame plus its offset
// in the cycle) and rate the server's sample rate. Prints "ready" once the client runs.
//
//   jack_timing_recorder <client>
#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>

#include <cstdint>
#include <cstdio>
#include <semaphore>
#include <vector>

namespace {

constexpr std::size_t kQueueBytes = 1 << 22;

jack_client_t* client = nullptr;
jack_port_t* port = nullptr;
jack_ringbuffer_t* queue = nullptr;  // records: Record, then the bytes
std::counting_semaphore<> received{0};

struct Record {
    jack_nframes_t frame = 0;
    std::uint32_t length = 0;
};

// Process thread -> main thread; nothing here may wait.
int Process(jack_nframes_t frames, void*) {
    void* buffer = jack_port_get_buffer(port, frames);
    const jack_nframes_t cycleStart = jack_last_frame_time(client);
    const jack_nframes_t count = jack_midi_get_event_count(buffer);
    for (jack_nframes_t i = 0; i < count; ++i) {
        jack_midi_event_t event{};
        if (jack_midi_event_get(&event, buffer, i) != 0) {
            continue;
        }
        const Record record{cycleStart + event.time, static_cast<std::uint32_t>(event.size)};
        if (jack_ringbuffer_write_space(queue) >= sizeof record + record.length) {
            jack_ringbuffer_write(queue, reinterpret_cast<const char*>(&record), sizeof record);
            jack_ringbuffer_write(queue, reinterpret_cast<const char*>(event.buffer),
                                  record.length);
            received.release();
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: jack_timing_recorder <client>\n");
        return 2;
    }
    jack_status_t status{};
    client = jack_client_open(
        argv[1], static_cast<jack_options_t>(JackNoStartServer | JackUseExactName), &status);
    if (client == nullptr) {
        std::fprintf(stderr, "jack_timing_recorder: no JACK server (status 0x%x)\n",
                     static_cast<unsigned>(status));
        return 1;
    }
    queue = jack_ringbuffer_create(kQueueBytes);
    port = jack_port_register(client, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    if (queue == nullptr || port == nullptr ||
        jack_set_process_callback(client, &Process, nullptr) != 0 || jack_activate(client) != 0) {
        std::fprintf(stderr, "jack_timing_recorder: cannot make the port\n");
        return 1;
    }
    const unsigned rate = jack_get_sample_rate(client);
    std::printf("ready\n");
    std::fflush(stdout);
    std::vector<unsigned char> message;
    for (;;) {
        received.acquire();
        Record record;
        jack_ringbuffer_read(queue, reinterpret_cast<char*>(&record), sizeof record);
        message.resize(record.length);
        jack_ringbuffer_read(queue, reinterpret_cast<char*>(message.data()), record.length);
        std::printf("%u %u", static_cast<unsigned>(record.frame), rate);
        for (const unsigned char byte : message) {
            std::printf(" %02x", byte);
        }
        std::printf("\n");
        std::fflush(stdout);
    }
}

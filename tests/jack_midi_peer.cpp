// The far end of the JACK tests, in a process of its own so that the test process holds no JACK
// client besides the MIDI service's (the JACK library shares state between the clients of one
// process and is not safe against their coming and going).
//
//   jack_midi_peer <client> sink     port <client>:in; prints each message received as one line
//                                    of hex bytes ("90 3c 40")
//   jack_midi_peer <client> source   port <client>:out; sends each line of hex bytes read from
//                                    standard input as one message
//
// Prints "ready" once the port exists and the client runs. Ends without closing its client (the
// server drops it) when standard input ends or when killed; not when the server goes: a client
// that vanishes while the server shuts down can make the server die of SIGPIPE before it has
// cleaned up its registration.
#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <semaphore>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kQueueBytes = 1 << 20;

jack_port_t* port = nullptr;
jack_ringbuffer_t* queue = nullptr;  // records: uint32_t length, then the bytes
std::counting_semaphore<> received{0};

// sink: process thread -> main thread.
int ProcessSink(jack_nframes_t frames, void*) {
    void* buffer = jack_port_get_buffer(port, frames);
    const jack_nframes_t count = jack_midi_get_event_count(buffer);
    for (jack_nframes_t i = 0; i < count; ++i) {
        jack_midi_event_t event{};
        if (jack_midi_event_get(&event, buffer, i) != 0) {
            continue;
        }
        const auto length = static_cast<std::uint32_t>(event.size);
        if (jack_ringbuffer_write_space(queue) >= sizeof length + length) {
            jack_ringbuffer_write(queue, reinterpret_cast<const char*>(&length), sizeof length);
            jack_ringbuffer_write(queue, reinterpret_cast<const char*>(event.buffer), length);
            received.release();
        }
    }
    return 0;
}

// source: main thread -> process thread, all events at the start of the cycle.
int ProcessSource(jack_nframes_t frames, void*) {
    void* buffer = jack_port_get_buffer(port, frames);
    jack_midi_clear_buffer(buffer);
    std::uint32_t length = 0;
    while (jack_ringbuffer_peek(queue, reinterpret_cast<char*>(&length), sizeof length) ==
               sizeof length &&
           jack_ringbuffer_read_space(queue) >= sizeof length + length) {
        jack_midi_data_t* event = jack_midi_event_reserve(buffer, 0, length);
        if (event == nullptr) {
            break;
        }
        jack_ringbuffer_read_advance(queue, sizeof length);
        jack_ringbuffer_read(queue, reinterpret_cast<char*>(event), length);
    }
    return 0;
}

void RunSink() {
    // Standard input is only watched for its end (the test process went away).
    std::thread([] {
        char byte = 0;
        while (read(STDIN_FILENO, &byte, 1) > 0) {
        }
        _exit(0);
    }).detach();
    std::vector<unsigned char> message;
    for (;;) {
        received.acquire();
        std::uint32_t length = 0;
        jack_ringbuffer_read(queue, reinterpret_cast<char*>(&length), sizeof length);
        message.resize(length);
        jack_ringbuffer_read(queue, reinterpret_cast<char*>(message.data()), length);
        for (std::size_t i = 0; i < message.size(); ++i) {
            std::printf(i == 0 ? "%02x" : " %02x", message[i]);
        }
        std::printf("\n");
        std::fflush(stdout);
    }
}

void RunSource() {
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::vector<unsigned char> message;
        unsigned value = 0;
        while (words >> std::hex >> value) {
            message.push_back(static_cast<unsigned char>(value));
        }
        const auto length = static_cast<std::uint32_t>(message.size());
        if (length == 0 || jack_ringbuffer_write_space(queue) < sizeof length + length) {
            std::fprintf(stderr, "jack_midi_peer: cannot queue \"%s\"\n", line.c_str());
            continue;
        }
        jack_ringbuffer_write(queue, reinterpret_cast<const char*>(&length), sizeof length);
        jack_ringbuffer_write(queue, reinterpret_cast<const char*>(message.data()), length);
    }
    _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: jack_midi_peer <client> sink|source\n");
        return 2;
    }
    const std::string mode = argv[2];
    const bool sink = mode == "sink";
    if (!sink && mode != "source") {
        std::fprintf(stderr, "jack_midi_peer: unknown mode %s\n", argv[2]);
        return 2;
    }
    jack_status_t status{};
    jack_client_t* client = jack_client_open(
        argv[1], static_cast<jack_options_t>(JackNoStartServer | JackUseExactName), &status);
    if (client == nullptr) {
        std::fprintf(stderr, "jack_midi_peer: no JACK server (status 0x%x)\n",
                     static_cast<unsigned>(status));
        return 1;
    }
    queue = jack_ringbuffer_create(kQueueBytes);
    port = jack_port_register(client, sink ? "in" : "out", JACK_DEFAULT_MIDI_TYPE,
                              sink ? JackPortIsInput : JackPortIsOutput, 0);
    if (queue == nullptr || port == nullptr ||
        jack_set_process_callback(client, sink ? &ProcessSink : &ProcessSource, nullptr) != 0) {
        std::fprintf(stderr, "jack_midi_peer: cannot make the port\n");
        return 1;
    }
    if (jack_activate(client) != 0) {
        std::fprintf(stderr, "jack_midi_peer: cannot activate\n");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    if (sink) {
        RunSink();
    } else {
        RunSource();
    }
}

// End to end through a real transport: a private JACK server with the dummy driver, stream
// packets played through the service's JACK device to a port, and messages from a port received
// as MIM_DATA. The other end of each connection is a peer process (tests/jack_midi_peer.cpp), so
// this process holds no JACK client besides the service's own. The server runs in synchronous
// mode: a client that falls behind on a loaded machine delays the cycle instead of losing events.
// Skipped when jackd or JACK support is not there.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform_midi_support.h"
#include "tests/support/watchdog.h"

extern char** environ;

#if defined(__SANITIZE_THREAD__)
#define VELT_UNDER_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VELT_UNDER_THREAD_SANITIZER 1
#endif
#endif

using namespace platform_midi_test;

namespace {

using Message = std::vector<unsigned char>;

#ifdef VELT_JACK_MIDI_PEER
constexpr const char* kPeerProgram = VELT_JACK_MIDI_PEER;
#else
constexpr const char* kPeerProgram = "";  // built without JACK: the tests skip
#endif

bool OnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string directories = path != nullptr ? path : "/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= directories.size()) {
        const std::size_t end = std::min(directories.find(':', start), directories.size());
        const std::string candidate = directories.substr(start, end - start) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

// A child process, optionally with its standard input and output on pipes to this process.
class Child {
  public:
    Child(std::vector<std::string> arguments, bool piped) {
        std::array<int, 2> toChild{-1, -1};
        std::array<int, 2> fromChild{-1, -1};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (piped && pipe2(toChild.data(), O_CLOEXEC) == 0 &&
            pipe2(fromChild.data(), O_CLOEXEC) == 0) {
            posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
            posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
        } else {
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
            posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        }
        std::vector<char*> argv;
        for (auto& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        for (const int unused : {toChild[0], fromChild[1]}) {
            if (unused >= 0) {
                close(unused);
            }
        }
        input_ = toChild[1];
        output_ = fromChild[0];
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    ~Child() {
        if (input_ >= 0) {
            close(input_);
        }
        if (output_ >= 0) {
            close(output_);
        }
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }

    bool Started() const { return pid_ > 0; }

    // The exit code, or -1 when it did not exit normally.
    int Wait() {
        int status = 0;
        exited_ = true;
        if (waitpid(pid_, &status, 0) != pid_ || !WIFEXITED(status)) {
            return -1;
        }
        return WEXITSTATUS(status);
    }

    // The next line of the child's output, or nothing when it ended or stayed silent for the
    // hang limit.
    std::optional<std::string> ReadLine() {
        const auto deadline = std::chrono::steady_clock::now() + kHangLimit;
        for (;;) {
            if (const auto end = pending_.find('\n'); end != std::string::npos) {
                std::string line = pending_.substr(0, end);
                pending_.erase(0, end + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd ready{output_, POLLIN, 0};
            if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
                return std::nullopt;
            }
            std::array<char, 4096> chunk{};
            const ssize_t got = read(output_, chunk.data(), chunk.size());
            if (got <= 0) {
                return std::nullopt;
            }
            pending_.append(chunk.data(), static_cast<std::size_t>(got));
        }
    }

    bool WriteLine(const std::string& line) {
        const std::string text = line + "\n";
        return write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

  private:
    pid_t pid_ = -1;
    bool exited_ = false;
    int input_ = -1;
    int output_ = -1;
    std::string pending_;
};

std::string Hex(const Message& message) {
    std::string text;
    for (const unsigned char byte : message) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), text.empty() ? "%02x" : " %02x", byte);
        text += digits.data();
    }
    return text;
}

// A peer JACK client holding port <client>:in (sink) or <client>:out (source).
class Peer {
  public:
    // On a starved machine the JACK library sometimes gives up opening a client (its listener
    // thread must start within a second); a peer that could not open is started again.
    Peer(const std::string& client, const std::string& mode) {
        constexpr int kAttempts = 3;
        for (int attempt = 0; attempt < kAttempts && !ready_; ++attempt) {
            child_ =
                std::make_unique<Child>(std::vector<std::string>{kPeerProgram, client, mode}, true);
            ready_ = child_->Started() && child_->ReadLine() == "ready";
        }
    }

    bool Ready() const { return ready_; }

    // sink: the next message received, or nothing within the hang limit.
    std::optional<std::string> Received() { return child_->ReadLine(); }

    // source: sends one message.
    bool Send(const Message& message) { return child_->WriteLine(Hex(message)); }

  private:
    std::unique_ptr<Child> child_;
    bool ready_ = false;
};

// The server's ports (jack_lsp -c): port name -> names of the ports connected to it.
std::map<std::string, std::set<std::string>> ServerPorts() {
    Child lsp({"jack_lsp", "-c"}, true);
    std::map<std::string, std::set<std::string>> ports;
    std::string current;
    while (const auto line = lsp.ReadLine()) {
        if (!line->empty() && line->front() == ' ') {
            ports[current].insert(line->substr(line->find_first_not_of(' ')));
        } else {
            current = *line;
            ports[current];
        }
    }
    lsp.Wait();
    return ports;
}

// A JACK server of this test's own (unique name, dummy driver), running for the whole suite.
class JackServer {
  public:
    JackServer() : name_("velt_test_" + std::to_string(getpid())) {
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        server_ = std::make_unique<Child>(
            std::vector<std::string>{"jackd", "--no-realtime", "--sync", "-t", "5000", "-n", name_,
                                     "-d", "dummy", "-r", "48000", "-p", "1024"},
            false);
        if (server_->Started()) {
            // jack_wait returns 0 once the server answers, or fails after its own time-out.
            Child wait({"jack_wait", "-w", "-t", "10", "-s", name_}, false);
            ready_ = wait.Started() && wait.Wait() == 0;
        }
    }

    bool Ready() const { return ready_; }

  private:
    std::string name_;
    std::unique_ptr<Child> server_;  // stopped (SIGTERM) when the suite ends
    bool ready_ = false;
};

std::optional<UINT> FindOutput(const std::string& name) {
    for (UINT id = 0; id < midiOutGetNumDevs(); ++id) {
        if (OutputName(id) == name) {
            return id;
        }
    }
    return std::nullopt;
}

std::optional<UINT> FindInput(const std::string& name) {
    for (UINT id = 0; id < midiInGetNumDevs(); ++id) {
        MIDIINCAPSW caps{};
        if (midiInGetDevCapsW(id, &caps, sizeof caps) == MMSYSERR_NOERROR &&
            Narrow(caps.szPname) == name) {
            return id;
        }
    }
    return std::nullopt;
}

// Closes a handle that a failed assertion left open, before the callback log it reports to goes.
template <typename Handle, void (*Release)(Handle)>
struct Opened {
    Handle handle = nullptr;
    ~Opened() {
        if (handle != nullptr) {
            Release(handle);
        }
    }
};

void ReleaseStream(HMIDISTRM stream) {
    midiStreamClose(stream);
}
void ReleaseOutput(HMIDIOUT output) {
    midiOutReset(output);
    midiOutClose(output);
}
void ReleaseInput(HMIDIIN input) {
    midiInReset(input);
    midiInClose(input);
}
using OpenStream = Opened<HMIDISTRM, ReleaseStream>;
using OpenOutput = Opened<HMIDIOUT, ReleaseOutput>;
using OpenInput = Opened<HMIDIIN, ReleaseInput>;

// Opens a stream on an output device, its callbacks going to log.
MMRESULT OpenStreamOn(UINT device, CallbackLog& log, OpenStream& stream) {
    return midiStreamOpen(&stream.handle, &device, 1, CallbackLog::Function(), log.Instance(),
                          CALLBACK_FUNCTION);
}

class PlatformJack : public ::testing::Test {
  protected:
    // The peers live as long as the server: a client that goes away just before the server is
    // stopped leaves the server waiting for a cycle that no longer comes.
    static void SetUpTestSuite() {
        signal(SIGPIPE, SIG_IGN);  // a peer that died shows as a failed write
        if (OnPath("jackd") && OnPath("jack_wait") && OnPath("jack_lsp") &&
            !std::string(kPeerProgram).empty()) {
            server_ = std::make_unique<JackServer>();
            if (server_->Ready()) {
                sink_ = std::make_unique<Peer>("vsink", "sink");
                source_ = std::make_unique<Peer>("vsource", "source");
            }
        }
    }

    static void TearDownTestSuite() {
        server_.reset();
        sink_.reset();
        source_.reset();
        returned_.reset();
    }

    void SetUp() override {
        if (std::string(kPeerProgram).empty()) {
            GTEST_SKIP() << "built without JACK: no JACK ports";
        }
#ifdef VELT_UNDER_THREAD_SANITIZER
        // libjack hands data to its process thread through lock-free ring buffers that
        // ThreadSanitizer cannot follow, and the sanitizer's slowdown lets the server drop the
        // clients. The service's own threading is covered by the virtual-device tests.
        GTEST_SKIP() << "not run under ThreadSanitizer (libjack is not instrumented)";
#endif
        if (!server_) {
            GTEST_SKIP() << "jackd (jackd2) is not installed";
        }
        if (!server_->Ready()) {
            GTEST_SKIP() << "the JACK server with the dummy driver did not start";
        }
        ASSERT_TRUE(sink_->Ready() && source_->Ready()) << "the peer clients did not start";
    }

    static inline std::unique_ptr<JackServer> server_;
    static inline std::unique_ptr<Peer> sink_;      // port vsink:in
    static inline std::unique_ptr<Peer> source_;    // port vsource:out
    static inline std::unique_ptr<Peer> returned_;  // port vreturn:in, made again by a test
};

}  // namespace

TEST_F(PlatformJack, StreamPacketsReachAJackPortCompleteAndInOrder) {
    Peer& receiver = *sink_;
    const auto device = FindOutput("vsink:in");
    ASSERT_TRUE(device.has_value()) << "the JACK port is not listed as an output device";
    CallbackLog log;
    OpenStream stream;
    ASSERT_EQ(OpenStreamOn(*device, log, stream), MMSYSERR_NOERROR);

    constexpr int kPackets = 40;
    constexpr int kEventsPerPacket = 12;
    std::vector<std::unique_ptr<StreamPacket>> packets;
    std::vector<std::string> expected;
    for (int p = 0; p < kPackets; ++p) {
        packets.push_back(std::make_unique<StreamPacket>());
        for (int e = 0; e < kEventsPerPacket; ++e) {
            const auto status = static_cast<BYTE>(e % 2 == 0 ? 0x90 | (p % 16) : 0xB0 | (p % 16));
            const auto data1 = static_cast<BYTE>((p * kEventsPerPacket + e) % 128);
            const auto data2 = static_cast<BYTE>(1 + p % 100);
            // The last packet spreads its events over time (5 ticks apart).
            packets.back()->AddShort(status, data1, data2, p == kPackets - 1 ? 5 : 0);
            expected.push_back(Hex({status, data1, data2}));
        }
        ASSERT_EQ(midiOutPrepareHeader(reinterpret_cast<HMIDIOUT>(stream.handle),
                                       packets.back()->Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiStreamRestart(stream.handle), MMSYSERR_NOERROR);
    for (auto& packet : packets) {
        ASSERT_EQ(midiStreamOut(stream.handle, packet->Header(), sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
    }
    ASSERT_TRUE(log.WaitFor(MOM_DONE, kPackets));
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(receiver.Received(), expected[i]) << "message " << i;
    }
    // Closing releases the notes still sounding, by channel and key; they are the last
    // messages the device sends and still reach the port.
    EXPECT_EQ(midiStreamClose(stream.handle), MMSYSERR_NOERROR);
    stream.handle = nullptr;
    std::set<std::pair<int, int>> sounding;
    for (int p = 0; p < kPackets; ++p) {
        for (int e = 0; e < kEventsPerPacket; e += 2) {
            sounding.insert({p % 16, (p * kEventsPerPacket + e) % 128});
        }
    }
    for (const auto& [channel, key] : sounding) {
        ASSERT_EQ(receiver.Received(), Hex({static_cast<unsigned char>(0x80 | channel),
                                            static_cast<unsigned char>(key), 0x40}))
            << "note-off for channel " << channel << " key " << key;
    }
}

TEST_F(PlatformJack, MessagesFromAJackPortArriveAsInputInOrder) {
    Peer& sender = *source_;
    const auto device = FindInput("vsource:out");
    ASSERT_TRUE(device.has_value()) << "the JACK port is not listed as an input device";
    CallbackLog log;
    OpenInput input;
    ASSERT_EQ(midiInOpen(&input.handle, *device, CallbackLog::Function(), log.Instance(),
                         CALLBACK_FUNCTION),
              MMSYSERR_NOERROR);
    std::array<BYTE, 16> sysexStorage{};
    MIDIHDR sysexHeader{};
    sysexHeader.lpData = reinterpret_cast<LPSTR>(sysexStorage.data());
    sysexHeader.dwBufferLength = sysexStorage.size();
    ASSERT_EQ(midiInPrepareHeader(input.handle, &sysexHeader, sizeof sysexHeader),
              MMSYSERR_NOERROR);
    ASSERT_EQ(midiInAddBuffer(input.handle, &sysexHeader, sizeof sysexHeader), MMSYSERR_NOERROR);
    ASSERT_EQ(midiInStart(input.handle), MMSYSERR_NOERROR);

    constexpr int kMessages = 200;
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(sender.Send(
            {0x90, static_cast<unsigned char>(i % 128), static_cast<unsigned char>(1 + i / 128)}));
    }
    const Message sysex{0xF0, 0x7F, 0x01, 0x02, 0x01, 0x01, 0xF7};
    ASSERT_TRUE(sender.Send(sysex));
    ASSERT_TRUE(log.WaitFor(MIM_DATA, kMessages)) << log.Of(MIM_DATA).size() << " arrived";
    ASSERT_TRUE(log.WaitFor(MIM_LONGDATA, 1));
    const auto data = log.Of(MIM_DATA);
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_EQ(data[i].param1, 0x90u | (static_cast<DWORD_PTR>(i % 128) << 8) |
                                      (static_cast<DWORD_PTR>(1 + i / 128) << 16));
    }
    EXPECT_EQ(sysexHeader.dwBytesRecorded, sysex.size());
    EXPECT_TRUE(std::equal(sysex.begin(), sysex.end(), sysexStorage.begin()));
    ASSERT_EQ(midiInReset(input.handle), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInUnprepareHeader(input.handle, &sysexHeader, sizeof sysexHeader),
              MMSYSERR_NOERROR);
    EXPECT_EQ(midiInClose(input.handle), MMSYSERR_NOERROR);
    input.handle = nullptr;
}

// Devices opened and closed in quick succession, each close right after a message: the message
// still leaves, and the process's one JACK client keeps one port per direction, parked
// (disconnected) after the last close. Dropping ports or clients at close is what the JACK
// library's own threads could not cope with.
TEST_F(PlatformJack, ReopenedDevicesReuseTheParkedPortsOfTheOneServiceClient) {
    Peer& receiver = *sink_;
    Peer& sender = *source_;
    const auto outputDevice = FindOutput("vsink:in");
    const auto inputDevice = FindInput("vsource:out");
    ASSERT_TRUE(outputDevice.has_value());
    ASSERT_TRUE(inputDevice.has_value());

    constexpr int kCycles = 25;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        const auto key = static_cast<unsigned char>(cycle);
        {
            OpenOutput output;
            ASSERT_EQ(midiOutOpen(&output.handle, *outputDevice, 0, 0, CALLBACK_NULL),
                      MMSYSERR_NOERROR);
            ASSERT_EQ(midiOutShortMsg(output.handle, 0x00400090u | (DWORD{key} << 8)),
                      MMSYSERR_NOERROR);
            ASSERT_EQ(midiOutClose(output.handle), MMSYSERR_NOERROR);
            output.handle = nullptr;
            ASSERT_EQ(receiver.Received(), Hex({0x90, key, 0x40})) << "cycle " << cycle;
        }
        CallbackLog log;
        OpenInput input;
        ASSERT_EQ(midiInOpen(&input.handle, *inputDevice, CallbackLog::Function(), log.Instance(),
                             CALLBACK_FUNCTION),
                  MMSYSERR_NOERROR);
        ASSERT_EQ(midiInStart(input.handle), MMSYSERR_NOERROR);
        ASSERT_TRUE(sender.Send({0x80, key, 0x00}));
        ASSERT_TRUE(log.WaitFor(MIM_DATA, 1)) << "cycle " << cycle;
        EXPECT_EQ(log.Of(MIM_DATA).front().param1, 0x80u | (DWORD_PTR{key} << 8));
        ASSERT_EQ(midiInClose(input.handle), MMSYSERR_NOERROR);
        input.handle = nullptr;
    }

    const auto ports = ServerPorts();
    std::map<std::string, std::set<std::string>> ours;
    for (const auto& [name, connections] : ports) {
        if (name.rfind("VELT", 0) == 0) {
            ours[name] = connections;
        }
    }
    const std::map<std::string, std::set<std::string>> parked{{"VELT:VELT In", {}},
                                                              {"VELT:VELT Out", {}}};
    EXPECT_EQ(ours, parked);
}

// A destination that goes away while devices are open on it (its client ends): sending to it
// says the device is gone instead of filling a port that nobody reads, a stream still hands its
// packets back, and once a port of that name is back it is listed again and a device opened on
// it by name delivers. (Two devices open at once leave a second parked port: this comes after the
// test that counts them.)
TEST_F(PlatformJack, ADestinationThatWentAwayIsReportedGoneAndReopensByNameWhenBack) {
    auto destination = std::make_unique<Peer>("vreturn", "sink");
    ASSERT_TRUE(destination->Ready());
    const auto device = FindOutput("vreturn:in");
    ASSERT_TRUE(device.has_value());
    CallbackLog log;
    OpenStream stream;
    ASSERT_EQ(OpenStreamOn(*device, log, stream), MMSYSERR_NOERROR);
    OpenOutput plain;
    ASSERT_EQ(midiOutOpen(&plain.handle, *device, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    std::array<StreamPacket, 4> packets;  // before, after the loss, refused, on the returned port
    for (std::size_t p = 0; p < packets.size(); ++p) {
        packets[p].AddShort(0x90, static_cast<BYTE>(0x3C + p), 0x40);
    }
    const auto prepare = [&](StreamPacket& packet) {
        return midiOutPrepareHeader(reinterpret_cast<HMIDIOUT>(stream.handle), packet.Header(),
                                    sizeof(MIDIHDR));
    };
    ASSERT_EQ(prepare(packets[0]), MMSYSERR_NOERROR);
    ASSERT_EQ(prepare(packets[1]), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream.handle), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream.handle, packets[0].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 1));
    ASSERT_EQ(destination->Received(), "90 3c 40");
    ASSERT_EQ(midiOutShortMsg(plain.handle, 0x00403C80), MMSYSERR_NOERROR);
    ASSERT_EQ(destination->Received(), "80 3c 40");

    destination.reset();  // the client ends without closing; the server takes its port away
    const auto lost = Eventually([&]() -> std::optional<MMRESULT> {
        const MMRESULT result = midiOutShortMsg(plain.handle, 0x00403C80);
        return result == MMSYSERR_NOERROR ? std::nullopt : std::optional(result);
    });
    ASSERT_EQ(lost, std::optional<MMRESULT>(MIDIERR_NODEVICE));
    ASSERT_EQ(midiStreamOut(stream.handle, packets[1].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 2));
    // The packet that met the gone port came back; the stream now refuses more.
    ASSERT_EQ(prepare(packets[2]), MMSYSERR_NOERROR);
    EXPECT_EQ(midiStreamOut(stream.handle, packets[2].Header(), sizeof(MIDIHDR)), MIDIERR_NODEVICE);
    EXPECT_EQ(midiOutClose(plain.handle), MMSYSERR_NOERROR);
    plain.handle = nullptr;
    EXPECT_EQ(midiStreamClose(stream.handle), MMSYSERR_NOERROR);
    stream.handle = nullptr;

    returned_ = std::make_unique<Peer>("vreturn", "sink");
    ASSERT_TRUE(returned_->Ready());
    const auto back = Eventually([] { return FindOutput("vreturn:in"); });
    ASSERT_TRUE(back.has_value()) << "the returned port is not listed";
    ASSERT_EQ(OpenStreamOn(*back, log, stream), MMSYSERR_NOERROR);
    ASSERT_EQ(prepare(packets[3]), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamRestart(stream.handle), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOut(stream.handle, packets[3].Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    ASSERT_TRUE(log.WaitFor(MOM_DONE, 3));
    EXPECT_EQ(returned_->Received(), "90 3f 40");
}

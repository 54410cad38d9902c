// End to end through a real transport: a private JACK server with the dummy driver, stream
// packets played through the service's RtMidi device to a JACK port, and messages from a JACK
// port received as MIM_DATA. Skipped when jackd or RtMidi is not there.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform_midi_support.h"

#ifdef VELT_HAVE_RTMIDI
#include <RtMidi.h>
#endif

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

pid_t Spawn(std::vector<std::string> arguments, bool quiet) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int WaitExit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// A JACK server of this test's own (unique name, dummy driver), running for the whole suite.
class JackServer {
  public:
    JackServer() : name_("velt_test_" + std::to_string(getpid())) {
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        pid_ = Spawn({"jackd", "--no-realtime", "-t", "5000", "-n", name_, "-d", "dummy", "-r",
                      "48000", "-p", "1024"},
                     true);
        if (pid_ > 0) {
            // jack_wait returns 0 once the server answers, or fails after its own time-out.
            ready_ = WaitExit(Spawn({"jack_wait", "-w", "-t", "10", "-s", name_}, true)) == 0;
        }
    }

    ~JackServer() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            WaitExit(pid_);
        }
    }

    bool Ready() const { return ready_; }

  private:
    std::string name_;
    pid_t pid_ = -1;
    bool ready_ = false;
};

#ifdef VELT_HAVE_RTMIDI
// Messages received by a test's own JACK port, in arrival order.
class Receiver {
  public:
    void Add(const std::vector<unsigned char>& message) {
        {
            std::scoped_lock lock(mutex_);
            messages_.push_back(message);
        }
        changed_.notify_all();
    }

    bool WaitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kHangLimit, [&] { return messages_.size() >= count; });
    }

    std::vector<std::vector<unsigned char>> Messages() {
        std::scoped_lock lock(mutex_);
        return messages_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::vector<unsigned char>> messages_;
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
#endif

class PlatformJack : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (OnPath("jackd") && OnPath("jack_wait")) {
            server_ = std::make_unique<JackServer>();
        }
    }

    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
#ifndef VELT_HAVE_RTMIDI
        GTEST_SKIP() << "built without RtMidi: no system MIDI ports";
#endif
#ifdef VELT_UNDER_THREAD_SANITIZER
        // libjack hands messages to its process thread through a lock-free ring buffer that
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
    }

    static inline std::unique_ptr<JackServer> server_;
};

}  // namespace

#ifdef VELT_HAVE_RTMIDI

TEST_F(PlatformJack, StreamPacketsReachAJackPortCompleteAndInOrder) {
    Receiver receiver;
    RtMidiIn in(RtMidi::UNIX_JACK, "vtest");
    in.ignoreTypes(false, false, false);
    in.setCallback([](double, std::vector<unsigned char>* message,
                      void* self) { static_cast<Receiver*>(self)->Add(*message); },
                   &receiver);
    in.openVirtualPort("in");

    const auto device = FindOutput("vtest:in");
    ASSERT_TRUE(device.has_value()) << "the JACK port is not listed as an output device";
    CallbackLog log;
    HMIDISTRM stream = nullptr;
    UINT id = *device;
    ASSERT_EQ(
        midiStreamOpen(&stream, &id, 1, CallbackLog::Function(), log.Instance(), CALLBACK_FUNCTION),
        MMSYSERR_NOERROR);

    constexpr int kPackets = 40;
    constexpr int kEventsPerPacket = 12;
    std::vector<std::unique_ptr<StreamPacket>> packets;
    std::vector<std::vector<unsigned char>> expected;
    for (int p = 0; p < kPackets; ++p) {
        packets.push_back(std::make_unique<StreamPacket>());
        for (int e = 0; e < kEventsPerPacket; ++e) {
            const auto status = static_cast<BYTE>(e % 2 == 0 ? 0x90 | (p % 16) : 0xB0 | (p % 16));
            const auto data1 = static_cast<BYTE>((p * kEventsPerPacket + e) % 128);
            const auto data2 = static_cast<BYTE>(1 + p % 100);
            // The last packet spreads its events over time (5 ticks apart).
            packets.back()->AddShort(status, data1, data2, p == kPackets - 1 ? 5 : 0);
            expected.push_back({status, data1, data2});
        }
        ASSERT_EQ(midiOutPrepareHeader(reinterpret_cast<HMIDIOUT>(stream), packets.back()->Header(),
                                       sizeof(MIDIHDR)),
                  MMSYSERR_NOERROR);
    }
    ASSERT_EQ(midiStreamRestart(stream), MMSYSERR_NOERROR);
    for (auto& packet : packets) {
        ASSERT_EQ(midiStreamOut(stream, packet->Header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    }
    ASSERT_TRUE(log.WaitFor(MOM_DONE, kPackets));
    ASSERT_TRUE(receiver.WaitFor(expected.size())) << receiver.Messages().size() << " arrived";
    EXPECT_EQ(receiver.Messages(), expected);
    EXPECT_EQ(midiStreamClose(stream), MMSYSERR_NOERROR);
}

TEST_F(PlatformJack, MessagesFromAJackPortArriveAsInputInOrder) {
    RtMidiOut out(RtMidi::UNIX_JACK, "vtestsrc");
    out.openVirtualPort("out");
    const auto device = FindInput("vtestsrc:out");
    ASSERT_TRUE(device.has_value()) << "the JACK port is not listed as an input device";
    CallbackLog log;
    HMIDIIN input = nullptr;
    ASSERT_EQ(
        midiInOpen(&input, *device, CallbackLog::Function(), log.Instance(), CALLBACK_FUNCTION),
        MMSYSERR_NOERROR);
    std::array<BYTE, 16> sysexStorage{};
    MIDIHDR sysexHeader{};
    sysexHeader.lpData = reinterpret_cast<LPSTR>(sysexStorage.data());
    sysexHeader.dwBufferLength = sysexStorage.size();
    ASSERT_EQ(midiInPrepareHeader(input, &sysexHeader, sizeof sysexHeader), MMSYSERR_NOERROR);
    ASSERT_EQ(midiInAddBuffer(input, &sysexHeader, sizeof sysexHeader), MMSYSERR_NOERROR);
    ASSERT_EQ(midiInStart(input), MMSYSERR_NOERROR);

    constexpr int kMessages = 200;
    for (int i = 0; i < kMessages; ++i) {
        const std::vector<unsigned char> message{0x90, static_cast<unsigned char>(i % 128),
                                                 static_cast<unsigned char>(1 + i / 128)};
        out.sendMessage(&message);
    }
    const std::vector<unsigned char> sysex{0xF0, 0x7F, 0x01, 0x02, 0x01, 0x01, 0xF7};
    out.sendMessage(&sysex);
    ASSERT_TRUE(log.WaitFor(MIM_DATA, kMessages));
    ASSERT_TRUE(log.WaitFor(MIM_LONGDATA, 1));
    const auto data = log.Of(MIM_DATA);
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_EQ(data[i].param1, 0x90u | (static_cast<DWORD_PTR>(i % 128) << 8) |
                                      (static_cast<DWORD_PTR>(1 + i / 128) << 16));
    }
    EXPECT_EQ(sysexHeader.dwBytesRecorded, sysex.size());
    EXPECT_TRUE(std::equal(sysex.begin(), sysex.end(), sysexStorage.begin()));
    ASSERT_EQ(midiInReset(input), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInUnprepareHeader(input, &sysexHeader, sizeof sysexHeader), MMSYSERR_NOERROR);
    EXPECT_EQ(midiInClose(input), MMSYSERR_NOERROR);
}

#else

TEST_F(PlatformJack, NeedsRtMidi) {}

#endif

// The player program as a performer and a script use it: the built velt-play runs in a process
// of its own, interactive in a pseudo-terminal or playing through with --play, into the built-in
// default output (the system's ports hidden), which records what it receives to a MIDI file.
// The recordings are read back and held against the songs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "midi/how_to_play.h"
#include "midi/persistent_midi.h"
#include "midi/user_controls.h"
#include "tests/support/device_packets.h"
#include "tests/support/temp_folder.h"
#include "velt_core/show_loader.h"
#include "velt_core/smf_reader.h"
#include "velt_core/smf_writer.h"
#include "velt_core/song_builder.h"

namespace {

using namespace std::chrono_literals;
using playback::IsNoteOff;
using playback::IsNoteOn;
using playback::Message;
using playback::Voices;

// ---------------------------------------------------------------------------------------------
// Running the program

// A run of velt-play: standard input from /dev/null and the output through pipes, or everything
// through a pseudo-terminal. A thread of its own drains the output all along, so that the
// program never blocks on a full pipe or terminal.
class Player {
  public:
    enum class Mode { piped, terminal };

    Player(Mode mode, std::vector<std::string> args) {
        args.insert(args.begin(), VELT_PLAY_BINARY);
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        int outputs[2] = {-1, -1};
        int errors[2] = {-1, -1};
        std::string terminalName;
        if (mode == Mode::terminal) {
            outputs[0] = posix_openpt(O_RDWR | O_NOCTTY);
            if (outputs[0] < 0 || grantpt(outputs[0]) != 0 || unlockpt(outputs[0]) != 0) {
                throw std::runtime_error("no pseudo-terminal");
            }
            terminalName = ptsname(outputs[0]);
            const winsize size{40, 120, 0, 0};
            ioctl(outputs[0], TIOCSWINSZ, &size);
        } else if (pipe(outputs) != 0 || pipe(errors) != 0) {
            throw std::runtime_error("no pipe");
        }
        pid_ = fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls from here on.
            if (mode == Mode::terminal) {
                setsid();
                const int terminal = open(terminalName.c_str(), O_RDWR);
                dup2(terminal, 0);
                dup2(terminal, 1);
                dup2(terminal, 2);
            } else {
                const int none = open("/dev/null", O_RDONLY);
                dup2(none, 0);
                dup2(outputs[1], 1);
                dup2(errors[1], 2);
            }
            execv(argv[0], argv.data());
            _exit(127);
        }
        output_ = outputs[0];
        if (mode == Mode::piped) {
            close(outputs[1]);
            close(errors[1]);
            errors_ = errors[0];
        }
        reader_ = std::thread([this] { Read_(); });
    }

    ~Player() {
        if (!status_) {
            kill(pid_, SIGKILL);
            Wait(10s);
        }
        if (reader_.joinable()) {
            reader_.join();
        }
        close(output_);
        if (errors_ >= 0) {
            close(errors_);
        }
    }

    // Keys typed at the terminal.
    void Type(const std::string& keys) {
        ASSERT_EQ(write(output_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    void Signal(int signal) { kill(pid_, signal); }

    // The exit status (128 + the signal for a program killed by one), or -1 on timeout.
    int Wait(std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!status_) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            } else if (std::chrono::steady_clock::now() > end) {
                return -1;
            } else {
                std::this_thread::sleep_for(10ms);
            }
        }
        // Everything the program wrote is read before its output is looked at: the reader ends
        // at the end of the pipe or terminal, which comes once the program has gone.
        if (reader_.joinable()) {
            reader_.join();
        }
        return *status_;
    }

    // Waits until the output since `from` satisfies `seen`.
    bool WaitForOutput(const std::function<bool(const std::string&)>& seen,
                       std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        return grew_.wait_for(lock, limit, [&] { return seen(output_text_); });
    }
    bool WaitForText(const std::string& wanted, std::chrono::milliseconds limit = 20s) {
        return WaitForOutput(
            [&](const std::string& text) { return text.find(wanted) != text.npos; }, limit);
    }
    // Waits until the status area (or a bar line) shows bar `bar` or a later one.
    bool WaitForBar(int bar, std::chrono::milliseconds limit = 30s) {
        static const std::regex shown(R"(bar (\d+))");
        return WaitForOutput(
            [&](const std::string& text) {
                for (auto it = std::sregex_iterator(text.begin() + static_cast<long>(mark_),
                                                    text.end(), shown);
                     it != std::sregex_iterator(); ++it) {
                    if (std::stoi((*it)[1]) >= bar) {
                        return true;
                    }
                }
                return false;
            },
            limit);
    }
    // Later WaitForBar calls look only at what comes after this.
    void Mark() {
        std::scoped_lock lock(mutex_);
        mark_ = output_text_.size();
    }
    std::string Output() {
        std::scoped_lock lock(mutex_);
        return output_text_;
    }
    std::string Errors() {
        std::scoped_lock lock(mutex_);
        return errors_text_;
    }

  private:
    void Read_() {
        try {
            std::vector<pollfd> fds{{output_, POLLIN, 0}};
            if (errors_ >= 0) {
                fds.push_back({errors_, POLLIN, 0});
            }
            int open = static_cast<int>(fds.size());
            while (open > 0) {
                if (poll(fds.data(), fds.size(), 200) <= 0) {
                    continue;
                }
                for (std::size_t i = 0; i < fds.size(); ++i) {
                    if (fds[i].fd < 0 || fds[i].revents == 0) {
                        continue;
                    }
                    char bytes[4096];
                    const auto count = read(fds[i].fd, bytes, sizeof bytes);
                    if (count <= 0) {  // end of the pipe; EIO on a terminal nobody holds
                        fds[i].fd = -1;
                        --open;
                        continue;
                    }
                    std::scoped_lock lock(mutex_);
                    (i == 0 ? output_text_ : errors_text_).append(bytes, count);
                    grew_.notify_all();
                }
            }
        } catch (...) {
            ADD_FAILURE() << "the output reader failed";
        }
    }

    pid_t pid_ = -1;
    int output_ = -1;
    int errors_ = -1;
    std::optional<int> status_;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable grew_;
    std::string output_text_;
    std::string errors_text_;
    std::size_t mark_ = 0;
};

// A folder of its own for each test.
class PlayerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The program must play into the built-in default output on any machine.
        setenv("VELT_MIDI_SYSTEM_PORTS", "0", 1);
        unsetenv("VELT_DEFAULT_OUTPUT_SMF");
        // The player keeps its settings there: never in the home of whoever runs the tests.
        setenv("XDG_CONFIG_HOME", folder_.Path("config").c_str(), 1);
    }

    std::string Path(const std::string& name) const { return folder_.Path(name); }

    test_support::TempFolder folder_;
};

const std::string exampleShow = VELT_EXAMPLES_DIR "/harbour_lights";

// ---------------------------------------------------------------------------------------------
// Recordings

struct Heard {
    Message message;
    std::uint32_t ms;  // since the device opened
};

std::vector<Heard> ReadRecording(const std::string& path) {
    const velt_core::SmfFile file = velt_core::ReadSmf(path);
    EXPECT_EQ(file.tracks.size(), 1u);
    EXPECT_TRUE(file.warnings.empty());
    std::vector<Heard> heard;
    for (const auto& event : file.tracks.at(0).events) {
        if (!event.IsChannelMessage()) {
            continue;
        }
        Message message{event.status, event.data1};
        if ((event.status & 0xF0) != 0xC0 && (event.status & 0xF0) != 0xD0) {
            message.push_back(event.data2);
        }
        heard.push_back({message, event.tick});
    }
    return heard;
}

std::set<int> HeldAfter(const std::vector<Heard>& heard, std::size_t count) {
    Voices voices;
    for (std::size_t i = 0; i < count && i < heard.size(); ++i) {
        voices.Hear(heard[i].message);
    }
    return voices.Held();
}

// A stop's resets: controllers 123 and 121 on every channel.
bool EndsWithResets(const std::vector<Heard>& heard) {
    const auto resets = playback::AllNotesOffMessages();
    return heard.size() >= resets.size() &&
           std::equal(resets.begin(), resets.end(), heard.end() - resets.size(),
                      [](const Message& reset, const Heard& h) { return reset == h.message; });
}

// ---------------------------------------------------------------------------------------------
// What a song played from its start to its end sends

// The channel a track's messages reach the device on: a track of a port after the first is put
// on channel 16 of the one device.
int SentChannel(std::uint16_t track) {
    return (track >> 4) != 0 ? 0x0F : track & 0x0F;
}

// One message the song's stream writes, with the state it leaves.
struct Expected {
    Message message;
    std::uint16_t track;
    int transposition;
};

// The song's events as the player sends them: period by period (a MIDI clock of ticks from the
// start tick); within a period in time order, as the player's default exact timing plays them,
// events of one tick track after track, each track's events in order; notes
// moved by the transposition in force where their period starts, as the track's chase state
// moves them (within the track's range).
std::vector<Expected> SongMessages(const velt_midi::SongData& song) {
    UserControls controls;
    HowToPlay position(controls);
    position.SetData(song.GetSongLog(), song.GetTimeline(), song.GetTicksPerQuarter());
    const std::uint32_t start = song.GetSongStartTickIndex();
    const std::uint32_t ticksPerClock = std::max<std::uint32_t>(1, song.GetTicksPerQuarter() / 24);
    struct Timed {
        std::uint32_t period;
        std::uint16_t track;
        std::size_t index;
        velt_midi::VoiceEvent event;
    };
    std::vector<Timed> timed;
    std::map<std::uint16_t, PersistentMIDI> states;
    for (const auto& [id, track] : song.GetVoiceData()) {
        states[id].SetRange(track->range);
        for (std::size_t i = 0; i < track->events.size(); ++i) {
            timed.push_back(
                {(track->events[i].time - start) / ticksPerClock, id, i, track->events[i]});
        }
    }
    std::sort(timed.begin(), timed.end(), [](const Timed& a, const Timed& b) {
        return std::tie(a.period, a.event.time, a.track, a.index) <
               std::tie(b.period, b.event.time, b.track, b.index);
    });
    std::vector<Expected> expected;
    for (const auto& [period, track, index, event] : timed) {
        const int transposition =
            position.GetTranspositionValueAtTickIndex(start + period * ticksPerClock);
        auto sent = states[track].AddEvent(event, static_cast<signed char>(transposition));
        sent.status = static_cast<std::uint8_t>((sent.status & 0xF0) | SentChannel(track));
        Message message{sent.status, sent.data1};
        if ((sent.status & 0xF0) != 0xC0 && (sent.status & 0xF0) != 0xD0) {
            message.push_back(sent.data2);
        }
        expected.push_back({message, track, transposition});
    }
    return expected;
}

// Holds a recording against songs played one after the other from start to end, message by
// message. Every message a song's stream writes must come, in its order. Between them only what
// the session adds may come: at a start and after a caesura or a transposition the state in force
// (controller values, program, pitch bend, notes held by the song, struck again), note-offs of
// notes sounding, and the controller resets of a song's end.
class SongMatcher {
  public:
    explicit SongMatcher(const std::vector<Heard>& heard) : heard_(heard) {}

    void Match(const velt_midi::SongData& song) {
        SCOPED_TRACE("song \"" + song.GetSongName() + "\"");
        const auto expected = SongMessages(song);
        ASSERT_FALSE(expected.empty());
        std::map<std::uint16_t, PersistentMIDI> states;  // the song's own, untransposed
        for (const auto& [id, track] : song.GetVoiceData()) {
            states[id].SetRange(track->range);
        }
        int transposition = 0;
        std::size_t next = 0;
        while (next < expected.size()) {
            ASSERT_LT(at_, heard_.size())
                << "the recording ends before the song does; next: " << Text(expected[next]);
            const Message& m = heard_[at_].message;
            if (m == expected[next].message) {
                transposition = expected[next].transposition;
                velt_midi::VoiceEvent event(0, m[0], expected[next].track, m[1],
                                            m.size() > 2 ? m[2] : 0);
                states[expected[next].track].AddEvent(event, 0);
                ++next;
            } else {
                ASSERT_TRUE(IsAddition(m, states, {transposition, expected[next].transposition}))
                    << "message " << at_ << " (" << heard_[at_].ms << " ms) " << Text(m)
                    << " where the song goes on with " << Text(expected[next]);
            }
            voices_.Hear(m);
            ++at_;
        }
        // The song's end: note-offs of what still sounds, and the resets.
        while (at_ < heard_.size() && IsAddition(heard_[at_].message, {}, {}) &&
               !IsNoteOn(heard_[at_].message)) {
            voices_.Hear(heard_[at_++].message);
        }
        EXPECT_TRUE(voices_.Held().empty()) << "left sounding after the song";
    }

    std::size_t Position() const { return at_; }

  private:
    bool IsAddition(const Message& m, const std::map<std::uint16_t, PersistentMIDI>& states,
                    std::set<int> transpositions) const {
        const int kind = m[0] & 0xF0;
        const int channel = m[0] & 0x0F;
        if (kind == 0xB0 && (m[1] == 123 || m[1] == 121) && m[2] == 0) {
            return true;
        }
        if (IsNoteOff(m)) {
            return voices_.Sounds(m);
        }
        for (const auto& [id, state] : states) {
            if (SentChannel(id) != channel) {
                continue;
            }
            if (kind == 0xE0) {
                const auto& bend = state.GetPitchBend();
                return state.GetHasPitchBend() ? (m[1] == bend.data1 && m[2] == bend.data2)
                                               : (m[1] == 0 && m[2] == 64);
            }
            if (kind == 0xC0) {
                return state.HasProgramChange() && m[1] == state.GetProgramChange().data1;
            }
            if (kind == 0xB0) {
                const auto value = state.GetCCs().find(m[1]);
                return value != state.GetCCs().end() && value->second.data2 == m[2];
            }
            if (IsNoteOn(m)) {
                for (const auto* held : {&state.GetNotes(), &state.GetSwitches()}) {
                    for (const auto& [key, on] : *held) {
                        for (const int t : transpositions) {
                            if (state.GetSoundingNote(key, static_cast<signed char>(t)) == m[1] &&
                                on.data2 == m[2]) {
                                return true;
                            }
                        }
                    }
                }
            }
        }
        return false;
    }

    static std::string Text(const Message& m) {
        std::string text;
        for (const auto byte : m) {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%02X ", byte);
            text += hex;
        }
        return text;
    }
    static std::string Text(const Expected& e) {
        return Text(e.message) + "(track " + std::to_string(e.track) + ")";
    }

    const std::vector<Heard>& heard_;
    std::size_t at_ = 0;
    Voices voices_;
};

// ---------------------------------------------------------------------------------------------
// A song whose notes tell where they are

// Sixteen bars of 4/4 at 240 quarter notes a minute (a bar a second). Channel 0 strikes a short
// note on every beat, its pitch counting the beats from 30; channel 1 the same more softly;
// channel 2 holds a note through nearly every bar, its pitch counting the bars from 40. No note
// ends on a bar line, so that nothing sounds where playback jumps to a bar.
constexpr int beatBase = 30;
constexpr int barBase = 40;

std::string WriteCountingSong(const std::string& path) {
    velt_core::SongBuilder song("Counting", 480);
    song.Tempo(0, 240).Meter(0, 4, 4).Bars(16);
    song.Track(0x00, "Beats", 0, {0, 127})
        .Track(0x01, "Echo", 0, {0, 127})
        .Track(0x02, "Pad", 0, {0, 127});
    for (std::uint32_t beat = 0; beat < 64; ++beat) {
        song.Note(0x00, beat * 480, static_cast<std::uint8_t>(beatBase + beat), 100, 240);
        song.Note(0x01, beat * 480, static_cast<std::uint8_t>(beatBase + beat), 80, 240);
    }
    for (std::uint32_t bar = 0; bar < 16; ++bar) {
        song.Note(0x02, bar * 1920, static_cast<std::uint8_t>(barBase + bar), 70, 1920 - 60);
    }
    velt_core::WriteSmf(velt_core::SmfFromSong(*song.Build()), path);
    return path;
}

// The pitches of the note-ons heard on `channel`, in order.
std::vector<int> Struck(const std::vector<Heard>& heard, int channel, int velocity) {
    std::vector<int> pitches;
    for (const auto& h : heard) {
        if (IsNoteOn(h.message) && (h.message[0] & 0x0F) == channel) {
            EXPECT_EQ(h.message[2], velocity) << "channel " << channel;
            pitches.push_back(h.message[1]);
        }
    }
    return pitches;
}

// Splits pitches into runs that count up by one.
std::vector<std::vector<int>> Runs(const std::vector<int>& pitches) {
    std::vector<std::vector<int>> runs;
    for (std::size_t i = 0; i < pitches.size(); ++i) {
        if (i == 0 || pitches[i] != pitches[i - 1] + 1) {
            runs.emplace_back();
        }
        runs.back().push_back(pitches[i]);
    }
    return runs;
}

std::string Join(const std::vector<int>& values) {
    std::string text;
    for (const int value : values) {
        text += std::to_string(value) + " ";
    }
    return text;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

TEST_F(PlayerTest, APerformerPlaysJumpsMutesTransposesAndQuitsAtTheTerminal) {
    const std::string song = WriteCountingSong(Path("counting.mid"));
    const std::string recording = Path("recording.mid");
    Player player(Player::Mode::terminal, {song, "--record", recording});
    ASSERT_TRUE(player.WaitForText("cued: space plays")) << player.Output();
    player.Type("?");  // the keys are there to read
    ASSERT_TRUE(player.WaitForText("mute or unmute a track", 10s));

    player.Mark();
    player.Type(" ");
    ASSERT_TRUE(player.WaitForBar(2)) << player.Output();
    // Two steps typed faster than a beat are two steps, not one from the scale still shown.
    player.Type("++");
    ASSERT_TRUE(player.WaitForText("scale 1.10", 10s)) << player.Output();
    player.Mark();
    player.Type("b9\r");  // a jump while playing
    ASSERT_TRUE(player.WaitForBar(10)) << player.Output();
    player.Type("m");
    player.Type("Echo\r");
    player.Type("t3\r");
    player.Mark();
    ASSERT_TRUE(player.WaitForBar(12)) << player.Output();
    player.Type("q");  // asks again while the music plays
    ASSERT_TRUE(player.WaitForText("q again quits", 10s));
    player.Type("q");
    ASSERT_EQ(player.Wait(20s), 0) << player.Output();
    const std::string output = player.Output();
    EXPECT_NE(output.find("muted 1 Echo"), std::string::npos);
    EXPECT_NE(output.find("transpose +3"), std::string::npos);
    EXPECT_NE(output.find("The recording is in " + recording), std::string::npos);
    // The terminal is given back as it was found: the cursor shown again.
    EXPECT_NE(output.rfind("\x1b[?25h"), std::string::npos);

    const auto heard = ReadRecording(recording);
    // The beats: from the first to where the jump came, from bar 9 on, then three semitones up
    // (the note sounding at the transposition struck again a third higher, or the next one).
    const auto beats = Runs(Struck(heard, 0, 100));
    ASSERT_EQ(beats.size(), 3u) << Join(Struck(heard, 0, 100));
    EXPECT_EQ(beats[0].front(), beatBase);
    EXPECT_GE(beats[0].size(), 4u);
    EXPECT_EQ(beats[1].front(), beatBase + 32);
    EXPECT_TRUE(beats[2].front() - beats[1].back() == 3 || beats[2].front() - beats[1].back() == 4)
        << Join(Struck(heard, 0, 100));
    EXPECT_GE(beats[2].back(), beatBase + 3 + 40);  // it played on into bar 11 before quitting
    EXPECT_LT(beats[2].back(), beatBase + 3 + 64);  // and quit before the end
    // The echo: the same beats up to the mute, which came before the transposition.
    const auto echo = Runs(Struck(heard, 1, 80));
    ASSERT_EQ(echo.size(), 2u) << Join(Struck(heard, 1, 80));
    EXPECT_EQ(echo[0], beats[0]);
    EXPECT_EQ(echo[1].front(), beatBase + 32);
    EXPECT_LE(echo[1].back(), beats[1].back());
    // The pad: its bars in the same way.
    const auto pad = Runs(Struck(heard, 2, 70));
    ASSERT_EQ(pad.size(), 3u) << Join(Struck(heard, 2, 70));
    EXPECT_EQ(pad[0].front(), barBase);
    EXPECT_EQ(pad[1].front(), barBase + 8);
    EXPECT_TRUE(pad[2].front() - pad[1].back() == 3 || pad[2].front() - pad[1].back() == 4);
    // Quitting mid-song left nothing sounding: by note-offs, before the resets.
    EXPECT_TRUE(EndsWithResets(heard));
    EXPECT_TRUE(HeldAfter(heard, heard.size() - 32).empty());
}

TEST_F(PlayerTest, AConductorBeatsClicksWithTheSpaceBarAndStopsWithAFullStop) {
    const std::string song = WriteCountingSong(Path("counting.mid"));
    const std::string recording = Path("recording.mid");
    Player player(Player::Mode::terminal, {song, "--clock", "conducted", "--record", recording});
    ASSERT_TRUE(player.WaitForText("space beat")) << player.Output();
    player.Type(" ");  // plays, and the first click with it
    std::this_thread::sleep_for(300ms);
    player.Type(" ");  // the second: the tempo beaten is known from here
    static const std::regex beaten(R"(beaten \d)");  // the tempo beaten is shown
    ASSERT_TRUE(player.WaitForOutput(
        [](const std::string& text) { return std::regex_search(text, beaten); }, 20s))
        << player.Output();
    // However long it is given, the music waits at the third click for its beat.
    std::this_thread::sleep_for(1s);
    player.Type(".");
    ASSERT_TRUE(player.WaitForText("stopped: Enter plays on")) << player.Output();
    player.Type("q");
    ASSERT_EQ(player.Wait(20s), 0) << player.Output();

    const auto heard = ReadRecording(recording);
    EXPECT_EQ(Struck(heard, 0, 100), (std::vector<int>{beatBase, beatBase + 1}));
    EXPECT_TRUE(EndsWithResets(heard));
}

TEST_F(PlayerTest, AScriptListsTheDevicesAndPlaysBarsOfASongTransposedWithATrackMuted) {
    Player list(Player::Mode::piped, {"--list-devices"});
    ASSERT_EQ(list.Wait(20s), 0) << list.Errors();
    EXPECT_EQ(list.Output().rfind("MIDI output devices:\n  0  Built-in Default Output", 0), 0u)
        << list.Output();

    const std::string song = WriteCountingSong(Path("counting.mid"));
    const std::string recording = Path("bars.mid");
    // The device by a part of its name, in any case.
    Player player(Player::Mode::piped,
                  {song, "--play", "1", "--from", "3", "--until", "4", "--transpose=-2", "--mute",
                   "echo", "--device", "default OUT", "--record", recording});
    ASSERT_EQ(player.Wait(30s), 0) << player.Output() << player.Errors();
    EXPECT_NE(player.Output().find("Song 1: Counting\n  bar 3\n  bar 4\n  stopped after bar 4"),
              std::string::npos)
        << player.Output();

    const auto heard = ReadRecording(recording);
    std::vector<int> beats;
    for (int beat = 8; beat < 16; ++beat) {
        beats.push_back(beatBase + beat - 2);
    }
    EXPECT_EQ(Struck(heard, 0, 100), beats);
    EXPECT_EQ(Struck(heard, 1, 80), std::vector<int>());
    EXPECT_EQ(Struck(heard, 2, 70), (std::vector<int>{barBase + 2 - 2, barBase + 3 - 2}));
    EXPECT_TRUE(EndsWithResets(heard));
    EXPECT_TRUE(HeldAfter(heard, heard.size() - 32).empty());
}

// The two long runs play at once, each in a process of its own into its own default output: the
// show's fifty seconds pass while the long song plays.
TEST_F(PlayerTest, PlaysTheExampleShowAndASongOfMoreThanTwoMinutesThroughEventForEvent) {
    // 68 bars of 4/4 at 120 quarter notes a minute: 136 seconds as written, 68 at double speed.
    velt_core::SongBuilder builder("Long Road", 480);
    builder.Tempo(0, 120).Meter(0, 4, 4).Bars(68);
    builder.Track(0x00, "Walk", 0, {0, 127}).Track(0x01, "Chords", 48, {0, 127});
    builder.ProgramChange(0x01, 0, 48).ControlChange(0x01, 0, 7, 100);
    for (std::uint32_t beat = 0; beat < 68 * 4; ++beat) {
        builder.Note(0x00, beat * 480, static_cast<std::uint8_t>(36 + beat % 24), 90, 400);
        if (beat % 4 == 0) {
            for (const std::uint8_t note : {60, 64, 67}) {
                builder.Note(0x01, beat * 480, static_cast<std::uint8_t>(note + beat / 4 % 5), 70,
                             1800);
            }
        }
    }
    const std::string file = Path("long_road.mid");
    velt_core::WriteSmf(velt_core::SmfFromSong(*builder.Build()), file);
    const std::string longRecording = Path("long.mid");
    Player longSong(Player::Mode::piped,
                    {file, "--play", "--tempo-scale", "2", "--record", longRecording});
    const std::string recording = Path("show.mid");
    Player player(Player::Mode::piped,
                  {exampleShow, "--play", "--tempo-scale", "2", "--record", recording});

    ASSERT_EQ(player.Wait(300s), 0) << player.Output() << player.Errors();
    EXPECT_EQ(player.Errors(), "");
    const std::string output = player.Output();
    for (const char* line : {"Song 1: Lanterns\n  bar 1\n", "  bar 4  \"Caesura\"\n",
                             "  caesura at bar 4: playing on\n", "  bar 5  \"A tempo\"\n",
                             "Song 4: Last Ferry\n  bar 1  \"Intro\"\n"}) {
        EXPECT_NE(output.find(line), std::string::npos) << line;
    }
    EXPECT_NE(output.find("The recording is in " + recording), std::string::npos);
    const auto show = velt_core::LoadShow(exampleShow);
    const auto heard = ReadRecording(recording);
    SongMatcher matcher(heard);
    for (const auto& song : show->GetSongs()) {
        matcher.Match(*song);
    }
    EXPECT_EQ(matcher.Position(), heard.size()) << "more than the songs was sent";

    ASSERT_EQ(longSong.Wait(300s), 0) << longSong.Output() << longSong.Errors();
    EXPECT_NE(longSong.Output().find("  bar 68\n  ended after"), std::string::npos)
        << longSong.Output();
    const auto heardLong = ReadRecording(longRecording);
    SongMatcher longMatcher(heardLong);
    longMatcher.Match(velt_core::LoadSongFile(file));
    EXPECT_EQ(longMatcher.Position(), heardLong.size());
    // The last beat came well after a minute of playing.
    const auto lastNote = std::find_if(heardLong.rbegin(), heardLong.rend(),
                                       [](const Heard& h) { return IsNoteOn(h.message); });
    ASSERT_NE(lastNote, heardLong.rend());
    EXPECT_GT(lastNote->ms, 65000u);
}

TEST_F(PlayerTest, AnInterruptMidNoteStopsCleanlyAndKeepsTheRecording) {
    const std::string song = WriteCountingSong(Path("counting.mid"));
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        const std::string recording = Path("interrupted.mid");
        Player player(Player::Mode::piped, {song, "--play", "--record", recording});
        ASSERT_TRUE(player.WaitForText("  bar 3\n", 30s)) << player.Output() << player.Errors();
        std::this_thread::sleep_for(300ms);  // into the bar, the pad's note sounding
        player.Signal(signal);
        ASSERT_EQ(player.Wait(20s), 128 + signal) << player.Output() << player.Errors();
        EXPECT_NE(player.Output().find("The recording is in " + recording), std::string::npos);

        const auto heard = ReadRecording(recording);
        // Every beat and bar from the start up to the interruption, none skipped.
        const auto beats = Runs(Struck(heard, 0, 100));
        ASSERT_EQ(beats.size(), 1u) << Join(Struck(heard, 0, 100));
        EXPECT_EQ(beats[0].front(), beatBase);
        EXPECT_GE(beats[0].size(), 9u);
        EXPECT_EQ(Runs(Struck(heard, 2, 70)),
                  (std::vector<std::vector<int>>{{barBase, barBase + 1, barBase + 2}}));
        // The pad sounded when the signal came; note-offs, then the resets, ended it.
        ASSERT_TRUE(EndsWithResets(heard));
        std::size_t release = heard.size() - 32;
        while (release > 0 && IsNoteOff(heard[release - 1].message)) {
            --release;
        }
        EXPECT_TRUE(HeldAfter(heard, release).contains((2 << 8) | (barBase + 2)));
        EXPECT_TRUE(HeldAfter(heard, heard.size() - 32).empty());
    }
}

TEST_F(PlayerTest, EveryBadRequestIsOneLineOnStandardErrorBeforeAnythingPlays) {
    const std::string song = WriteCountingSong(Path("counting.mid"));
    const std::string badShow = Path("bad");
    std::filesystem::create_directories(badShow);
    std::ofstream(badShow + "/show.json") << "{ \"songs\": [ ";
    const std::string recording = Path("never.mid");
    struct Case {
        std::vector<std::string> args;
        std::string says;
        int status;
    };
    const std::vector<Case> cases = {
        {{}, "which show?", 2},
        {{exampleShow, "--bogus"}, "there is no option --bogus", 2},
        {{exampleShow, song}, "one show at a time", 2},
        {{exampleShow, "--play", "99"}, "there is no song 99: the show has 4 songs", 2},
        {{exampleShow, "--song", "99"}, "there is no option --song: --play SONG plays one", 2},
        {{exampleShow, "--play=0"}, "--play must be a song number from 1", 2},
        {{exampleShow, "--tempo-scale", "nan"}, "--tempo-scale must be a number, not \"nan\"", 2},
        {{exampleShow, "--tempo-scale", "inf"}, "--tempo-scale must be a number, not \"inf\"", 2},
        {{exampleShow, "--tempo-scale", "2.5"}, "--tempo-scale must lie between 0.5 and 2.0", 2},
        {{exampleShow, "--tempo-scale", "0"}, "--tempo-scale must lie between 0.5 and 2.0", 2},
        {{exampleShow, "--tempo-scale=-1"}, "--tempo-scale must lie between 0.5 and 2.0", 2},
        {{exampleShow, "--transpose", "+25"}, "--transpose must lie between -24 and 24", 2},
        {{exampleShow, "--transpose", "up"}, "--transpose must be a whole number", 2},
        {{exampleShow, "--play", "2", "--from", "17"},
         "song 2 \"Harbour Waltz\" has no bar 17 (it has 16)",
         2},
        {{exampleShow, "--play", "--from", "2"}, "--from and --until go with one song", 2},
        {{song, "--from", "2", "--until", "5"}, "--until goes with --play", 2},
        {{song, "--play", "--from", "5", "--until", "2"}, "--until 2 comes before --from 5", 2},
        {{song, "--mute", "Tuba"},
         "the show has no track \"Tuba\" (its tracks: 0 Beats, 1 Echo",
         2},
        {{song, "--device", "3"}, "there is no MIDI output device 3", 2},
        {{song, "--device", "Synth"}, "no MIDI output device is called \"Synth\"", 2},
        {{song, "--clock", "fast"}, "--clock is precision, standard or conducted", 2},
        {{song, "--clock", "conducted", "--play"}, "--clock conducted needs the keyboard", 2},
        {{song, "--clock", "conducted"}, "needs the keyboard's beats: run it on a terminal", 2},
        {{song, "--clock", "conducted", "--timing", "exact"}, "--timing exact needs a clock", 2},
        {{song, "--timing", "late"}, "--timing is exact or clock, not \"late\"", 2},
        {{song, "--record"}, "--record needs a value", 2},
        {{song, "--record", Path("no/such/folder/x.mid")}, "cannot write the recording to", 1},
        {{song, "--record", folder_.path().string()}, "cannot write the recording to", 1},
        {{Path("missing")}, "cannot open", 1},
        {{Path("missing.mid")}, "missing.mid", 1},
        {{badShow}, "show.json", 1},
    };
    for (const auto& [args, says, status] : cases) {
        std::vector<std::string> withRecording = args;
        if (std::find(args.begin(), args.end(), "--record") == args.end() && !args.empty()) {
            withRecording.insert(withRecording.end(), {"--record", recording});
        }
        SCOPED_TRACE("velt-play " + [&] {
            std::string line;
            for (const auto& arg : withRecording) {
                line += arg + " ";
            }
            return line;
        }());
        Player player(Player::Mode::piped, withRecording);
        EXPECT_EQ(player.Wait(20s), status);
        const std::string errors = player.Errors();
        EXPECT_EQ(errors.rfind("velt-play: ", 0), 0u) << errors;
        EXPECT_NE(errors.find(says), std::string::npos) << errors;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_EQ(player.Output(), "");
        EXPECT_FALSE(std::filesystem::exists(recording));
        std::filesystem::remove(recording);
    }
}

#include "apps/play_console.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>

#include "platform/mmsystem.h"
#else
#include <sys/ioctl.h>
#include <termios.h>
#endif
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <exception>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include "interfaces/kit.h"

namespace velt_play {
namespace {

using namespace std::chrono_literals;

constexpr double tempoScaleStep = 0.05;

void Write(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const auto written = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        done += static_cast<std::size_t>(written);
    }
}

#ifdef _WIN32
// Single keys for the life of the object: no line editing, no echo, keys read as the bytes a
// terminal sends (arrows as escape sequences, Enter as CR, UTF-8), and escape sequences drawn.
// Ctrl-C stays a console control event, which StopSignals turns into SIGINT. Standard input is
// read in binary mode, so that a CR is not held back waiting for an LF and Ctrl-Z is a key, not
// the end of input. The cursor is hidden while the status area is shown.
class RawTerminal {
  public:
    RawTerminal()
        : input_(GetStdHandle(STD_INPUT_HANDLE)), output_(GetStdHandle(STD_OUTPUT_HANDLE)) {
        if (!GetConsoleMode(input_, &savedInput_) || !GetConsoleMode(output_, &savedOutput_)) {
            throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                                    "the console");
        }
        const DWORD off = ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT | ENABLE_MOUSE_INPUT |
                          ENABLE_WINDOW_INPUT | ENABLE_QUICK_EDIT_MODE;
        SetConsoleMode(input_, (savedInput_ & ~off) | ENABLE_PROCESSED_INPUT |
                                   ENABLE_VIRTUAL_TERMINAL_INPUT | ENABLE_EXTENDED_FLAGS);
        SetConsoleMode(output_,
                       savedOutput_ | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
        SetConsoleCP(CP_UTF8);
        SetConsoleOutputCP(CP_UTF8);
        savedStdinMode_ = _setmode(STDIN_FILENO, _O_BINARY);
        Write("\x1b[?25l");
    }
    ~RawTerminal() {
        Write("\x1b[?25h");
        _setmode(STDIN_FILENO, savedStdinMode_);
        SetConsoleCP(savedInputCodePage_);
        SetConsoleOutputCP(savedOutputCodePage_);
        SetConsoleMode(output_, savedOutput_);
        SetConsoleMode(input_, savedInput_);
    }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

  private:
    HANDLE input_;
    HANDLE output_;
    DWORD savedInput_ = 0;
    DWORD savedOutput_ = 0;
    UINT savedInputCodePage_ = GetConsoleCP();
    UINT savedOutputCodePage_ = GetConsoleOutputCP();
    int savedStdinMode_ = _O_TEXT;
};
#else
// Single keys for the life of the object: no line editing, no echo, no flow control (Ctrl-S must
// not freeze the display mid-show), no suspend (a stopped player would leave its notes sounding).
// Ctrl-C still raises SIGINT, which the main loop turns into a clean stop. The cursor is hidden
// while the status area is shown.
class RawTerminal {
  public:
    RawTerminal() {
        if (tcgetattr(STDIN_FILENO, &saved_) != 0) {
            throw std::system_error(errno, std::generic_category(), "the terminal");
        }
        termios raw = saved_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        raw.c_cc[VSUSP] = _POSIX_VDISABLE;
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        Write("\x1b[?25l");
    }
    ~RawTerminal() {
        Write("\x1b[?25h");
        tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

  private:
    termios saved_{};
};
#endif

// Log lines of the engine go above the status area instead of through it.
class LogAboveStatus {
  public:
    explicit LogAboveStatus(MainEvents& events)
        : previous_(
              kit::SetLogSink([&events](const std::string& line) { events.PostLogLine(line); })) {}
    ~LogAboveStatus() { kit::SetLogSink(previous_); }
    LogAboveStatus(const LogAboveStatus&) = delete;
    LogAboveStatus& operator=(const LogAboveStatus&) = delete;

  private:
    kit::LogSink previous_;
};

enum class KeyKind { character, enter, backspace, escape, clearLine };

struct Key {
    KeyKind kind = KeyKind::character;
    char character = 0;
};

// What the terminal sent, as keys. Escape sequences (arrows, function keys) are skipped; an
// escape alone cancels a question.
std::vector<Key> Keys(std::string_view bytes) {
    std::vector<Key> keys;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const auto c = static_cast<unsigned char>(bytes[i]);
        if (c == 0x1b) {
            if (i + 1 < bytes.size() && (bytes[i + 1] == '[' || bytes[i + 1] == 'O')) {
                const bool parameters = bytes[i + 1] == '[';
                i += 2;
                while (parameters && i < bytes.size() && (bytes[i] < 0x40 || bytes[i] > 0x7e)) {
                    ++i;
                }
                continue;
            }
            keys.push_back({KeyKind::escape});
        } else if (c == '\r' || c == '\n') {
            keys.push_back({KeyKind::enter});
        } else if (c == 0x7f || c == 0x08) {
            keys.push_back({KeyKind::backspace});
        } else if (c == 0x15) {  // Ctrl-U
            keys.push_back({KeyKind::clearLine});
        } else if (c >= 0x20) {
            keys.push_back({KeyKind::character, static_cast<char>(c)});
        }
    }
    return keys;
}

// The questions of the keys that need a value.
enum class Ask { song, bar, tempoScale, transposition, track, group, trim, device, learn };

const char* Question(Ask ask) {
    switch (ask) {
        case Ask::song:
            return "Song number";
        case Ask::bar:
            return "Go to bar";
        case Ask::tempoScale:
            return "Tempo scale (0.5 to 2.0)";
        case Ask::transposition:
            return "Transpose by semitones (-24 to 24)";
        case Ask::track:
            return "Mute or unmute track (number or name)";
        case Ask::group:
            return "Mute or unmute group";
        case Ask::trim:
            return "Volume trim: track, then 0 to 127";
        case Ask::device:
            return "Output device (number or part of its name)";
        case Ask::learn:
            return "Learn which command (number or name)";
    }
    return "";
}

const char* StateText(PlayState state) {
    switch (state) {
        case PlayState::cued:
            return "cued: space plays";
        case PlayState::playing:
            return "PLAYING";
        case PlayState::caesura:
            return "CAESURA: Enter plays on";
        case PlayState::stopped:
            return "stopped: Enter plays on";
        case PlayState::ended:
            return "ended: n for the next song, Enter plays it again";
    }
    return "";
}

std::string Fixed(double value, int decimals) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

// At most `columns` characters of `line` (UTF-8: continuation bytes take no column), so that no
// line of the status area wraps and the area stays where it is redrawn.
std::string Fit(const std::string& line, int columns) {
    int used = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if ((static_cast<unsigned char>(line[i]) & 0xC0) != 0x80 && ++used > columns) {
            return line.substr(0, i);
        }
    }
    return line;
}

int TerminalColumns() {
#ifdef _WIN32
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info) &&
        info.srWindow.Right > info.srWindow.Left) {
        return info.srWindow.Right - info.srWindow.Left + 1;
    }
    return 80;
#else
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 80;
#endif
}

// Threads: the main thread only.
class Console {
  public:
    Console(ShowSession& session, MainEvents& events, const ConsoleSetup& setup)
        : session_(session), events_(events), setup_(setup), tracks_(session.Tracks()) {}

    int Run() {
        RawTerminal terminal;
        LogAboveStatus log(events_);
        status_ = session_.Status();
        Draw_();
        for (;;) {
            const bool input = events_.Wait(STDIN_FILENO, 1s);
            if (const int signal = events_.StopSignal(); signal != 0) {
                return Leave_("Stopped by signal " + std::to_string(signal) + ".",
                              ExitStatusForSignal(signal));
            }
            for (const auto& line : events_.TakeLogLines()) {
                PrintAbove_(line);
            }
            if (setup_.input != nullptr) {
                for (const auto& line : PerformInputEvents(session_, *setup_.input, *setup_.cues)) {
                    PrintAbove_(line);
                }
            }
            if (input && !ReadKeys_()) {
                return Leave_("", 0);
            }
            TakeStatuses_();
            Draw_();
        }
    }

  private:
    void TakeStatuses_() {
        auto statuses = events_.TakeStatuses();
        if (!statuses.empty()) {
            status_ = std::move(statuses.back());
        }
    }

    // Stops the music and leaves the final status on the screen.
    int Leave_(const std::string& message, int exitStatus) {
        session_.Stop();
        TakeStatuses_();
        status_ = session_.Status();
        prompt_.reset();
        message_ = message.empty() ? "Stopped. Goodbye." : message;
        Draw_();
        return exitStatus;
    }

    // False when the performer quits or the terminal went away.
    bool ReadKeys_() {
        char bytes[256];
        const auto count = read(STDIN_FILENO, bytes, sizeof bytes);
        if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) {
            return false;
        }
        for (const Key& key : Keys(std::string_view(bytes, count < 0 ? 0 : count))) {
            if (!OnKey_(key)) {
                return false;
            }
        }
        return true;
    }

    bool OnKey_(const Key& key) {
        if (prompt_) {
            switch (key.kind) {
                case KeyKind::character:
                    answer_ += key.character;
                    break;
                case KeyKind::backspace:
                    if (!answer_.empty()) {
                        answer_.pop_back();
                    }
                    break;
                case KeyKind::clearLine:
                    answer_.clear();
                    break;
                case KeyKind::escape:
                    prompt_.reset();
                    break;
                case KeyKind::enter: {
                    const Ask ask = *std::exchange(prompt_, std::nullopt);
                    if (!answer_.empty()) {
                        Guarded_([&] { Answer_(ask, answer_); });
                    }
                    break;
                }
            }
            return true;
        }
        message_.clear();
        // A q hit by mistake must not end the show: while the music plays it asks again.
        const bool quitting = key.kind == KeyKind::character && key.character == 'q';
        if (quitting &&
            (std::exchange(quitAsked_, false) || session_.Status().state != PlayState::playing)) {
            return false;
        }
        quitAsked_ = quitting;
        if (quitting) {
            message_ = "The music is playing: q again quits, any other key goes on.";
        } else if (key.kind == KeyKind::enter) {
            Guarded_([&] { session_.Play(); });
        } else if (key.kind == KeyKind::character) {
            Guarded_([&] { Command_(key.character); });
        }
        return true;
    }

    // A verb the session refuses tells why in the message line; the show goes on.
    template <typename Verb>
    void Guarded_(Verb verb) {
        try {
            verb();
        } catch (const std::exception& error) {
            message_ = error.what();
        }
    }

    void Ask_(Ask ask) {
        prompt_ = ask;
        answer_.clear();
    }

    void Command_(char key) {
        switch (key) {
            case ' ':
                if (setup_.conducted) {
                    session_.ConductBeat();
                } else if (session_.Status().state == PlayState::playing) {
                    session_.Stop();
                } else {
                    session_.Play();
                }
                break;
            case '.':
                session_.Stop();
                break;
            case 'n':
                session_.NextSong();
                break;
            case 'a':
                session_.SetAttacca(!session_.Status().attacca);
                break;
            case 'p':
                session_.PreviousSong();
                break;
            case 's':
                PrintAbove_(SongList_());
                Ask_(Ask::song);
                break;
            case ']':
                if (!session_.NextMarker()) {
                    message_ = "There is no marker after this.";
                }
                break;
            case '[':
                if (!session_.PreviousMarker()) {
                    message_ = "There is no marker before this.";
                }
                break;
            case 'b':
                Ask_(Ask::bar);
                break;
            // Steps start from the session's value, not the status shown: that follows the
            // downbeats, so keys typed faster than a beat would each step from the same value.
            case '+':
            case '=':
                StepTempoScale_(tempoScaleStep);
                break;
            case '-':
                StepTempoScale_(-tempoScaleStep);
                break;
            case 'x':
                Ask_(Ask::tempoScale);
                break;
            case '>':
                session_.SetTransposition(session_.Status().transposition + 1);
                break;
            case '<':
                session_.SetTransposition(session_.Status().transposition - 1);
                break;
            case 't':
                Ask_(Ask::transposition);
                break;
            case 'm':
                PrintAbove_(TrackList_());
                Ask_(Ask::track);
                break;
            case 'g':
                PrintAbove_(GroupList_());
                Ask_(Ask::group);
                break;
            case 'v':
                PrintAbove_(TrackList_());
                Ask_(Ask::trim);
                break;
            case 'o':
                PrintAbove_(DeviceList_());
                Ask_(Ask::device);
                break;
            case ')':
                session_.IncreaseDisplayDelay();
                break;
            case '(':
                session_.DecreaseDisplayDelay();
                break;
            case 'c':
            case 'f':
                message_ = setup_.sync == nullptr ? "No time code: start with --mtc PORT."
                           : key == 'c'           ? setup_.sync->ToggleTimeCode()
                                                  : setup_.sync->NextFrameRate();
                break;
            case 'l':
                if (setup_.input == nullptr) {
                    message_ = "No MIDI input: start the player with --input PORT.";
                    break;
                }
                PrintAbove_(CommandList_());
                Ask_(Ask::learn);
                break;
            case '?':
            case 'h':
                PrintAbove_(ConsoleHelp());
                break;
            default:
                message_ = "No key '" + std::string(1, key) + "'; ? lists the keys.";
                break;
        }
    }

    void StepTempoScale_(double step) {
        const double scale = session_.Status().tempoScale;
        session_.SetTempoScale(std::round((scale + step) * 100) / 100);
    }

    void Answer_(Ask ask, const std::string& text) {
        switch (ask) {
            case Ask::song:
                session_.SelectSong(ParseWholeNumber(text, "A song number"));
                break;
            case Ask::bar:
                session_.SeekToBar(ParseWholeNumber(text, "A bar"));
                break;
            case Ask::tempoScale:
                session_.SetTempoScale(ParseDecimal(text, "A tempo scale"));
                break;
            case Ask::transposition:
                session_.SetTransposition(ParseWholeNumber(text, "A transposition"));
                break;
            case Ask::track: {
                const unsigned short track = ResolveTrack(tracks_, text);
                if (session_.Status().mutedTracks.contains(track)) {
                    session_.UnmuteTrack(track);
                    message_ = "Track " + TrackText_(track) + " sounds again.";
                } else {
                    session_.MuteTrack(track);
                    message_ = "Track " + TrackText_(track) + " is muted.";
                }
                break;
            }
            case Ask::group: {
                const int group = ParseWholeNumber(text, "A group");
                if (group < 0 || group > 255) {
                    throw std::out_of_range("the show has no group " + text);
                }
                const auto number = static_cast<unsigned char>(group);
                const auto muted = session_.Status().mutedTracks;
                bool allMuted = true;
                for (const unsigned short track : setup_.show->GetGroups().GetGroup(number)) {
                    allMuted = allMuted && (!tracks_.contains(track) || muted.contains(track));
                }
                if (allMuted) {
                    session_.UnmuteGroup(number);
                    message_ = "Group " + text + " sounds again.";
                } else {
                    session_.MuteGroup(number);
                    message_ = "Group " + text + " is muted.";
                }
                break;
            }
            case Ask::trim: {
                const auto space = text.find_last_of(' ');
                if (space == std::string::npos) {
                    throw std::invalid_argument("give the track, a space and the trim (0 to 127)");
                }
                const unsigned short track = ResolveTrack(tracks_, text.substr(0, space));
                const int trim = ParseWholeNumber(text.substr(space + 1), "A trim");
                if (trim < 0 || trim > 127) {
                    throw std::out_of_range("a trim lies between 0 and 127");
                }
                session_.SetTrackTrim(track, static_cast<unsigned char>(trim));
                message_ =
                    "Track " + TrackText_(track) + " trimmed to " + std::to_string(trim) + ".";
                break;
            }
            case Ask::device:
                session_.ChooseDevice(ResolveDevice(text));
                break;
            case Ask::learn:
                setup_.input->Learn(ResolveCommand(text));
                break;
        }
    }

    std::string TrackText_(unsigned short track) const {
        const auto name = tracks_.find(track);
        return std::to_string(track) + (name == tracks_.end() ? "" : " " + name->second);
    }

    std::string TrackList_() const {
        std::string list = "Tracks:";
        for (const auto& [id, name] : tracks_) {
            list += "  " + TrackText_(id);
        }
        return list;
    }

    std::string GroupList_() const {
        std::string list;
        for (int group = 0; group < 256; ++group) {
            const auto tracks =
                setup_.show->GetGroups().GetGroup(static_cast<unsigned char>(group));
            if (tracks.empty()) {
                continue;
            }
            list += "\n  group " + std::to_string(group) + ":";
            for (const unsigned short track : tracks) {
                list += "  " + TrackText_(track);
            }
        }
        return list.empty() ? "The show has no groups." : "Groups:" + list;
    }

    std::string SongList_() const {
        std::string list = "Songs:";
        int number = 0;
        for (const auto& song : session_.Songs()) {
            list += "\n  " + std::to_string(++number) + "  " + song.name;
            if (!song.song) {
                list += "  (cannot be played: " + song.error + ")";
            }
        }
        return list;
    }

    std::string CommandList_() const {
        std::string list = "MIDI commands:";
        const auto learned = setup_.input->Learned();
        for (const auto& [id, name] : PlayerCommandNames()) {
            list += "\n  " + std::to_string(id) + "  " + name;
            if (const auto found = learned.find(id); found != learned.end()) {
                const auto& command = found->second;
                list += "  (on " +
                        DescribeMessage({static_cast<unsigned char>(command.kind | command.channel),
                                         command.data}) +
                        ")";
            }
        }
        return list;
    }

    static std::string DeviceList_() {
        std::string list = "MIDI output devices:";
        int number = 0;
        for (const auto& name : OutputDeviceNames()) {
            list += "\n  " + std::to_string(number++) + "  " + name;
        }
        return list;
    }

    std::vector<std::string> Lines_() const {
        const SessionStatus& s = status_;
        const bool lastSong = static_cast<std::size_t>(s.songNumber) == session_.Songs().size();
        std::vector<std::string> lines;
        lines.push_back(setup_.showName + "  |  song " + std::to_string(s.songNumber) + "/" +
                        std::to_string(session_.Songs().size()) + " \"" + s.songName + "\"  |  " +
                        (lastSong && s.state == PlayState::ended ? "ended: Enter plays it again"
                                                                 : StateText(s.state)) +
                        (s.attacca && !lastSong ? "  |  attacca" : ""));
        const std::string beaten = !setup_.conducted ? ""
                                   : s.followedTempo > 0.0
                                       ? "   beaten " + Fixed(s.followedTempo, 1)
                                       : "   beaten -";
        lines.push_back("bar " + std::to_string(s.bar) + ":" + std::to_string(s.beat) +
                        "   tempo " + Fixed(s.tempo, 1) + beaten + "   scale " +
                        Fixed(s.tempoScale, 2) + "   transpose " + SignedText(s.transposition) +
                        "   key " + (s.key.empty() ? "-" : s.key));
        lines.push_back("marker " + (s.marker.empty() ? std::string("-") : "\"" + s.marker + "\"") +
                        "   page " + (s.page > 0 ? std::to_string(s.page) : std::string("-")) +
                        "   clicks to the end " + std::to_string(s.clicksToEnd));
        std::string muted;
        for (const unsigned short track : s.mutedTracks) {
            muted += (muted.empty() ? "" : ", ") + TrackText_(track);
        }
        lines.push_back("muted " + (muted.empty() ? std::string("-") : muted));
        lines.push_back(
            "device \"" + s.device + "\"" +
            (s.deviceLost ? "  LOST: plays on there once it is back; o chooses another" : "") +
            "   display delay " + std::to_string(std::lround(s.displayDelay * 1000)) + " ms");
        if (!setup_.recordingNote.empty()) {
            lines.push_back(setup_.recordingNote);
        }
        if (setup_.sync != nullptr) {
            lines.push_back(setup_.sync->StatusLine());
        }
        if (setup_.input != nullptr) {
            lines.push_back(InputStatusLine(*setup_.input));
        }
        if (prompt_) {
            lines.push_back(std::string("> ") + Question(*prompt_) + ": " + answer_ + "_");
        } else if (!message_.empty()) {
            lines.push_back(message_);
        } else {
            lines.push_back(setup_.conducted
                                ? "space beat   . stop   Enter play on   ? keys   q quit"
                                : "space play/stop   Enter play on   ? keys   q quit");
        }
        return lines;
    }

    // Redraws the status area in place: up to its first line, each line cleared and written.
    void Draw_() {
        const int columns = TerminalColumns() - 1;
        std::string out;
        if (drawn_ > 0) {
            out += "\x1b[" + std::to_string(drawn_) + "A";
        }
        out += "\r";
        const auto lines = Lines_();
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::string line = Fit(lines[i], columns);
            out += "\x1b[2K" + (i == 0 ? "\x1b[1m" + line + "\x1b[0m" : line) + "\n";
        }
        out += "\x1b[J";
        drawn_ = static_cast<int>(lines.size());
        Write(out);
    }

    // Writes `text` where the status area was; the area follows below it.
    void PrintAbove_(const std::string& text) {
        std::string out;
        if (drawn_ > 0) {
            out += "\x1b[" + std::to_string(drawn_) + "A\r\x1b[J";
        }
        out += text;
        if (text.empty() || text.back() != '\n') {
            out += "\n";
        }
        drawn_ = 0;
        Write(out);
        Draw_();
    }

    ShowSession& session_;
    MainEvents& events_;
    const ConsoleSetup& setup_;
    const std::map<unsigned short, std::string> tracks_;
    SessionStatus status_;
    std::optional<Ask> prompt_;
    std::string answer_;
    std::string message_;
    bool quitAsked_ = false;
    int drawn_ = 0;
};

}  // namespace

const char* ConsoleHelp() {
    return "Keys\n"
           "  space   play / stop; with --clock conducted, a beat (the first one plays)\n"
           "  .       stop\n"
           "  Enter   play: plays on after a caesura or a stop, again after the end\n"
           "  n  p    next / previous song          s  choose a song by number\n"
           "  a       attacca on / off: the song's end runs straight into the next\n"
           "  ]  [    next / previous marker        b  go to a bar\n"
           "  +  -    tempo scale up / down 0.05    x  set the tempo scale (0.5 to 2.0)\n"
           "  >  <    transpose up / down 1         t  set the transposition (-24 to 24)\n"
           "  m       mute or unmute a track        g  mute or unmute a group of tracks\n"
           "  v       volume trim of a track        o  choose the output device\n"
           "  )  (    display delay up / down 10 ms l  learn a MIDI command (--input)\n"
           "  c       time code off / on            f  next time-code frame rate\n"
           "  ?       these keys                    q  quit (asks again while playing)\n"
           "A question is answered with Enter; Esc cancels it, Backspace deletes.";
}

int RunConsole(ShowSession& session, MainEvents& events, const ConsoleSetup& setup) {
    Console console(session, events, setup);
    return console.Run();
}

}  // namespace velt_play

// Plays one bar of four quarter notes into a virtual output device with the installed engine,
// assembled as a host assembles it (clock, position, stream collection, output), and checks that
// the device received the four notes in order. Exits 0 when it did.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include "midi/how_to_play.h"
#include "midi/midi_stream_collection.h"
#include "midi/user_controls.h"
#include "midi/win32/midi_output_win32.h"
#include "midi/win32/standard_midi_clock_impl.h"
#include "platform/virtual_midi.h"
#include "velt_core/song_builder.h"

int main() {
    velt_platform::VirtualMidiOutput device("Consumer Out");

    // 4/4 at 480 quarter notes a minute: the bar lasts half a second.
    const auto song = velt_core::SongBuilder("One Bar", 480)
                          .Tempo(0, 480)
                          .Meter(0, 4, 4)
                          .Track(0, "Piano")
                          .Note(0, 0, 60, 100, 400)
                          .Note(0, 480, 62, 100, 400)
                          .Note(0, 960, 64, 100, 400)
                          .Note(0, 1440, 65, 100, 400)
                          .Bars(1)
                          .Build();
    velt_midi::ShowData show;
    show.AddSong(song);
    TamberMidiStreamCollection streams(show);
    MidiStream& stream = streams.GetStream(song->GetSongName());

    UserControls controls;
    StandardMidiClockImpl clock;
    HowToPlayWithMidiClock position(controls, clock);
    position.SetData(song->GetSongLog(), song->GetTimeline(), song->GetTicksPerQuarter());
    const std::uint32_t ticksPerClock = song->GetTicksPerQuarter() / 24;
    const std::uint32_t lastTick = song->GetTimeline().lastTickIndex;

    // The fill callback runs on the output's queue thread: one clock period per buffer.
    std::mutex positionMutex;
    std::uint32_t nextTick = 0;
    bool first = true;
    auto fill = [&](MidiBuffer& buffer) {
        std::unique_lock lock(positionMutex);
        buffer.SetTickIndex(nextTick);
        if (nextTick > lastTick) {
            buffer.SetIsLastBuffer(true);
            return;
        }
        position.AdvanceToTickIndexWithLock(nextTick, lock);
        buffer.SetClockNumber(position.GetClockNumber());
        const std::uint32_t periodEnd = nextTick + ticksPerClock;
        if (first) {
            stream.EnqueueInitialEvents(periodEnd, 0, buffer);
            first = false;
        } else {
            stream.EnqueueEvents(periodEnd, 0, buffer, false);
        }
        nextTick = periodEnd;
        buffer.SetHasData(true);
    };

    std::mutex stopMutex;
    std::condition_variable stoppedChanged;
    bool stopped = false;
    auto onStopped = [&] {
        std::scoped_lock lock(stopMutex);
        stopped = true;
        stoppedChanged.notify_all();
    };

    std::recursive_mutex hostMutex;
    auto output = std::make_unique<MidiOutputWin32>(
        1, fill, [](unsigned int) {}, onStopped, [] {}, [](unsigned int) { return false; }, clock,
        &hostMutex);
    output->Initialize(1);
    output->CreateSynthOutput(device.Name());

    position.Seek(0);
    stream.Seek(0);
    output->Seek(0);
    clock.ArmPlayback(ticksPerClock, position.GetLastSeekClocksPerClick(),
                      position.GetLastSeekClockTime(), 0, position.GetClockNumber());
    {
        std::unique_lock lock(output->GetMutex());
        output->PrimeBuffers(lock);
    }
    if (!output->ArmPlayback()) {
        std::fprintf(stderr, "the output refused to arm\n");
        return 1;
    }
    clock.ContinuousMode();
    {
        std::unique_lock lock(stopMutex);
        if (!stoppedChanged.wait_for(lock, std::chrono::seconds(30), [&] { return stopped; })) {
            std::fprintf(stderr, "the bar did not end\n");
            return 1;
        }
    }
    output->PrepareForExit();
    clock.WaitUntilStopped(std::chrono::seconds(10));
    output.reset();

    std::vector<int> notes;
    for (const auto& message : device.Messages()) {
        if (message.bytes.size() == 3 && message.bytes[0] == 0x90 && message.bytes[2] != 0) {
            notes.push_back(message.bytes[1]);
        }
    }
    if (notes != std::vector<int>{60, 62, 64, 65}) {
        std::fprintf(stderr, "the device received %zu note-ons, not the bar's four\n",
                     notes.size());
        return 1;
    }
    std::printf("played one bar: %zu messages to \"%s\"\n", device.Messages().size(),
                device.Name().c_str());
    return 0;
}

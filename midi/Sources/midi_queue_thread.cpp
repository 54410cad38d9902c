#include "interfaces/kit.h"
#include "interfaces/notify.h"
#include "midi/Sources/logged_exceptions.h"
#include "midi/midi_output.h"
#include "platform/mmsystem.h"

namespace {
// Source position quoted when an exception ends the thread or fails a fill.
constexpr const char* queueThreadSource = "midi/Sources/midi_queue_thread";
constexpr int queueThreadLine = 122;
}  // namespace

MidiQueueThread::MidiQueueThread(MidiOutput& output, MidiThreadManager& manager)
    : output_(output), manager_(manager), thread_([this] { ThreadEntry_(); }) {}

MidiQueueThread::~MidiQueueThread() {
    if (!joined_.load() && thread_.joinable()) {
        Join();
    }
}

void MidiQueueThread::ThreadEntry_() {
    RunLoggingExceptions(queueThreadSource, queueThreadLine, [this] {
        // The filler must never fall behind the send step, so it asks for the highest priority
        // the platform grants; a refusal is logged and playback goes on at normal priority.
        if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST)) {
            kit::CoutBuffer() << "Unable to SetThreadPriority of midi clock. dwError = "
                              << GetLastError() << kit::endl;
        }
        kit::threadNames.SetNameOfCurrentThread("midi_queue_run");
        Run();
    });
}

void MidiQueueThread::Run() {
    while (true) {
        if (!ShouldRun()) {
            return;
        }
        output_.QueueWaitForPlayback(*this);
        if (!ShouldRun()) {
            return;
        }
        std::shared_ptr<MidiBuffer> buffer = output_.GetFillBuffer();
        buffer->WaitUntilNeedsData();
        if (!ShouldRun()) {
            return;
        }
        if (!output_.PlaybackIsActive()) {
            continue;
        }
        // The buffer's mutex is held around the fill, as PrimeBuffers holds it: the fill
        // callback always runs under it, so locks of the host's come after it on every path.
        std::scoped_lock lock(buffer->GetMutex());
        const bool filled = RunLoggingExceptions(queueThreadSource, queueThreadLine, [&] {
            output_.DoFillMidiBufferCallback(*buffer, false);  // resets the buffer, then fills it
        });
        if (!filled) {
            // A fill that failed still hands its buffer on as far as it got, so the ring keeps
            // turning: a filler that stopped here would leave the send step waiting for good.
            buffer->SetHasData(true);
        }
        output_.IncrementFillBufferIndex();
    }
}

void MidiQueueThread::Exit() {
    exitRequested_.exchange(true);
}

void MidiQueueThread::Join() {
    if (joined_.load()) {
        return;
    }
    exitRequested_.exchange(true);
    {
        std::shared_ptr<MidiBuffer> buffer = output_.GetFillBuffer();
        std::scoped_lock lock(buffer->GetMutex());
        buffer->SetHasData(false);  // wakes a wait for the buffer to need data
    }
    manager_.Release();  // wakes a parked thread
    thread_.join();
    joined_.store(true);
}

// The performer's live adjustments on top of the song: a tempo scale and a transposition.
#pragma once

#include <mutex>

/// Shared by every HowToPlay of a show. Threads: written by the control side (host UI, MIDI
/// command handlers), read by the playback threads. Locks: its own mutex for the whole of every
/// operation; it calls out to nothing while holding it.
class UserControls {
  public:
    UserControls() = default;

    /// Multiplies the tempo scale by 1.01 and returns the new scale. Steps are multiplicative on
    /// purpose: an increase then a decrease gives 0.9999, not 1.0.
    double IncreaseTempo();
    /// Multiplies the tempo scale by 0.99 and returns the new scale.
    double DecreaseTempo();
    /// The stored scale, not limited (the playback position limits it where it is used).
    double GetTempoScale();
    void SetTempoScale(double tempoScale);
    /// Semitones.
    int GetTransposition();
    /// Stores a new value and sets the changed flag; an equal value changes nothing.
    ///
    /// Changing the transposition while notes sound: the notes were struck at the old pitch, and
    /// their note-offs would go out at the new one. So at its next fill the host takes
    /// HowToPlay::GetTranspositionPair() (now, as last reported); when the two differ (a change
    /// here, or the song's own transposition starting or ending) it seeks the stream to where it
    /// stands, MidiStream::Seek(GetCurrentTick()), and enqueues that period with
    /// EnqueueEventsWithPersistence(tick, old, now, ...): held notes whose pitch moves are
    /// released at the old pitch and struck at the new one, the others sound on. A plain
    /// EnqueueEvents with the new value would leave the old pitches sounding.
    void SetTransposition(int transposition);
    /// Returns the changed flag and clears it.
    bool GetTranspositionChanged();

  private:
    std::mutex mutex_;
    double tempoScale_ = 1.0;
    int transposition_ = 0;
    bool transpositionChanged_ = false;
};

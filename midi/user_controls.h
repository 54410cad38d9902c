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
    void SetTransposition(int transposition);
    /// Returns the changed flag and clears it.
    bool GetTranspositionChanged();

  private:
    std::mutex mutex_;
    double tempoScale_ = 1.0;
    int transposition_ = 0;
    bool transpositionChanged_ = false;
};

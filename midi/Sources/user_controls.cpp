#include "midi/user_controls.h"

double UserControls::IncreaseTempo() {
    std::scoped_lock lock(mutex_);
    tempoScale_ *= 1.01;
    return tempoScale_;
}

double UserControls::DecreaseTempo() {
    std::scoped_lock lock(mutex_);
    tempoScale_ *= 0.99;
    return tempoScale_;
}

double UserControls::GetTempoScale() {
    std::scoped_lock lock(mutex_);
    return tempoScale_;
}

void UserControls::SetTempoScale(double tempoScale) {
    std::scoped_lock lock(mutex_);
    tempoScale_ = tempoScale;
}

int UserControls::GetTransposition() {
    std::scoped_lock lock(mutex_);
    return transposition_;
}

void UserControls::SetTransposition(int transposition) {
    std::scoped_lock lock(mutex_);
    if (transposition != transposition_) {
        transposition_ = transposition;
        transpositionChanged_ = true;
    }
}

bool UserControls::GetTranspositionChanged() {
    std::scoped_lock lock(mutex_);
    bool changed = transpositionChanged_;
    transpositionChanged_ = false;
    return changed;
}

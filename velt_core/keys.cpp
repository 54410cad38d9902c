// Key names under transposition.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "interfaces/timeline.h"

namespace {

// Indexed by sharps/flats + 7 (-7 = seven flats ... +7 = seven sharps).
const char* const majorNames[15] = {"Cb", "Gb", "Db", "Ab", "Eb", "Bb", "F", "C",
                                    "G",  "D",  "A",  "E",  "B",  "F#", "C#"};
const char* const minorNames[15] = {"Ab", "Eb", "Bb", "F",  "C",  "G",  "D", "A",
                                    "E",  "B",  "F#", "C#", "G#", "D#", "A#"};

int Modulo12(int value) {
    return ((value % 12) + 12) % 12;
}

// Pitch class of the tonic: a major key with s sharps is s fifths above C; its relative minor
// lies a minor third below.
int TonicPitchClass(int sharpsFlats, bool minor) {
    return Modulo12(sharpsFlats * 7 + (minor ? 9 : 0));
}

std::string Name(int sharpsFlats, bool minor) {
    const char* const* names = minor ? minorNames : majorNames;
    return std::string(names[sharpsFlats + 7]) + (minor ? " minor" : " major");
}

}  // namespace

namespace Keys {

std::string getTransposedName(std::int16_t minor, std::int16_t sharpsFlats,
                              std::int16_t transposition) {
    const bool isMinor = minor != 0;
    const int written = std::clamp<int>(sharpsFlats, -7, 7);
    if (Modulo12(transposition) == 0) {
        return Name(written, isMinor);
    }
    const int tonic = Modulo12(TonicPitchClass(written, isMinor) + transposition);

    // Each pitch class has one spelling within -5..6 fifths and, for some, a second one 12
    // fifths away; keep the one with fewer accidentals, and at six each way (the only tie)
    // follow the written key's side.
    int best = 0;
    bool found = false;
    for (int candidate = -7; candidate <= 7; ++candidate) {
        if (TonicPitchClass(candidate, isMinor) != tonic) {
            continue;
        }
        if (!found || std::abs(candidate) < std::abs(best)) {
            best = candidate;
            found = true;
        } else if (std::abs(candidate) == std::abs(best)) {
            bool preferSharps = written > 0 || (written == 0 && transposition > 0);
            best = preferSharps ? std::max(best, candidate) : std::min(best, candidate);
        }
    }
    return Name(best, isMinor);
}

}  // namespace Keys

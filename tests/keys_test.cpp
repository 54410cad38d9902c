// Key names under transposition: the right key, spelled the way a musician would write it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "interfaces/timeline.h"

namespace {

struct Case {
    std::int16_t minor;
    std::int16_t sharpsFlats;
    std::int16_t transposition;
    const char* expected;
};

TEST(Keys, TransposedNamesAcrossEnharmonicSpellings) {
    const Case cases[] = {
        {0, -3, 2, "F major"},    // E-flat major up a tone
        {0, -3, 0, "Eb major"},   // untransposed keeps the written spelling
        {0, -3, 12, "Eb major"},  // so do whole octaves, either way
        {0, -3, -24, "Eb major"}, {0, -7, 0, "Cb major"},  // even with seven flats
        {0, 7, 0, "C# major"},    {0, -7, 2, "Db major"},
        {0, 7, 1, "D major"},     {0, 0, 1, "Db major"},  // five flats rather than seven sharps
        {0, -2, 1, "B major"},                            // five sharps rather than seven flats
        {0, 0, -1, "B major"},    {0, 0, -13, "B major"},
        {0, 2, 4, "F# major"},   // six either way: a sharp key stays sharp...
        {0, -1, 1, "Gb major"},  // ...and a flat key flat
        {0, 0, 6, "F# major"},   // C goes sharp upwards
        {0, 0, -6, "Gb major"},  // and flat downwards
        {0, 3, 3, "C major"},     {1, 0, 0, "A minor"},
        {1, -3, 2, "D minor"},    {1, 3, -1, "F minor"},
        {1, 0, 11, "G# minor"},  // five sharps rather than seven flats
        {1, 0, 1, "Bb minor"},   // five flats rather than seven sharps
        {1, 0, 6, "D# minor"},    {1, 0, -6, "Eb minor"},
        {1, -2, 5, "C minor"},   // G minor up a fourth
        {1, -2, 8, "Eb minor"},  // six either way, from a flat key
        {1, 1, 11, "D# minor"},  // and from a sharp one
        {1, 2, 1, "C minor"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Keys::getTransposedName(c.minor, c.sharpsFlats, c.transposition), c.expected)
            << "minor=" << c.minor << " sharpsFlats=" << c.sharpsFlats
            << " transposition=" << c.transposition;
    }
}

// Pitch class and accidental count of a name such as "F# major".
int PitchClass(const std::string& name) {
    static const int natural[7] = {9, 11, 0, 2, 4, 5, 7};  // A..G
    int pc = natural[name.at(0) - 'A'];
    if (name.at(1) == '#')
        pc += 1;
    if (name.at(1) == 'b')
        pc -= 1;
    return (pc + 12) % 12;
}

TEST(Keys, EveryTranspositionMovesTheTonicAndUsesAtMostSixAccidentals) {
    for (std::int16_t minor = 0; minor <= 1; ++minor) {
        for (std::int16_t written = -7; written <= 7; ++written) {
            const int writtenTonic = PitchClass(Keys::getTransposedName(minor, written, 0));
            // Major tonic = 7 × sharps (circle of fifths); minor a minor third below.
            EXPECT_EQ(writtenTonic, ((written * 7 + (minor ? 9 : 0)) % 12 + 12) % 12);
            for (std::int16_t t = -11; t <= 11; ++t) {
                if (t == 0)
                    continue;
                const std::string name = Keys::getTransposedName(minor, written, t);
                SCOPED_TRACE(name + " from " + std::to_string(written) + " by " +
                             std::to_string(t));
                EXPECT_EQ(PitchClass(name), ((writtenTonic + t) % 12 + 12) % 12);
                EXPECT_EQ(name.substr(name.find(' ')), minor ? " minor" : " major");
                // The only spellings with seven accidentals (Cb, C#, Ab minor, A# minor) have
                // an enharmonic twin with five, which is chosen.
                for (const char* seven : {"Cb major", "C# major", "Ab minor", "A# minor"}) {
                    EXPECT_NE(name, seven);
                }
            }
        }
    }
}

}  // namespace

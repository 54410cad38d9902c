// The utility library: whole log lines from many threads, formatting, failure texts, thread
// names, paths and note names.
#include <gtest/gtest.h>

#include <iomanip>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#if defined(__linux__)
#include <pthread.h>
#endif

#include "interfaces/kit.h"
#include "tests/support/captured_log.h"

namespace {

TEST(CoutBuffer, LinesBuiltPieceByPieceOnManyThreadsNeverInterleave) {
    CapturedLog log;
    constexpr int kThreads = 6;
    constexpr int kLines = 400;
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([t] {
            kit::CoutBuffer out;
            for (int i = 0; i < kLines; ++i) {
                // Many small pieces per line give other threads every chance to cut in.
                out << "T" << t << " #" << i;
                for (int piece = 0; piece < 8; ++piece)
                    out << ' ' << t;
                out << kit::endl;
            }
        });
    }
    for (auto& writer : writers)
        writer.join();

    ASSERT_EQ(log.Lines().size(), static_cast<std::size_t>(kThreads * kLines));
    std::map<int, int> nextLine;
    for (const std::string& line : log.Lines()) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "T%d #%d", &t, &i), 2) << line;
        std::ostringstream expected;
        expected << 'T' << t << " #" << i;
        for (int piece = 0; piece < 8; ++piece)
            expected << ' ' << t;
        ASSERT_EQ(line, expected.str());
        EXPECT_EQ(i, nextLine[t]++) << "lines of one thread arrive in order";
    }
}

TEST(CoutBuffer, EndsLinesOnEndlAndFlushesTheRestOnDestruction) {
    CapturedLog log;
    {
        kit::CoutBuffer out;
        out << "WARNING: SetTickIndex ignored. " << 42 << kit::endl;
        out << std::hex << std::setw(4) << std::setfill('0') << 0x1f << kit::endl;
        out << "unterminated";
    }
    { kit::CoutBuffer unused; }  // nothing written, no empty line
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"WARNING: SetTickIndex ignored. 42", "001f",
                                                     "unterminated"}));
}

TEST(Kit, FormatsFailureTextsAndTracesPlatformCallsOnlyWhenEnabled) {
    EXPECT_EQ(kit::format("Main Buffer %d", 3), "Main Buffer 3");
    EXPECT_EQ(kit::format("%s line %d: %s caused error %d, %s.", "midi/Sources/win32/data_buffer",
                          120, "calling midiOutPrepareHeader", 11, "invalid parameter"),
              "midi/Sources/win32/data_buffer line 120: calling midiOutPrepareHeader caused "
              "error 11, invalid parameter.");
    const std::string longText(5000, 'x');  // longer than any fixed buffer
    EXPECT_EQ(kit::format("[%s]", longText.c_str()), "[" + longText + "]");

    EXPECT_EQ(kit::CreateFailureMessage("midi/Sources/win32/win_synth", 57, "calling midiStreamOut",
                                        "device busy"),
              "midi/Sources/win32/win_synth line 57: calling midiStreamOut failed. device busy");
    EXPECT_EQ(kit::CreateFailureMessage("src", 1, "opening", ""), "src line 1: opening failed.");
    EXPECT_STREQ(kit::NotImplementedError("Global Reverb Not Supported").what(),
                 "Global Reverb Not Supported");

    CapturedLog log;
    kit::LogFilter(kit::LogAttempt, "src", 9, "calling midiStreamOut", false);
    kit::LogFilter(kit::LogAttempt, "src", 9, "calling midiStreamOut", true);
    kit::LogFilter(kit::LogSuccess, "src", 9, "calling midiStreamOut", true);
    EXPECT_EQ(log.Lines(),
              (std::vector<std::string>{"src line 9: attempting calling midiStreamOut",
                                        "src line 9: succeeded calling midiStreamOut"}));
}

TEST(Kit, StackTraceIsWrittenAsLogLinesOfAtMostTheDepth) {
    CapturedLog log;
    kit::PrintStackTrace(3);
    ASSERT_FALSE(log.Lines().empty());
    EXPECT_EQ(log.Lines().front().rfind("Stack trace", 0), 0u);
    EXPECT_LE(log.Lines().size(), 4u);
}

TEST(Kit, PathsAndNoteNames) {
#ifdef _WIN32
    const std::string sep = "\\";
#else
    const std::string sep = "/";
#endif
    EXPECT_EQ(kit::path::Join("shows", "muteSettings"), "shows" + sep + "muteSettings");
    EXPECT_EQ(kit::path::Join("shows" + sep, "muteSettings"), "shows" + sep + "muteSettings");
    EXPECT_EQ(kit::path::Join("shows" + sep, sep + "muteSettings"), "shows" + sep + "muteSettings");
    EXPECT_EQ(kit::path::Join("", "muteSettings"), "muteSettings");

    // Middle C is C4; octaves turn between B and C; past 127 there is no note.
    const std::map<int, std::string> notes{{60, "C4"},  {61, "C#4"}, {59, "B3"},   {0, "C-1"},
                                           {11, "B-1"}, {127, "G9"}, {128, "?128"}};
    for (const auto& [note, name] : notes)
        EXPECT_EQ(kit::midi::GetNoteName(note), name);
}

TEST(ThreadNames, EachThreadHasItsOwnNameAndALaterThreadDoesNotInheritOne) {
    kit::ThreadNames names;
    std::string firstSeen, secondSeen, osName;
    std::thread::id firstId;
    std::thread first([&] {
        names.SetNameOfCurrentThread("MidiOutput::AsyncStoppedThread");
        firstSeen = names.GetNameOfCurrentThread();
        firstId = std::this_thread::get_id();
#if defined(__linux__)
        char buffer[32] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        osName = buffer;
#endif
    });
    first.join();
    EXPECT_EQ(firstSeen, "MidiOutput::AsyncStoppedThread");  // recorded whole
    EXPECT_EQ(names.GetName(firstId), "MidiOutput::AsyncStoppedThread");
#if defined(__linux__)
    EXPECT_EQ(osName, "MidiOutput::Asy");  // the OS keeps 15 characters
#endif
    // The next thread often gets the ended thread's id; it must not report that thread's name.
    std::thread second([&] { secondSeen = names.GetNameOfCurrentThread(); });
    second.join();
    EXPECT_EQ(secondSeen, "");
    EXPECT_EQ(names.GetNameOfCurrentThread(), "");
}

}  // namespace

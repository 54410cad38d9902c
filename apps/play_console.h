// The player's interactive mode: a status area redrawn in place at the bottom of the terminal
// and one key per verb of the show session. What the session's threads report reaches the main
// thread through MainEvents; only the main thread draws and calls verbs.
#pragma once

#include <memory>
#include <string>

#include "apps/play_support.h"
#include "apps/show_session.h"
#include "apps/sync_outputs.h"

namespace velt_play {

struct ConsoleSetup {
    std::string showName;
    std::shared_ptr<pv::ParvelShowData> show;  // for its groups
    /// A line under the status area's device line (where the recording goes, or how to make one).
    std::string recordingNote;
    /// The clock follows the performer's beats: the space bar beats instead of playing and
    /// stopping, and the status shows the tempo beaten.
    bool conducted = false;
    /// The time code and beat clock outputs, if the command line asked for them.
    SyncOutputs* sync = nullptr;
};

/// The keys and what they do, as `?` shows them.
const char* ConsoleHelp();

/// Runs the interactive mode on the terminal of standard input and output until the performer
/// quits (0) or a stop signal arrives (its exit status, see ExitStatusForSignal). The session is
/// stopped on return; the terminal is as it was before on every way out.
int RunConsole(ShowSession& session, MainEvents& events, const ConsoleSetup& setup);

}  // namespace velt_play

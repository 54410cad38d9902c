// Running work on an engine thread so that an exception is logged instead of ending the process.
// Private to the engine sources.
#pragma once

#include <exception>
#include <utility>

#include "interfaces/notify.h"

/// Runs `work`. An exception that leaves it goes to the log through VeltLogException with its
/// text, or "Unknown exception." for a non-standard one, and the source position given (the one
/// the calling module quotes for that place). Returns whether `work` completed. Every thread body
/// runs this way, and so does each host callback whose failure must not end its thread.
template <typename Work>
bool RunLoggingExceptions(const char* source, int line, Work&& work) {
    try {
        std::forward<Work>(work)();
        return true;
    } catch (const std::exception& error) {
        VeltLogException(error.what(), source, line);
    } catch (...) {
        VeltLogException("Unknown exception.", source, line);
    }
    return false;
}

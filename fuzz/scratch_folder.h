// The scratch folder of one fuzzing process (libFuzzer's workers are processes of their own):
// created under the system's temporary folder with the process id in its name, removed when the
// process ends normally.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

struct ScratchFolder {
    std::filesystem::path path;

    void Create(const std::string& prefix) {
        path = std::filesystem::temp_directory_path() / (prefix + std::to_string(::getpid()));
        std::filesystem::create_directories(path);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

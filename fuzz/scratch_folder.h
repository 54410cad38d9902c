// The scratch folder of one fuzzing process (libFuzzer's workers are processes of their own):
// created with the process id in its name, removed when the process ends normally.
//
// Every execution truncates and rewrites a file in it. On a disk file system (ext4 at least)
// closing a file that was truncated and rewritten forces its blocks out to the device, and
// freeing the old blocks may issue a discard; that cost several times the loading under test.
// The folder therefore goes under the memory-backed /dev/shm when the system has one, and
// under the system's temporary folder otherwise. The loader still opens and reads a real file.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

struct ScratchFolder {
    std::filesystem::path path;

    void Create(const std::string& prefix) {
        path = Base() / (prefix + std::to_string(::getpid()));
        std::filesystem::create_directories(path);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

  private:
    static std::filesystem::path Base() {
        const std::filesystem::path memory = "/dev/shm";
        std::error_code error;
        if (std::filesystem::is_directory(memory, error) &&
            ::access(memory.c_str(), W_OK | X_OK) == 0) {
            return memory;
        }
        return std::filesystem::temp_directory_path();
    }
};

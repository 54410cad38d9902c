// A folder of the running test's own under the test framework's temporary folder: emptied at the
// start (a run that was killed may have left files there) and removed at the end. Files are read
// and written whole, as bytes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace test_support {

class TempFolder {
  public:
    TempFolder() {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        path_ = std::filesystem::path(::testing::TempDir()) /
                ("velt_" + std::string(test->test_suite_name()) + "_" + test->name());
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~TempFolder() {
        std::error_code ignored;  // a file still open elsewhere must not end the test program
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string Path(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

// The player keeps its settings under XDG_CONFIG_HOME: pointed at a test's folder for the
// object's life, then back to what it was, so that no later test writes into a removed folder.
class ConfigHome {
  public:
    explicit ConfigHome(const std::filesystem::path& folder) {
        if (const char* earlier = std::getenv("XDG_CONFIG_HOME")) {
            earlier_ = earlier;
        }
        Set(folder.string().c_str());
    }
    ~ConfigHome() { Set(earlier_ ? earlier_->c_str() : nullptr); }
    ConfigHome(const ConfigHome&) = delete;
    ConfigHome& operator=(const ConfigHome&) = delete;

  private:
    // Empty is unset on Windows, where an empty variable does not exist.
    static void Set(const char* value) {
#ifdef _WIN32
        _putenv_s("XDG_CONFIG_HOME", value ? value : "");
#else
        if (value) {
            ::setenv("XDG_CONFIG_HOME", value, 1);
        } else {
            ::unsetenv("XDG_CONFIG_HOME");
        }
#endif
    }

    std::optional<std::string> earlier_;
};

inline std::vector<std::uint8_t> ReadBytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void WriteBytes(const std::filesystem::path& file, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

}  // namespace test_support

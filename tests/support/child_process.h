// A program a test runs in a process of its own (POSIX only): its standard input and output on
// pipes, on a pseudo-terminal, or nowhere. A thread of its own reads the output all along, so the
// program never blocks on a full pipe or terminal; the test waits for text, for lines or for the
// exit. Started with posix_spawn, which is safe in a process whose other threads hold locks.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace test_support {

class ChildProcess {
  public:
    // quiet: input and output on /dev/null. piped: input, output and errors on pipes of their
    // own. terminal: all three on one pseudo-terminal of 40 rows and 120 columns, which the
    // program has as its controlling terminal.
    enum class Io { quiet, piped, terminal };

    ChildProcess(std::vector<std::string> args, Io io) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        int childEnds[3] = {-1, -1, -1};  // closed here once the child has them
        if (io == Io::quiet) {
            posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
            posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
            posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        } else if (io == Io::terminal) {
            input_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
            if (input_ >= 0 && grantpt(input_) == 0 && unlockpt(input_) == 0) {
                const winsize size{40, 120, 0, 0};
                ioctl(input_, TIOCSWINSZ, &size);
                // Opened after the new session starts, the terminal becomes the controlling one.
                posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
                posix_spawn_file_actions_addopen(&actions, 0, ptsname(input_), O_RDWR, 0);
                posix_spawn_file_actions_adddup2(&actions, 0, 1);
                posix_spawn_file_actions_adddup2(&actions, 0, 2);
            }
            output_ = input_;
        } else {
            int in[2], out[2], err[2];
            if (pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0 &&
                pipe2(err, O_CLOEXEC) == 0) {
                posix_spawn_file_actions_adddup2(&actions, in[0], 0);
                posix_spawn_file_actions_adddup2(&actions, out[1], 1);
                posix_spawn_file_actions_adddup2(&actions, err[1], 2);
                childEnds[0] = in[0];
                childEnds[1] = out[1];
                childEnds[2] = err[1];
                input_ = in[1];
                output_ = out[0];
                errors_ = err[0];
            }
        }
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        if (posix_spawnp(&pid_, argv[0], &actions, &attributes, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        for (const int end : childEnds) {
            if (end >= 0) {
                close(end);
            }
        }
        if (pid_ < 0) {
            status_ = -1;
        }
        reader_ = std::thread([this] { Read_(); });
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // A program still running is asked to end (SIGTERM) and, if it has not within ten seconds,
    // killed.
    ~ChildProcess() {
        if (!status_) {
            kill(pid_, SIGTERM);
            if (Wait(std::chrono::seconds(10)) < 0) {
                kill(pid_, SIGKILL);
                Wait(std::chrono::seconds(10));
            }
        }
        if (reader_.joinable()) {
            reader_.join();
        }
        for (const int fd : {input_ != output_ ? input_ : -1, output_, errors_}) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }

    bool Started() const { return pid_ > 0; }

    // Text for the program's input (keys typed at the terminal).
    bool Write(const std::string& text) {
        return input_ >= 0 &&
               write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    // The program reads the end of its input from here on (piped only).
    void CloseInput() {
        if (input_ >= 0 && input_ != output_) {
            close(input_);
            input_ = -1;
        }
    }

    void Signal(int signal) {
        if (pid_ > 0) {
            kill(pid_, signal);
        }
    }

    // The exit status (128 + the signal for a program ended by one), or -1 on timeout. Once it
    // returns a status, everything the program wrote has been read.
    int Wait(std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!status_) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            } else if (std::chrono::steady_clock::now() > end) {
                return -1;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        // The reader ends at the end of the pipe or terminal, which comes once the program (and
        // anything it started) has gone.
        if (reader_.joinable()) {
            reader_.join();
        }
        return *status_;
    }

    // Waits until the whole output so far satisfies `seen`.
    bool WaitForOutput(const std::function<bool(const std::string&)>& seen,
                       std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        return grew_.wait_for(lock, limit, [&] { return seen(output_text_); });
    }

    // The next whole line of output after the last one read, or nothing when the output ended
    // or stayed silent for `limit`.
    std::optional<std::string> ReadLine(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        std::size_t end = std::string::npos;
        grew_.wait_for(lock, limit, [&] {
            end = output_text_.find('\n', lines_read_);
            return end != std::string::npos || ended_;
        });
        if (end == std::string::npos) {
            return std::nullopt;
        }
        std::string line = output_text_.substr(lines_read_, end - lines_read_);
        lines_read_ = end + 1;
        return line;
    }

    std::string Output() {
        std::scoped_lock lock(mutex_);
        return output_text_;
    }
    std::string Errors() {
        std::scoped_lock lock(mutex_);
        return errors_text_;
    }

  private:
    void Read_() {
        std::vector<pollfd> fds{{output_, POLLIN, 0}};
        if (errors_ >= 0) {
            fds.push_back({errors_, POLLIN, 0});
        }
        int open = output_ >= 0 ? static_cast<int>(fds.size()) : 0;
        while (open > 0) {
            if (poll(fds.data(), fds.size(), 200) <= 0) {
                continue;
            }
            for (std::size_t i = 0; i < fds.size(); ++i) {
                if (fds[i].fd < 0 || fds[i].revents == 0) {
                    continue;
                }
                char bytes[4096];
                const auto count = read(fds[i].fd, bytes, sizeof bytes);
                if (count <= 0) {  // end of the pipe; EIO on a terminal nobody holds
                    fds[i].fd = -1;
                    --open;
                    continue;
                }
                std::scoped_lock lock(mutex_);
                (i == 0 ? output_text_ : errors_text_).append(bytes, count);
                grew_.notify_all();
            }
        }
        std::scoped_lock lock(mutex_);
        ended_ = true;
        grew_.notify_all();
    }

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
    std::optional<int> status_;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable grew_;
    std::string output_text_;
    std::string errors_text_;
    std::size_t lines_read_ = 0;
    bool ended_ = false;
};

}  // namespace test_support

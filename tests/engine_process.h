// The real engine binary as a child process, run the way a chess GUI runs it: command lines
// written one at a time, replies read line by line with a time limit. Sanitizer reports of
// the child go to the inherited standard error and show as a non-zero status in finish().
//
// QUORVANE_ENGINE, when set, replaces the binary built beside the tests by a command of
// words separated by spaces: "wine dist/quorvane-windows-x86-64.exe" drives a cross-built
// engine through its emulator. QUORVANE_TIME_SCALE stretches every time limit.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "test_util.h"

extern char** environ;

// Sanitized builds run several times slower; every time limit is stretched by this.
inline const int ENGINE_TIME_SCALE = [] {
    const char* scale = std::getenv("QUORVANE_TIME_SCALE");
    return (SANITIZED_BUILD ? 10 : 1) * std::max(1, scale ? std::atoi(scale) : 1);
}();

// The engine's command: QUORVANE_ENGINE split into words, or the binary built here. A first
// word without a '/' is looked up in PATH.
inline std::vector<std::string> engineCommand() {
    const char* custom = std::getenv("QUORVANE_ENGINE");
    return custom && *custom ? words(custom) : std::vector<std::string>{QUORVANE_BINARY};
}

// The WebAssembly console runs at most QUORVANE_WASM_THREADS search threads (its pool of
// workers is fixed at start-up); "setoption name Threads" beyond that echoes the value and
// notes the number it uses. Unset: an engine without a ceiling of its own.
inline std::vector<std::string> threadsOptionReply(int value) {
    const char* env = std::getenv("QUORVANE_WASM_THREADS");
    const int limit = env ? std::atoi(env) : 0;
    std::vector<std::string> reply = {"info string Number of threads set to : "
                                      + std::to_string(value)};
    if (limit > 0 && value > limit)
        reply.push_back("info string this build runs at most " + std::to_string(limit)
                        + " threads, using " + std::to_string(limit));
    return reply;
}

struct engineOptionsStruct {
    std::vector<std::string> args;  // command-line arguments (command-line mode)
    // Extra environment entries; the ceiling keeps large "Hash" values from taking the machine.
    std::vector<std::string> env = {"QUORVANE_HASH_LIMIT_MB=256"};
    std::string workDir;     // working directory of the child; empty: the test's own
    std::string stderrPath;  // file receiving the child's standard error; empty: inherited
};

class engineProcess {
public:
    static inline const int DEFAULT_TIMEOUT_MS = 10000 * ENGINE_TIME_SCALE;
    using clock = std::chrono::steady_clock;

    explicit engineProcess(const engineOptionsStruct& opts = {}) { start(opts); }
    engineProcess(const engineProcess&) = delete;
    ~engineProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        closeFd(toChild_);
        closeFd(fromChild_);
    }

    bool started() const { return pid_ > 0; }

    // Writes one command line (a newline is added). False when the child no longer reads.
    bool send(const std::string& line) { return sendRaw(line + "\n"); }
    bool sendRaw(const std::string& bytes) {
        size_t done = 0;
        while (toChild_ >= 0 && done < bytes.size()) {
            ssize_t n = ::write(toChild_, bytes.data() + done, bytes.size() - done);
            if (n <= 0 && errno != EINTR)
                return false;
            done += n > 0 ? size_t(n) : 0;
        }
        return done == bytes.size();
    }

    // The next output line without its newline; nullopt on timeout or end of output.
    std::optional<std::string> readLine(int timeoutMs = DEFAULT_TIMEOUT_MS) {
        const auto deadline = clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            size_t nl = pending_.find('\n');
            if (nl != std::string::npos || (eof_ && !pending_.empty())) {
                std::string line = pending_.substr(0, nl);
                pending_.erase(0, nl == std::string::npos ? nl : nl + 1);
                return line;
            }
            if (eof_ || !fill(deadline))
                return std::nullopt;
        }
    }

    // Lines up to and including the first one equal to `last`; nullopt when it never came.
    std::optional<std::vector<std::string>> readUntil(const std::string& last,
                                                      int timeoutMs = DEFAULT_TIMEOUT_MS) {
        const auto deadline = clock::now() + std::chrono::milliseconds(timeoutMs);
        std::vector<std::string> lines;
        while (auto line = readLine(int(std::max<long long>(msLeft(deadline), 0)))) {
            lines.push_back(*line);
            if (*line == last)
                return lines;
        }
        return std::nullopt;
    }

    // Sends `line` and "isready"; returns what came before the "readyok". For commands that
    // print "readyok" themselves ("ucinewgame") read with readUntil instead.
    std::optional<std::vector<std::string>> ask(const std::string& line,
                                                int timeoutMs = DEFAULT_TIMEOUT_MS) {
        if (!send(line) || !send("isready"))
            return std::nullopt;
        auto lines = readUntil("readyok", timeoutMs);
        if (lines)
            lines->pop_back();
        return lines;
    }

    // Closes the input (end of input: "quit"), keeps the remaining output in rest() and
    // waits for the exit. Returns the exit status, 128 + signal for a child killed by a
    // signal, or -1 when it did not end in time (it is then killed).
    int finish(int timeoutMs = DEFAULT_TIMEOUT_MS) {
        closeFd(toChild_);
        const auto deadline = clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!eof_ && fill(deadline)) {
        }
        rest_ += pending_;
        pending_.clear();
        for (int status = 0; pid_ > 0 && clock::now() < deadline;) {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return -1;  // the destructor kills it
    }

    // Output read by finish() after the last line taken with readLine().
    const std::string& rest() const { return rest_; }
    // Everything read from the child so far, for failure messages.
    const std::string& transcript() const { return transcript_; }

private:
    pid_t pid_ = -1;
    int toChild_ = -1, fromChild_ = -1;
    bool eof_ = false;
    std::string pending_, rest_, transcript_;

    static void closeFd(int& fd) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
    static long long msLeft(clock::time_point deadline) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now())
            .count();
    }

    void start(const engineOptionsStruct& opts) {
        ::signal(SIGPIPE, SIG_IGN);  // a dead child must not kill the test on the next write
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            return;
        // Built before fork: after it only async-signal-safe calls are allowed.
        std::vector<std::string> argStore = engineCommand(), envStore = opts.env;
        argStore.insert(argStore.end(), opts.args.begin(), opts.args.end());
        std::vector<char*> argv, envp;
        for (auto& a : argStore)
            argv.push_back(a.data());
        for (auto& e : envStore)
            envp.push_back(e.data());
        for (char** e = environ; *e; e++)
            envp.push_back(*e);
        argv.push_back(nullptr);
        envp.push_back(nullptr);
        const char* dir = opts.workDir.empty() ? nullptr : opts.workDir.c_str();
        const char* errPath = opts.stderrPath.empty() ? nullptr : opts.stderrPath.c_str();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            int fd = errPath ? ::open(errPath, O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
            if (fd >= 0)
                ::dup2(fd, 2);
            if (dir && ::chdir(dir) != 0)
                ::_exit(126);
            ::execvpe(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        toChild_ = in[1];
        fromChild_ = out[0];
    }

    // Waits until the deadline for output and appends it; false on timeout.
    bool fill(clock::time_point deadline) {
        pollfd p{fromChild_, POLLIN, 0};
        int r = fromChild_ < 0 ? 1 : ::poll(&p, 1, int(std::max<long long>(msLeft(deadline), 0)));
        if (r <= 0)
            return r < 0 && errno == EINTR;
        char buf[65536];
        ssize_t n = fromChild_ < 0 ? 0 : ::read(fromChild_, buf, sizeof buf);
        if (n <= 0 && !(n < 0 && errno == EINTR)) {
            eof_ = true;
            closeFd(fromChild_);
        }
        // A Windows binary ends its lines with "\r\n": the lines read are the same.
        size_t from = pending_.empty() ? 0 : pending_.size() - 1;
        pending_.append(buf, size_t(std::max<ssize_t>(n, 0)));
        for (size_t cr; (cr = pending_.find("\r\n", from)) != std::string::npos; from = cr)
            pending_.erase(cr, 1);
        transcript_.append(buf, size_t(std::max<ssize_t>(n, 0)));
        return true;
    }
};

#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace orvik::test {

namespace {

// This process's environment with the options' changes, as "NAME=value" entries.
std::vector<std::string> childEnvironment(const std::map<std::string, std::string>& changes) {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        environment[text.substr(0, equals)] =
            equals == std::string::npos ? "" : text.substr(equals + 1);
    }
    for (const auto& [name, value] : changes) {
        if (value.empty()) {
            environment.erase(name);
        } else {
            environment[name] = value;
        }
    }
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) {
        entries.push_back(name + "=" + value);
    }
    return entries;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (auto& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The two ends of the child's stdout: ours to read and the child's to write.
std::pair<int, int> outputChannel(bool terminal) {
    if (!terminal) {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        return {out[0], out[1]};
    }
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
        if (master >= 0) {
            ::close(master);
        }
        throw std::runtime_error("no pseudo-terminal");
    }
    const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) {
        ::close(master);
        throw std::runtime_error("cannot open the pseudo-terminal");
    }
    termios mode{};
    ::tcgetattr(slave, &mode);
    mode.c_oflag &= ~static_cast<tcflag_t>(OPOST);  // no "\r\n" for "\n"
    ::tcsetattr(slave, TCSANOW, &mode);
    return {master, slave};
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const Lines& arguments,
                           const ChildOptions& options)
    : timeoutMs_(options.outputTimeoutMs) {
    std::signal(SIGPIPE, SIG_IGN);  // a child that exits early must not kill the test
    int in[2];
    if (::pipe2(in, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::pair<int, int> out;
    try {
        out = outputChannel(options.terminal);
    } catch (...) {
        ::close(in[0]);
        ::close(in[1]);
        throw;
    }
    input_ = in[1];
    output_ = out.first;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out.second, 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorPath_.c_str(), O_WRONLY | O_CREAT, 0600);
    Lines argvText{program};
    argvText.insert(argvText.end(), arguments.begin(), arguments.end());
    auto envText = childEnvironment(options.environment);
    auto argv = pointersTo(argvText);
    auto envp = pointersTo(envText);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out.second);
    if (spawned != 0) {
        pid_ = -1;
        ::close(std::exchange(input_, -1));
        ::close(std::exchange(output_, -1));
        throw std::runtime_error("cannot start " + program);
    }
}

ChildProcess::~ChildProcess() {
    if (input_ >= 0) {
        ::close(input_);
    }
    if (output_ >= 0) {
        ::close(output_);
    }
    kill();
}

bool ChildProcess::send(const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(input_, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<std::string> ChildProcess::readLine(std::optional<int> timeoutMs) {
    char chunk[4096];
    for (;;) {
        if (const auto newline = buffer_.find('\n'); newline != std::string::npos) {
            std::string line = buffer_.substr(0, newline);
            buffer_.erase(0, newline + 1);
            return line;
        }
        if (outputEnded_) {
            return std::nullopt;
        }
        pollfd ready{output_, POLLIN, 0};
        const int polled = ::poll(&ready, 1, timeoutMs.value_or(timeoutMs_));
        if (polled < 0 && errno == EINTR) {
            continue;
        }
        if (polled <= 0) {
            return std::nullopt;  // nothing in time
        }
        const ssize_t n = ::read(output_, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            // End of output (a pseudo-terminal reports EIO once the child is gone).
            outputEnded_ = true;
            return std::nullopt;
        }
        buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

std::pair<Lines, int> ChildProcess::finish() {
    if (input_ >= 0) {
        ::close(std::exchange(input_, -1));
    }
    Lines lines;
    while (auto line = readLine()) {
        lines.push_back(*line);
    }
    if (!outputEnded_) {
        kill();  // stuck: its output neither ended nor moved in time
        return {lines, -1};
    }
    if (!buffer_.empty()) {
        lines.push_back(std::exchange(buffer_, {}));
    }
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return {lines, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

void ChildProcess::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(std::exchange(pid_, -1), nullptr, 0);
    }
}

std::string ChildProcess::errorOutput() const {
    std::stringstream bytes;
    bytes << std::ifstream(errorPath_, std::ios::binary).rdbuf();
    return bytes.str();
}

std::string ChildRun::text() const {
    std::string joined;
    for (const auto& line : lines) {
        joined += line + "\n";
    }
    return joined;
}

ChildRun runChild(const std::string& program, const Lines& arguments, const std::string& input,
                  const ChildOptions& options) {
    ChildProcess child(program, arguments, options);
    child.send(input);
    auto [lines, exitCode] = child.finish();
    return {exitCode, std::move(lines), child.errorOutput()};
}

}  // namespace orvik::test

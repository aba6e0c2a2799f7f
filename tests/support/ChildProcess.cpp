#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace orvik::test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& extraEnvironment) {
    std::signal(SIGPIPE, SIG_IGN);  // a child that exits early must not kill the test
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorPath_.c_str(), O_WRONLY | O_CREAT, 0600);
    std::vector<std::string> argvText{program};
    argvText.insert(argvText.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argvText) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) {
        envText.emplace_back(*e);
    }
    envText.insert(envText.end(), extraEnvironment.begin(), extraEnvironment.end());
    std::vector<char*> envp;
    for (auto& entry : envText) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
    if (spawned != 0) {
        pid_ = -1;
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

std::optional<std::string> ChildProcess::readLine(int timeoutMs) {
    char chunk[4096];
    for (;;) {
        if (const auto newline = buffer_.find('\n'); newline != std::string::npos) {
            std::string line = buffer_.substr(0, newline);
            buffer_.erase(0, newline + 1);
            return line;
        }
        pollfd ready{output_, POLLIN, 0};
        const ssize_t n =
            ::poll(&ready, 1, timeoutMs) > 0 ? ::read(output_, chunk, sizeof chunk) : 0;
        if (n <= 0) {
            return std::nullopt;
        }
        buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

std::pair<std::vector<std::string>, int> ChildProcess::finish() {
    if (input_ >= 0) {
        ::close(std::exchange(input_, -1));
    }
    std::vector<std::string> lines;
    while (auto line = readLine()) {
        lines.push_back(*line);
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

}  // namespace orvik::test

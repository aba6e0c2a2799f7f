#include "tests/support/CliRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "tests/support/TestSupport.h"

extern char** environ;

namespace orvik::test {

std::string CliRun::text() const {
    std::string joined;
    for (const auto& line : lines) {
        joined += line + "\n";
    }
    return joined;
}

CliRun runCli(const Lines& arguments, const CliOptions& options) {
    std::signal(SIGPIPE, SIG_IGN);  // a child that exits early must not kill the test
    TempDir errorDir;
    const auto errorPath = errorDir.path() / "stderr";

    int in[2];
    if (::pipe2(in, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    int outRead = -1;
    int outWrite = -1;
    if (options.terminal) {
        outRead = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (outRead < 0 || ::grantpt(outRead) != 0 || ::unlockpt(outRead) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        outWrite = ::open(::ptsname(outRead), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios mode{};
        ::tcgetattr(outWrite, &mode);
        mode.c_oflag &= ~static_cast<tcflag_t>(OPOST);  // no "\r\n" for "\n"
        ::tcsetattr(outWrite, TCSANOW, &mode);
    } else {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        outRead = out[0];
        outWrite = out[1];
    }

    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        environment[text.substr(0, equals)] = equals == text.npos ? "" : text.substr(equals + 1);
    }
    for (const auto& [name, value] : options.environment) {
        if (value.empty()) {
            environment.erase(name);
        } else {
            environment[name] = value;
        }
    }
    std::vector<std::string> envText;
    for (const auto& [name, value] : environment) {
        envText.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& entry : envText) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, outWrite, 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorPath.c_str(), O_WRONLY | O_CREAT, 0600);
    Lines argvText = arguments;
    argvText.insert(argvText.begin(), ORVIK_IDENTITY_BIN);
    std::vector<char*> argv;
    for (auto& argument : argvText) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(outWrite);
    if (spawned != 0) {
        ::close(in[1]);
        ::close(outRead);
        throw std::runtime_error("cannot start " + argvText[0]);
    }
    [[maybe_unused]] const ssize_t written =
        ::write(in[1], options.input.data(), options.input.size());
    ::close(in[1]);

    std::string output;
    char chunk[4096];
    for (;;) {
        pollfd ready{outRead, POLLIN, 0};
        if (::poll(&ready, 1, 60000) <= 0) {
            break;
        }
        const ssize_t n = ::read(outRead, chunk, sizeof chunk);
        if (n <= 0) {
            break;  // end of output (a pseudo-terminal reports EIO once the child is gone)
        }
        output.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(outRead);
    int status = 0;
    ::waitpid(pid, &status, 0);

    CliRun run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        run.lines.push_back(line);
    }
    std::stringstream errors;
    errors << std::ifstream(errorPath).rdbuf();
    run.errors = errors.str();
    return run;
}

}  // namespace orvik::test

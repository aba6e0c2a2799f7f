// A child process with its stdin and stdout on pipes and its stderr in a file, for
// tests that drive the built orvik-identity from the outside.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace orvik::test {

class ChildProcess {
  public:
    // Starts program with arguments (argv[0] is program); extraEnvironment entries
    // ("NAME=value") are added to this process's environment.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::vector<std::string>& extraEnvironment = {});
    // Kills the child with SIGKILL when it is still running.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Writes all of text; false when the child no longer reads.
    bool send(const std::string& text);
    // The next line of stdout; absent at the end of output or after timeoutMs
    // without one.
    std::optional<std::string> readLine(int timeoutMs = 60000);
    // Closes stdin, reads the rest of stdout and waits: the lines and the exit
    // status (-1 when killed by a signal).
    std::pair<std::vector<std::string>, int> finish();
    // SIGKILL and wait.
    void kill();

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    [[nodiscard]] std::string errorOutput() const;

  private:
    TempDir errorDir_;
    std::filesystem::path errorPath_ = errorDir_.path() / "stderr";
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string buffer_;
};

}  // namespace orvik::test

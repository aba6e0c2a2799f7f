// Child processes for tests that drive the built programs from the outside: a
// running child with its stdin on a pipe, its stdout on a pipe or a
// pseudo-terminal and its stderr in a file, and a run to completion on top of it.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace orvik::test {

using Lines = std::vector<std::string>;

struct ChildOptions {
    // Set in (or, with an empty value, removed from) the child's environment; the
    // rest of this process's environment is passed on.
    std::map<std::string, std::string> environment;
    // Standard output on a pseudo-terminal instead of a pipe, as a person's
    // terminal would be.
    bool terminal = false;
    // How long a read waits for output before the child counts as stuck.
    int outputTimeoutMs = 60000;
};

class ChildProcess {
  public:
    // Starts program with arguments (argv[0] is program). Throws when it cannot.
    ChildProcess(const std::string& program, const Lines& arguments,
                 const ChildOptions& options = {});
    // Kills the child with SIGKILL when it is still running.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Writes all of text to stdin; false when the child no longer reads.
    bool send(const std::string& text);
    // The next line of stdout; absent at the end of output or after timeoutMs
    // (default: the options' outputTimeoutMs) without one.
    std::optional<std::string> readLine(std::optional<int> timeoutMs = std::nullopt);
    // Closes stdin, reads the rest of stdout (a last line without a newline
    // included) and waits: the lines and the exit status (-1 when killed by a
    // signal). A child whose output stalls past the timeout is killed.
    std::pair<Lines, int> finish();
    // SIGKILL and wait.
    void kill();

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    // Everything the child wrote to stderr so far.
    [[nodiscard]] std::string errorOutput() const;

  private:
    TempDir errorDir_;
    std::filesystem::path errorPath_ = errorDir_.path() / "stderr";
    int timeoutMs_;
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string buffer_;
    bool outputEnded_ = false;
};

// A child run to completion.
struct ChildRun {
    int exitCode = -1;
    Lines lines;
    std::string errors;

    // The lines, each ending in "\n".
    [[nodiscard]] std::string text() const;
};

// Runs program with arguments, feeds it input on stdin and waits for it to end.
ChildRun runChild(const std::string& program, const Lines& arguments, const std::string& input = {},
                  const ChildOptions& options = {});

}  // namespace orvik::test

// Runs the built orvik-identity as a child process: arguments, environment,
// standard input, and its standard output either on a pipe or on a terminal (a
// pseudo-terminal), as a person would see it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace orvik::test {

using Lines = std::vector<std::string>;

struct CliRun {
    int exitCode = -1;
    Lines lines;
    std::string errors;

    [[nodiscard]] std::string text() const;
};

struct CliOptions {
    // Set in (or, with an empty value, removed from) the child's environment.
    std::map<std::string, std::string> environment;
    std::string input;
    // Standard output on a pseudo-terminal instead of a pipe.
    bool terminal = false;
};

// Runs ORVIK_IDENTITY_BIN (given by the build) to completion.
CliRun runCli(const Lines& arguments, const CliOptions& options = {});

}  // namespace orvik::test

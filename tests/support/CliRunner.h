// Runs the built orvik-identity (ORVIK_IDENTITY_BIN, given to the test by the
// build) as a child process to completion, as a person or a script would.
#pragma once

#include <string>

#include "tests/support/ChildProcess.h"

namespace orvik::test {

inline ChildRun runCli(const Lines& arguments, const std::string& input = {},
                       const ChildOptions& options = {}) {
    return runChild(ORVIK_IDENTITY_BIN, arguments, input, options);
}

}  // namespace orvik::test

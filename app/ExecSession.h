// The JSON-lines automation session behind `orvik-identity exec`.
//
// One session owns one IdentityRepository over the pool it is given. Each request
// line names an operation and its arguments; each answer is one JSON line:
//
//     {"id": <echoed>, "ok": <result>, "witness": [<events>]}
//     {"id": <echoed>, "error": {"case": ..., "message": ...}, "witness": []}
//
// A request that cannot be understood is answered with case "badRequest" and
// touches nothing; a database error carries case "database" and the SQLite
// extended result code as "code". The witness lists the events the operation
// passed to the repository's sink; they also go to the system log sink given.
#pragma once

#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "codec/RecordCodec.h"
#include "identity/IdentityCorrectionWitness.h"
#include "identity/IdentityRepository.h"
#include "store/Database.h"

namespace orvik::app {

using codec::Json;

class ExecSession {
  public:
    // Builds the repository over pool with the reference host services. Every
    // committed correction is also passed to systemLog (when set), normally
    // IdentityCorrectionWitness::systemLogSink of the store.
    ExecSession(std::shared_ptr<store::DatabasePool> pool,
                identity::IdentityCorrectionWitness::Sink systemLog);
    ~ExecSession();
    ExecSession(const ExecSession&) = delete;
    ExecSession& operator=(const ExecSession&) = delete;

    // The answer to one request line, as one line of compact JSON without the
    // newline. Never throws for anything the request or the store does.
    [[nodiscard]] std::string answer(std::string_view line);

    // Answers every non-blank line of in on out, flushing after each answer, until
    // the end of in. False when writing to out failed.
    bool run(std::istream& in, std::ostream& out);

    // The operations this build answers, in table order.
    [[nodiscard]] static std::vector<std::string_view> availableOperations();

  private:
    // The events the repository emitted during the current request. The sink may
    // be called from any thread, hence the lock.
    struct WitnessLog {
        std::mutex mutex;
        std::vector<identity::IdentityCorrectionWitness::Event> events;
    };

    [[nodiscard]] std::vector<identity::IdentityCorrectionWitness::Event> takeWitness();

    std::shared_ptr<WitnessLog> witness_;
    identity::IdentityRepository repository_;
};

}  // namespace orvik::app

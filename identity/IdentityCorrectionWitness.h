// The record of one committed correction, and the default sink that writes it as
// one line to the system log.
//
// The repository calls its sink exactly once per committed correction, after the
// commit and before the operation returns; failed corrections, reads, and the
// programmatic link and merge operations call none.
//
// The sink runs on the thread of the correction while the repository's turn is
// still held: a sink that calls back into the same repository waits for itself
// forever. It must return quickly and may be called from any thread. Whatever a
// sink throws is caught and dropped by the repository: the correction is committed
// by then, and the operation returns its result as if the sink had returned.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace orvik::identity {

class IdentityCorrectionWitness {
  public:
    IdentityCorrectionWitness() = delete;

    // The log subsystem (the application's reverse-DNS identifier) and category.
    static constexpr std::string_view subsystem = "app.orvik.desktop";
    static constexpr std::string_view category = "identity-corrections";

    enum class Kind {
        confirmManualLink,
        batchConfirmManualLink,
        confirmCandidate,
        rejectCandidate,
        separateIdentity,
        undoConfirmation,
        markDifferent,
        declareOwnerAlias,
        undoOwnerAlias,
    };

    // "confirm-manual-link", "mark-different", ...
    [[nodiscard]] static std::string_view rawValue(Kind kind) noexcept;
    // The kind with that exact text; none for any other text.
    [[nodiscard]] static std::optional<Kind> kindFromRawValue(std::string_view text) noexcept;

    struct Event {
        Kind kind = Kind::confirmCandidate;
        std::int64_t identityCount = 0;
        std::int64_t mergeEventCount = 0;
        std::int64_t absorbedPersonCount = 0;
        std::int64_t restoredPersonCount = 0;
        std::int64_t restoredMembershipCount = 0;
        std::optional<std::string> operationID;

        bool operator==(const Event&) const = default;
    };

    // Must be callable from any thread.
    using Sink = std::function<void(const Event&)>;

    // The default sink: writes message(event) at the info level to the system log
    // under subsystem and category: to the journal where one runs (with the fields
    // ORVIK_SUBSYSTEM and ORVIK_CATEGORY beside MESSAGE), else through syslog(3).
    // Builds the line only when the process's log mask keeps the info level. Never
    // throws; a log that cannot be reached loses the line.
    static void unifiedLogSink(const Event& event) noexcept;

    // The default sink for the repository over one store: the same line, and in
    // the journal the field ORVIK_STORE=store (a path or any label that tells the
    // stores of one machine apart), so that `journalctl ORVIK_STORE=...` shows the
    // corrections of that store alone.
    [[nodiscard]] static Sink systemLogSink(std::string store);

    // A sink that drops every event: for sample data and tools whose corrections
    // are not the user's and must not reach the system log.
    static void discardingSink(const Event& event) noexcept;

    // The log line of an event:
    // "identity correction committed kind=<kind> identities=<n> merge_events=<n>
    //  absorbed_persons=<n> merged_into_present=<true|false> restored_persons=<n>
    //  restored_memberships=<n> operation=<id or ->" (one line, single spaces).
    [[nodiscard]] static std::string message(const Event& event);
};

}  // namespace orvik::identity

// The record of one committed correction, and the default sink that writes it as
// one line to the system log.
//
// The repository calls its sink exactly once per committed correction, after the
// commit and before the operation returns; failed corrections, reads, and the
// programmatic link and merge operations call none.
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
    // under subsystem and category. Builds the line only when the log keeps info
    // messages. Never throws.
    static void unifiedLogSink(const Event& event) noexcept;

    // The log line of an event:
    // "identity correction committed kind=<kind> identities=<n> merge_events=<n>
    //  absorbed_persons=<n> merged_into_present=<true|false> restored_persons=<n>
    //  restored_memberships=<n> operation=<id or ->" (one line, single spaces).
    [[nodiscard]] static std::string message(const Event& event);
};

}  // namespace orvik::identity

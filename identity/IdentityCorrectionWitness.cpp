#include "identity/IdentityCorrectionWitness.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <array>
#include <utility>

namespace orvik::identity {

namespace {

constexpr std::array<std::pair<IdentityCorrectionWitness::Kind, std::string_view>, 9> kKinds{{
    {IdentityCorrectionWitness::Kind::confirmManualLink, "confirm-manual-link"},
    {IdentityCorrectionWitness::Kind::batchConfirmManualLink, "batch-confirm-manual-link"},
    {IdentityCorrectionWitness::Kind::confirmCandidate, "confirm-candidate"},
    {IdentityCorrectionWitness::Kind::rejectCandidate, "reject-candidate"},
    {IdentityCorrectionWitness::Kind::separateIdentity, "separate-identity"},
    {IdentityCorrectionWitness::Kind::undoConfirmation, "undo-confirmation"},
    {IdentityCorrectionWitness::Kind::markDifferent, "mark-different"},
    {IdentityCorrectionWitness::Kind::declareOwnerAlias, "declare-owner-alias"},
    {IdentityCorrectionWitness::Kind::undoOwnerAlias, "undo-owner-alias"},
}};

// Writes one info line to the system log under the subsystem and category: to the
// journal with the subsystem, the category and the store as fields of their own,
// or, where no journal runs, through syslog(3) with the exact line.
void writeInfoLine(const std::string& line, const std::string* store) noexcept {
    // setlogmask(0) reads the process's mask without changing it; a process that
    // masked out the info level logs nothing.
    if ((setlogmask(0) & LOG_MASK(LOG_INFO)) == 0) {
        return;
    }
    const std::string subsystem(IdentityCorrectionWitness::subsystem);
    const std::string category(IdentityCorrectionWitness::category);
    const int sent =
        store != nullptr
            ? sd_journal_send("MESSAGE=%s", line.c_str(), "PRIORITY=%d", LOG_INFO,
                              "SYSLOG_IDENTIFIER=%s", subsystem.c_str(), "ORVIK_SUBSYSTEM=%s",
                              subsystem.c_str(), "ORVIK_CATEGORY=%s", category.c_str(),
                              "ORVIK_STORE=%s", store->c_str(), nullptr)
            : sd_journal_send("MESSAGE=%s", line.c_str(), "PRIORITY=%d", LOG_INFO,
                              "SYSLOG_IDENTIFIER=%s", subsystem.c_str(), "ORVIK_SUBSYSTEM=%s",
                              subsystem.c_str(), "ORVIK_CATEGORY=%s", category.c_str(), nullptr);
    if (sent < 0) {
        // No journal here. syslog(3) opens its socket lazily and drops the line
        // when nothing listens.
        syslog(LOG_USER | LOG_INFO, "%s", line.c_str());
    }
}

}  // namespace

std::string_view IdentityCorrectionWitness::rawValue(Kind kind) noexcept {
    for (const auto& [candidate, raw] : kKinds) {
        if (candidate == kind) {
            return raw;
        }
    }
    return {};
}

std::optional<IdentityCorrectionWitness::Kind> IdentityCorrectionWitness::kindFromRawValue(
    std::string_view text) noexcept {
    for (const auto& [kind, raw] : kKinds) {
        if (raw == text) {
            return kind;
        }
    }
    return std::nullopt;
}

std::string IdentityCorrectionWitness::message(const Event& event) {
    std::string line = "identity correction committed kind=";
    line += rawValue(event.kind);
    line += " identities=" + std::to_string(event.identityCount);
    line += " merge_events=" + std::to_string(event.mergeEventCount);
    line += " absorbed_persons=" + std::to_string(event.absorbedPersonCount);
    line += " merged_into_present=";
    line += event.absorbedPersonCount > 0 ? "true" : "false";
    line += " restored_persons=" + std::to_string(event.restoredPersonCount);
    line += " restored_memberships=" + std::to_string(event.restoredMembershipCount);
    line += " operation=";
    line += event.operationID && !event.operationID->empty() ? *event.operationID : "-";
    return line;
}

void IdentityCorrectionWitness::unifiedLogSink(const Event& event) noexcept {
    try {
        writeInfoLine(message(event), nullptr);
    } catch (...) {
        // Out of memory while building the line: the event is not logged.
    }
}

IdentityCorrectionWitness::Sink IdentityCorrectionWitness::systemLogSink(std::string store) {
    return [store = std::move(store)](const Event& event) noexcept {
        try {
            writeInfoLine(message(event), &store);
        } catch (...) {
            // As above: a line that cannot be built is not logged.
        }
    };
}

void IdentityCorrectionWitness::discardingSink(const Event& /*event*/) noexcept {}

}  // namespace orvik::identity

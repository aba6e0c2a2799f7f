#include "identity/IdentityModels.h"

#include <array>
#include <utility>

#include "host/HostServices.h"

namespace orvik::identity {

namespace {

template <typename E, std::size_t N>
std::optional<E> parseExact(std::string_view text,
                            const std::array<std::pair<E, std::string_view>, N>& table) {
    for (const auto& [value, raw] : table) {
        if (raw == text) {
            return value;
        }
    }
    return std::nullopt;
}

template <typename E, std::size_t N>
std::string_view rawOf(E value, const std::array<std::pair<E, std::string_view>, N>& table) {
    for (const auto& [candidate, raw] : table) {
        if (candidate == value) {
            return raw;
        }
    }
    return {};
}

constexpr std::array<std::pair<MembershipState, std::string_view>, 3> kStates{{
    {MembershipState::possible, "possible"},
    {MembershipState::highConf, "high_conf"},
    {MembershipState::confirmed, "confirmed"},
}};

constexpr std::array<std::pair<DecidedBy, std::string_view>, 3> kDecidedBy{{
    {DecidedBy::automatic, "auto"},
    {DecidedBy::user, "user"},
    {DecidedBy::agentAndUser, "agent+user"},
}};

constexpr std::array<std::pair<ConstraintSubjectType, std::string_view>, 2> kSubjectTypes{{
    {ConstraintSubjectType::person, "person"},
    {ConstraintSubjectType::identity, "identity"},
}};

constexpr std::array<std::pair<ConstraintKind, std::string_view>, 2> kKinds{{
    {ConstraintKind::same, "same"},
    {ConstraintKind::different, "different"},
}};

constexpr std::array<std::pair<IdentityHistoryEntry::Kind, std::string_view>, 3> kHistoryKinds{{
    {IdentityHistoryEntry::Kind::merged, "merged"},
    {IdentityHistoryEntry::Kind::linked, "linked"},
    {IdentityHistoryEntry::Kind::separated, "separated"},
}};

constexpr std::array<std::string_view, 12> kCaseNames{
    "notFound",
    "invalidArgs",
    "excluded",
    "invalidKeyLength",
    "cannotOpenStore",
    "alreadyReversed",
    "corruptRestoreMap",
    "supersededByLaterCorrection",
    "ownerIdentityUnmergeable",
    "restoreSnapshotIncomplete",
    "cannotSeparateSoleIdentity",
    "blockedDifferent",
};

}  // namespace

std::string_view rawValue(MembershipState value) noexcept {
    return rawOf(value, kStates);
}
std::string_view rawValue(DecidedBy value) noexcept {
    return rawOf(value, kDecidedBy);
}
std::string_view rawValue(ConstraintSubjectType value) noexcept {
    return rawOf(value, kSubjectTypes);
}
std::string_view rawValue(ConstraintKind value) noexcept {
    return rawOf(value, kKinds);
}

std::string_view rawValue(IdentityHistoryEntry::Kind kind) noexcept {
    return rawOf(kind, kHistoryKinds);
}
std::optional<IdentityHistoryEntry::Kind> parseHistoryKind(std::string_view text) noexcept {
    return parseExact(text, kHistoryKinds);
}

std::optional<MembershipState> parseMembershipState(std::string_view text) noexcept {
    return parseExact(text, kStates);
}
std::optional<DecidedBy> parseDecidedBy(std::string_view text) noexcept {
    return parseExact(text, kDecidedBy);
}
std::optional<ConstraintSubjectType> parseConstraintSubjectType(std::string_view text) noexcept {
    return parseExact(text, kSubjectTypes);
}
std::optional<ConstraintKind> parseConstraintKind(std::string_view text) noexcept {
    return parseExact(text, kKinds);
}

std::string_view caseName(IdentityStoreError::Case c) noexcept {
    return kCaseNames[static_cast<std::size_t>(c)];
}

IdentityStoreError::IdentityStoreError(Case c) : case_(c), what_(caseName(c)) {}

IdentityStoreError::IdentityStoreError(Case c, std::string message)
    : case_(c), message_(std::move(message)) {
    what_ = std::string(caseName(c)) + ": " + *message_;
}

IdentityStoreError correctionRefusal(std::string_view operation,
                                     const std::optional<std::string>& state,
                                     std::optional<Taxonomy> taxonomy,
                                     const std::optional<std::string>& message) {
    if (state == "blocked_different") {
        return IdentityStoreError(IdentityStoreError::Case::blockedDifferent);
    }
    if (taxonomy == Taxonomy::excluded && message) {
        return IdentityStoreError::excluded(*message);
    }
    if (taxonomy == Taxonomy::notFound && message) {
        return IdentityStoreError::notFound(*message);
    }
    return IdentityStoreError::invalidArgs(std::string(operation) +
                                           " failed: " + state.value_or("error"));
}

std::string newIdentifier() {
    return host::newUUID();
}

std::string currentTimestamp() {
    return host::nowTimestamp();
}

}  // namespace orvik::identity

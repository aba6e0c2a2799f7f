#include <gtest/gtest.h>

#include <regex>

#include "identity/IdentityCorrectionWitness.h"
#include "identity/IdentityModels.h"

namespace orvik::identity {
namespace {

using Case = IdentityStoreError::Case;

TEST(Enumerations, ParseExactlyTheStoredTextsAndNothingElse) {
    for (auto state :
         {MembershipState::possible, MembershipState::highConf, MembershipState::confirmed}) {
        EXPECT_EQ(parseMembershipState(rawValue(state)), state);
    }
    for (auto by : {DecidedBy::automatic, DecidedBy::user, DecidedBy::agentAndUser}) {
        EXPECT_EQ(parseDecidedBy(rawValue(by)), by);
    }
    EXPECT_EQ(rawValue(MembershipState::highConf), "high_conf");
    EXPECT_EQ(rawValue(DecidedBy::automatic), "auto");
    EXPECT_EQ(rawValue(DecidedBy::agentAndUser), "agent+user");

    for (const char* wrong :
         {"Confirmed", "CONFIRMED", "high-conf", "highConf", " confirmed", ""}) {
        EXPECT_FALSE(parseMembershipState(wrong)) << wrong;
    }
    for (const char* wrong : {"Auto", "agent + user", "agentAndUser", "automatic"}) {
        EXPECT_FALSE(parseDecidedBy(wrong)) << wrong;
    }
    EXPECT_EQ(parseConstraintSubjectType("identity"), ConstraintSubjectType::identity);
    EXPECT_FALSE(parseConstraintSubjectType("source_identity"));
    EXPECT_EQ(parseConstraintKind("different"), ConstraintKind::different);
    EXPECT_FALSE(parseConstraintKind("Different"));
}

TEST(CorrectionRefusal, FirstMatchingRuleWins) {
    struct Row {
        const char* operation;
        std::optional<std::string> state;
        std::optional<Taxonomy> taxonomy;
        std::optional<std::string> message;
        IdentityStoreError expected;
    };
    const std::vector<Row> rows{
        // blocked_different wins over any classification and message.
        {"confirm", "blocked_different", Taxonomy::notFound, "gone",
         IdentityStoreError(Case::blockedDifferent)},
        {"confirm", "error", Taxonomy::excluded, "owner alias",
         IdentityStoreError::excluded("owner alias")},
        {"separate", "error", Taxonomy::notFound, "person not found or absorbed",
         IdentityStoreError::notFound("person not found or absorbed")},
        // Classification without a message falls through.
        {"confirm", "error", Taxonomy::notFound, std::nullopt,
         IdentityStoreError::invalidArgs("confirm failed: error")},
        {"reject", "error", Taxonomy::excluded, std::nullopt,
         IdentityStoreError::invalidArgs("reject failed: error")},
        // Invalid-arguments classification keeps the state, not the message.
        {"confirm", "error", Taxonomy::invalidArguments, "post-condition failed",
         IdentityStoreError::invalidArgs("confirm failed: error")},
        {"confirm", "below_threshold_question", Taxonomy::unspecified, std::nullopt,
         IdentityStoreError::invalidArgs("confirm failed: below_threshold_question")},
        {"link", std::nullopt, std::nullopt, std::nullopt,
         IdentityStoreError::invalidArgs("link failed: error")},
    };
    for (const auto& row : rows) {
        const auto got = correctionRefusal(row.operation, row.state, row.taxonomy, row.message);
        EXPECT_EQ(got, row.expected) << got.what() << " vs " << row.expected.what();
    }
}

TEST(IdentityStoreError, CasesCarryTheirNamesAndMessages) {
    EXPECT_EQ(caseName(Case::supersededByLaterCorrection), "supersededByLaterCorrection");
    EXPECT_EQ(caseName(Case::blockedDifferent), "blockedDifferent");
    EXPECT_STREQ(IdentityStoreError(Case::alreadyReversed).what(), "alreadyReversed");
    const auto error = IdentityStoreError::notFound("source identity not found");
    EXPECT_EQ(error.errorCase(), Case::notFound);
    EXPECT_EQ(error.message(), "source identity not found");
    EXPECT_FALSE(IdentityStoreError(Case::corruptRestoreMap).message());
}

TEST(IdentifiersAndTimestamps, HaveTheirCanonicalShapes) {
    const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    const auto a = newIdentifier();
    EXPECT_TRUE(std::regex_match(a, uuid)) << a;
    EXPECT_NE(a, newIdentifier());
    const auto now = currentTimestamp();
    EXPECT_TRUE(std::regex_match(now, std::regex(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z)")))
        << now;
}

using Witness = IdentityCorrectionWitness;

TEST(Witness, LineCarriesEveryFieldInOrder) {
    Witness::Event event{.kind = Witness::Kind::confirmCandidate,
                         .identityCount = 2,
                         .mergeEventCount = 1,
                         .absorbedPersonCount = 1,
                         .operationID = "6f0c2a9e-1b7d-4c3a-9e55-0d2b8c7a4f10"};
    EXPECT_EQ(Witness::message(event),
              "identity correction committed kind=confirm-candidate identities=2 merge_events=1 "
              "absorbed_persons=1 merged_into_present=true restored_persons=0 "
              "restored_memberships=0 operation=6f0c2a9e-1b7d-4c3a-9e55-0d2b8c7a4f10");

    // Absent and empty operations both print "-"; a negative count is not "present".
    Witness::Event undo{.kind = Witness::Kind::undoConfirmation,
                        .identityCount = 3,
                        .mergeEventCount = 2,
                        .absorbedPersonCount = -1,
                        .restoredPersonCount = 1,
                        .restoredMembershipCount = 4,
                        .operationID = std::nullopt};
    const std::string expected =
        "identity correction committed kind=undo-confirmation identities=3 merge_events=2 "
        "absorbed_persons=-1 merged_into_present=false restored_persons=1 "
        "restored_memberships=4 operation=-";
    EXPECT_EQ(Witness::message(undo), expected);
    undo.operationID = "";
    EXPECT_EQ(Witness::message(undo), expected);
    // Equality distinguishes an empty identifier from an absent one.
    Witness::Event absent = undo;
    absent.operationID.reset();
    EXPECT_NE(undo, absent);

    // The default sink never throws, with or without a system log to write to.
    Witness::unifiedLogSink(event);
}

TEST(Witness, KindsRoundTripThroughTheirTextsOnly) {
    for (auto kind : {Witness::Kind::confirmManualLink, Witness::Kind::batchConfirmManualLink,
                      Witness::Kind::confirmCandidate, Witness::Kind::rejectCandidate,
                      Witness::Kind::separateIdentity, Witness::Kind::undoConfirmation,
                      Witness::Kind::markDifferent, Witness::Kind::declareOwnerAlias,
                      Witness::Kind::undoOwnerAlias}) {
        EXPECT_EQ(Witness::kindFromRawValue(Witness::rawValue(kind)), kind);
    }
    EXPECT_EQ(Witness::kindFromRawValue("mark-different"), Witness::Kind::markDifferent);
    EXPECT_FALSE(Witness::kindFromRawValue("mark_different"));
    EXPECT_FALSE(Witness::kindFromRawValue("Mark-Different"));
}

}  // namespace
}  // namespace orvik::identity

// The view-models against a fake repository whose calls complete when the test
// says so: overlapping loads, undo offers shared between screens, and the error
// rules of both controllers.
#include <memory>
#include <string>
#include <vector>

#include <QCoreApplication>

#include <gtest/gtest.h>

#include "tests/ui/FakeRepository.h"
#include "ui/IdentityCorrectionController.h"
#include "ui/IdentityHistoryController.h"

namespace orvik::test {
namespace {

using identity::IdentityStoreError;
using ui::IdentityCorrectionController;

id::SourceIdentityRow row(const std::string& id) {
    id::SourceIdentityRow r;
    r.id = id;
    r.sourceType = "gmail";
    r.handleNormalized = id + "@example.com";
    return r;
}

id::IdentityCandidate candidate(const std::string& a, const std::string& b) {
    return id::IdentityCandidate{row(a), row(b), std::nullopt, 0.9, "same_email"};
}

std::vector<std::string> ids(const std::vector<id::SourceIdentityRow>& rows) {
    std::vector<std::string> out;
    for (const auto& r : rows) {
        out.push_back(r.id);
    }
    return out;
}

std::vector<std::string> ids(const std::vector<id::IdentityCandidate>& candidates) {
    std::vector<std::string> out;
    for (const auto& c : candidates) {
        out.push_back(c.id());
    }
    return out;
}

std::exception_ptr storeError(IdentityStoreError error) {
    return std::make_exception_ptr(std::move(error));
}

class Controllers : public ::testing::Test {
  protected:
    Controllers() {
        controller.setRepository(fake);
        controller.setSubjectID("subject");
    }

    // A scope of one person with the given anchors, loaded at once.
    void scopeTo(const std::string& personID, std::vector<std::string> anchors) {
        fake->answer = [anchors, personID](const std::string& op,
                                           const std::vector<std::string>& args) -> std::any {
            if (op == "activeMemberships") {
                std::vector<id::IdentityMembershipRow> memberships;
                for (const auto& a : anchors) {
                    id::IdentityMembershipRow m;
                    m.sourceIdentityID = a;
                    memberships.push_back(m);
                }
                return memberships;
            }
            if (op == "sourceIdentity") {
                return std::optional(row(args[0]));
            }
            if (op == "person") {
                id::PersonRow p;
                p.id = args[0];
                return std::optional(p);
            }
            return {};
        };
        QCoro::waitFor(controller.loadScopedToPersonAsync(personID, "Ana"));
    }

    std::shared_ptr<FakeRepository> fake = std::make_shared<FakeRepository>();
    IdentityCorrectionController controller;
};

TEST_F(Controllers, OnlyTheLatestSearchIsPublished) {
    fake->hold = {"searchSourceIdentities"};
    auto first = controller.manualSearchAsync("a");
    auto second = controller.manualSearchAsync("ab");
    fake->release("searchSourceIdentities", std::vector{row("ab-1")}, 1);
    fake->release("searchSourceIdentities", std::vector{row("a-1"), row("a-2")});
    QCoro::waitFor(second);
    QCoro::waitFor(first);
    EXPECT_EQ(ids(controller.manualSearchResults()), std::vector<std::string>{"ab-1"});
    // Only the current search went on to its contexts.
    EXPECT_EQ(std::count(fake->log.begin(), fake->log.end(), "candidateContext(ab-1,)"), 1);
    EXPECT_EQ(std::count(fake->log.begin(), fake->log.end(), "candidateContext(a-1,)"), 0);
}

TEST_F(Controllers, ScopeLoadDuringSearchMakesItStaleAndSearchesAgainWithItsExclusions) {
    fake->hold = {"searchSourceIdentities"};
    auto search = controller.manualSearchAsync("ana");
    fake->hold.clear();
    scopeTo("p-ana", {"si-1"});
    // The scope load re-ran the last query with the anchors excluded.
    EXPECT_NE(std::find(fake->log.begin(), fake->log.end(), "searchSourceIdentities(ana,50,si-1)"),
              fake->log.end());
    EXPECT_NE(std::find(fake->log.begin(), fake->log.end(), "searchUserStatedPeople(ana,50,p-ana)"),
              fake->log.end());
    const auto fresh = controller.manualSearchResults();
    fake->release("searchSourceIdentities", std::vector{row("stale")});
    QCoro::waitFor(search);
    EXPECT_EQ(controller.manualSearchResults(), fresh);
    EXPECT_EQ(ids(controller.scopedPersonAnchor()), std::vector<std::string>{"si-1"});
}

TEST_F(Controllers, FailedScopeLoadKeepsThePreviousAnchorsAndMarksTheScopeNotLive) {
    scopeTo("p-ana", {"si-1"});
    ASSERT_TRUE(controller.scopedPersonIsLive());
    fake->hold = {"activeMemberships"};
    auto load = controller.loadScopedToPersonAsync("p-bo", "Bo");
    fake->fail("activeMemberships", storeError(IdentityStoreError::notFound("person not found")));
    QCoro::waitFor(load);
    EXPECT_EQ(controller.scopedPersonID(), "p-bo");
    EXPECT_FALSE(controller.scopedPersonIsLive());
    EXPECT_EQ(ids(controller.scopedPersonAnchor()), std::vector<std::string>{"si-1"});
    EXPECT_EQ(controller.lastError(), "notFound(\"person not found\")");
    EXPECT_EQ(controller.lastErrorCopy(),
              "This person or identity changed since you opened it. Reopen it and try again.");
}

TEST_F(Controllers, ProposerAnswersArePublishedUnlessTheyNameAnIdentityTwice) {
    QCoro::waitFor(controller.suggestCandidatesAsync());  // no proposer: nothing happens
    EXPECT_FALSE(controller.candidateSuggestionsNoMatch());

    int calls = 0;
    id::IdentityCandidateSuggestionResult answer;
    controller.setCandidateProposer([&](std::string, std::vector<id::IdentityCandidateContext>)
                                        -> QCoro::Task<id::IdentityCandidateSuggestionResult> {
        ++calls;
        co_return answer;
    });
    QCoro::waitFor(controller.suggestCandidatesAsync());
    EXPECT_TRUE(controller.candidateSuggestionsNoMatch());  // no contexts: proposer not asked
    EXPECT_EQ(calls, 0);

    fake->answer = [](const std::string& op, const std::vector<std::string>& args) -> std::any {
        if (op == "searchSourceIdentities") {
            return std::vector{row("si-1"), row("si-2")};
        }
        if (op == "candidateContext") {
            return std::optional(
                id::IdentityCandidateContext{args[0], "gmail", {}, 1, "", 0, false});
        }
        return {};
    };
    QCoro::waitFor(controller.manualSearchAsync("x"));
    ASSERT_EQ(controller.candidateContexts().size(), 2u);
    answer = id::IdentityCandidateSuggestionResult::proposed(
        {{"si-1", 0.9, "same name"}, {"si-2", 0.4, "same domain"}});
    QCoro::waitFor(controller.suggestCandidatesAsync());
    EXPECT_EQ(controller.candidateProposals().size(), 2u);
    answer = id::IdentityCandidateSuggestionResult::proposed(
        {{"si-1", 0.9, "same name"}, {"si-1", 0.4, "again"}});
    QCoro::waitFor(controller.suggestCandidatesAsync());
    EXPECT_TRUE(controller.candidateProposals().empty());
    EXPECT_TRUE(controller.candidateSuggestionsUnavailable());
    EXPECT_FALSE(controller.candidateSuggestionsNoMatch());
}

TEST_F(Controllers, ManualLinkThatAbsorbsTheScopedPersonFollowsItAndUndoGoesBack) {
    scopeTo("p-ana", {"si-1"});
    auto scopeAnswer = fake->answer;
    fake->answer = [scopeAnswer](const std::string& op,
                                 const std::vector<std::string>& args) -> std::any {
        if (op == "confirmManualLinkTargets") {
            return id::IdentityConfirmResult{"p-bo", {"e-1"}};
        }
        if (op == "person" && args[0] == "p-ana") {
            id::PersonRow p;
            p.id = "p-ana";
            p.mergedIntoPersonID = "p-bo";
            return std::optional(p);
        }
        return scopeAnswer(op, args);
    };
    QCoro::waitFor(controller.confirmManualLinkAsync(
        {id::ManualLinkTarget::identity(row("si-1")), id::ManualLinkTarget::person("p-bo")}));
    EXPECT_EQ(controller.scopedPersonID(), "p-bo");
    EXPECT_EQ(controller.scopedPersonDisplayName(), "Ana");
    ASSERT_TRUE(controller.scopeBeforeAbsorbingLink());
    EXPECT_EQ(controller.scopeBeforeAbsorbingLink()->first, "p-ana");
    ASSERT_NE(controller.lastConfirmation(), nullptr);
    EXPECT_EQ(controller.lastConfirmation()->mergeEventIDs, std::vector<std::string>{"e-1"});

    QCoro::waitFor(controller.undoLastConfirmationAsync());
    EXPECT_EQ(controller.scopedPersonID(), "p-ana");
    EXPECT_FALSE(controller.scopeBeforeAbsorbingLink());
    EXPECT_EQ(controller.currentUndoOffer(), std::nullopt);

    // One target does nothing at all.
    const auto calls = fake->log.size();
    QCoro::waitFor(controller.confirmManualLinkAsync({id::ManualLinkTarget::person("p-x")}));
    EXPECT_EQ(fake->log.size(), calls);
}

TEST_F(Controllers, MarkDifferentStopsAtTheFailingRowAndReloadsNothing) {
    scopeTo("p-ana", {"si-1", "si-2"});
    fake->failWhen = [](const std::string& op, const std::vector<std::string>&) {
        if (op == "rejectCandidate") {
            throw IdentityStoreError(IdentityStoreError::Case::blockedDifferent);
        }
    };
    fake->log.clear();
    QCoro::waitFor(controller.markDifferentFromScopeAsync(
        {row("si-1"), row("si-2"), row("si-9"), row("si-8")}));
    EXPECT_EQ(fake->log, (std::vector<std::string>{"separateIdentity(si-2)",
                                                   "rejectCandidate(si-1|si-9,p-ana,subject)"}));
    EXPECT_EQ(controller.lastError(), "blockedDifferent");

    fake->failWhen = {};
    fake->log.clear();
    QCoro::waitFor(controller.markDifferentFromScopeAsync({row("si-2")}));
    EXPECT_EQ(controller.lastError(), std::nullopt);
    EXPECT_EQ(fake->log.at(1), "activeMemberships(p-ana)");  // separated: the scope reloads
}

TEST_F(Controllers, TwoControllersShareOneOfferAndAFailedUndoRestoresItUnlessANewerExists) {
    ui::IdentityCorrectionUndoOfferStore offers;
    IdentityCorrectionController other;
    other.setRepository(fake);
    controller.setUndoOfferStore(&offers);
    other.setUndoOfferStore(&offers);
    fake->answer = [](const std::string& op, const std::vector<std::string>& args) -> std::any {
        if (op == "confirmCandidate") {
            return id::IdentityConfirmResult{"p", {"e-" + args[0]}};
        }
        if (op == "exactKeyCandidates") {
            return std::vector{candidate("a", "b"), candidate("c", "d")};
        }
        return {};
    };
    QCoro::waitFor(controller.reloadAsync(10));
    QCoro::waitFor(controller.confirmAsync(candidate("a", "b")));
    EXPECT_EQ(ids(controller.candidates()), std::vector<std::string>{"c|d"});
    const auto offerID = controller.currentUndoOffer()->id();
    EXPECT_EQ(offerID.size(), 36u);
    EXPECT_EQ(QString::fromStdString(offerID), QString::fromStdString(offerID).toLower());

    // The other screen's mirror is stale; its undo still goes through the store.
    fake->hold = {"undoConfirmation"};
    auto undo = controller.undoLastConfirmationAsync();
    QCoro::waitFor(other.undoLastConfirmationAsync());  // nothing to claim
    EXPECT_EQ(fake->parked.size(), 1u);
    fake->fail(
        "undoConfirmation",
        storeError(IdentityStoreError(IdentityStoreError::Case::supersededByLaterCorrection)));
    QCoro::waitFor(undo);
    EXPECT_EQ(offers.currentOffer()->id(), offerID);  // restored
    EXPECT_EQ(controller.lastErrorCopy(),
              "A newer correction changed this person. Undo the newer correction first.");

    // Failing again while a newer offer was recorded: the newer one stays.
    undo = controller.undoLastConfirmationAsync();
    QCoro::waitFor(other.confirmAsync(candidate("c", "d")));
    fake->fail(
        "undoConfirmation",
        storeError(IdentityStoreError(IdentityStoreError::Case::supersededByLaterCorrection)));
    QCoro::waitFor(undo);
    EXPECT_EQ(offers.lastConfirmation()->mergeEventIDs, std::vector<std::string>{"e-c|d"});

    // A successful undo puts the candidate back at the end.
    fake->hold.clear();
    QCoro::waitFor(other.undoLastConfirmationAsync());
    EXPECT_EQ(offers.currentOffer(), std::nullopt);
    EXPECT_EQ(ids(other.candidates()), std::vector<std::string>{"c|d"});
}

TEST(HistoryController, UndoClearsTheErrorAfterItsReloadAndSkipsUndoneEntries) {
    auto fake = std::make_shared<FakeRepository>();
    ui::IdentityHistoryController history;
    history.setRepository(fake);
    history.setPersonID("p-1");
    id::IdentityHistoryEntry entry;
    entry.mergeEventID = "e-1";
    entry.mergeEventIDs = {"e-1", "e-2"};
    fake->answer = [&](const std::string& op, const std::vector<std::string>&) -> std::any {
        if (op == "identityHistory") {
            return std::vector{entry};
        }
        return {};
    };
    QCoro::waitFor(history.reloadAsync());
    ASSERT_EQ(history.entries().size(), 1u);

    fake->failWhen = [](const std::string& op, const std::vector<std::string>&) {
        if (op == "identityHistory") {
            throw IdentityStoreError::invalidArgs("broken");
        }
    };
    QCoro::waitFor(history.reloadAsync());
    EXPECT_EQ(history.lastError(), "invalidArgs(\"broken\")");
    EXPECT_EQ(history.lastErrorCopy(), "Couldn't load or update identity history.");
    EXPECT_EQ(history.entries().size(), 1u);

    QCoro::waitFor(history.undoAsync(entry));
    EXPECT_EQ(fake->log.at(2), "undoConfirmation(e-1+e-2)");
    EXPECT_EQ(history.lastError(), std::nullopt);  // the failed reload's error is cleared too
    EXPECT_EQ(history.entries().size(), 1u);

    entry.reversedAt = "2026-01-01T00:00:00Z";
    const auto calls = fake->log.size();
    QCoro::waitFor(history.undoAsync(entry));
    EXPECT_EQ(fake->log.size(), calls);
}

}  // namespace
}  // namespace orvik::test

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

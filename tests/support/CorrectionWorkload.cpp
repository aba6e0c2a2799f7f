#include "tests/support/CorrectionWorkload.h"

namespace orvik::test {

using namespace identity;
using Op = Correction::Op;
using World = CorrectionWorld;

namespace {
constexpr auto kLineage = SubjectLineage::person;
}  // namespace

CorrectionWorld::CorrectionWorld(const std::string& vfs) {
    for (const auto& [person, name] : {std::pair{"pA", "Ann"}, {"pB", "Bob"}, {"pC", "Cy"}}) {
        db.addPerson(person, std::nullopt, std::string(name));
    }
    db.addIdentity("iA1", "gmail", "ann@example.com", "Ann");
    db.addIdentity("iA2", "outlook", "ann@work.example", "Ann");
    db.addIdentity("iB1", "outlook", "ann@example.com", "Ann B");
    db.addIdentity("iC1", "imessage", "+15550001", "Cy");
    db.addIdentity("iN1", "gmail", "new@example.com", "New");
    db.addIdentity("iN2", "outlook", "new@example.com", "New");
    db.addIdentity("iX", "gmail", "me@example.com");
    db.addMembership("m1", "iA1", "pA");
    db.addMembership("m2", "iA2", "pA");
    db.addMembership("m3", "iB1", "pB");
    db.addMembership("m4", "iC1", "pC");
    if (vfs.empty()) {
        pool = db.sharedPool();
    } else {
        store::PoolOptions options;
        options.vfs = vfs;
        pool = store::DatabasePool::open(db.path(), options);
    }
    repo =
        std::make_unique<IdentityRepository>(pool, [this](const Event& e) { events.push_back(e); });
}

SourceIdentityRow CorrectionWorld::row(const std::string& id) {
    return repo->sourceIdentity(id).value();
}

IdentityCandidate CorrectionWorld::candidate(const std::string& a, const std::string& b) {
    return IdentityCandidate{.sourceIdentityA = row(a),
                             .sourceIdentityB = row(b),
                             .existingPersonID = std::nullopt,
                             .score = 0.9,
                             .because = "same handle"};
}

std::map<std::string, std::string> CorrectionWorld::shape() {
    std::map<std::string, std::string> counts;
    for (const char* table : {"person", "identity_membership", "identity_constraint", "merge_event",
                              "user_correction", "owner_alias"}) {
        counts[table] = db.rows(std::string("SELECT count(*) FROM ") + table)[0];
    }
    counts["live"] = db.rows("SELECT count(*) FROM identity_membership WHERE ended_at IS NULL")[0];
    return counts;
}

const std::vector<Correction>& corrections() {
    static const std::vector<Correction> all = {
        {"linkIdentity",
         [](World& w) { return Op([&w] {
                            w.repo->linkIdentity({"pA", "iN1", true});
                        }); }},
        {"proposeMerge",
         [](World& w) {
             return Op([&w] {
                 w.repo->proposeMerge({std::nullopt, "pA", "pB", "s", kLineage, true});
             });
         }},
        {"markDifferent",
         [](World& w) {
             return Op([&w] {
                 w.repo->markDifferent({"not the same", std::nullopt, "pA", "pC", "s", kLineage});
             });
         }},
        {"confirmCandidate merge",
         [](World& w) {
             return Op(
                 [&w] { w.repo->confirmCandidate(w.candidate("iA1", "iB1"), kLineage, "s"); });
         }},
        {"confirmCandidate stub",
         [](World& w) {
             return Op(
                 [&w] { w.repo->confirmCandidate(w.candidate("iN1", "iN2"), kLineage, "s"); });
         }},
        {"rejectCandidate",
         [](World& w) {
             return Op([&w] { w.repo->rejectCandidate(w.candidate("iA1", "iC1"), kLineage, "s"); });
         }},
        {"confirmManualLink pair",
         [](World& w) {
             return Op(
                 [&w] { w.repo->confirmManualLink(w.row("iA1"), w.row("iC1"), kLineage, "s"); });
         }},
        {"confirmManualLink targets",
         [](World& w) {
             return Op([&w] {
                 w.repo->confirmManualLink(
                     {ManualLinkTarget::person("pB"), ManualLinkTarget::identity(w.row("iN1"))},
                     kLineage, "s");
             });
         }},
        {"batchConfirmManualLink",
         [](World& w) {
             return Op([&w] {
                 w.repo->batchConfirmManualLink({w.row("iN1"), w.row("iN2"), w.row("iX")}, kLineage,
                                                "s");
             });
         }},
        {"separateIdentity",
         [](World& w) { return Op([&w] { w.repo->separateIdentity("iA2", "s"); }); }},
        {"undoMerge",
         [](World& w) {
             const auto ids =
                 w.repo->confirmCandidate(w.candidate("iA1", "iB1"), kLineage, "s").mergeEventIDs;
             return Op([&w, ids] { w.repo->undoMerge(ids.at(0)); });
         }},
        {"undoConfirmation",
         [](World& w) {
             const auto ids =
                 w.repo->confirmCandidate(w.candidate("iN1", "iA1"), kLineage, "s").mergeEventIDs;
             return Op([&w, ids] { w.repo->undoConfirmation(ids); });
         }},
        {"declareOwnerAlias",
         [](World& w) { return Op([&w] { w.repo->declareOwnerAlias("iX", "s"); }); }},
        {"batchDeclareOwnerAlias",
         [](World& w) { return Op([&w] {
                            w.repo->batchDeclareOwnerAlias({"iX", "iA2"}, "s");
                        }); }},
        {"undoOwnerAliasMutation",
         [](World& w) {
             const auto mutation = w.repo->batchDeclareOwnerAlias({"iX", "iA2"}, "s").mutation;
             return Op([&w, mutation] { w.repo->undoOwnerAliasMutation(mutation); });
         }},
    };
    return all;
}

}  // namespace orvik::test

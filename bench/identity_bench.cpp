// Every public operation of IdentityRepository on the generated stores: 10^3,
// 10^4 and 10^5 identities, plain and encrypted. A correction is timed together
// with nothing else; its undo follows untimed (or is itself the timed part), and
// the rows the pair leaves behind are removed untimed (see restoreStore), so that
// every iteration works on the same store. The counter "statements" is the number of
// statements an operation runs.
#include <benchmark/benchmark.h>

#include "bench/support/BenchWorld.h"

namespace orvik::bench {
namespace {

using identity::IdentityCandidate;
using identity::ManualLinkTarget;
using identity::SourceIdentityRow;
using identity::SubjectLineage;

World& libraryWorld(const benchmark::State& state) {
    return world(shapeOf(state), "library");
}

template <typename T>
const T& nth(const std::vector<T>& items, std::size_t i) {
    if (items.empty()) {
        throw std::runtime_error("the generated store has no subject of this kind");
    }
    return items[i % items.size()];
}

SourceIdentityRow identityRow(World& w, const std::string& id) {
    return w.repository->sourceIdentity(id).value();
}

IdentityCandidate candidateOf(World& w, const std::pair<std::string, std::string>& pair) {
    return IdentityCandidate{.sourceIdentityA = identityRow(w, pair.first),
                             .sourceIdentityB = identityRow(w, pair.second),
                             .existingPersonID = std::nullopt,
                             .score = 0.85,
                             .because = "same contact key"};
}

std::string personOf(World& w, const std::string& identityID) {
    return w.repository->resolveCanonicalPerson(identityID).value().personID;
}

// --- Reads.

// Times one read of the repository over the subjects in turn.
template <typename Read>
void timeReads(benchmark::State& state, const std::vector<std::string> StoreSubjects::*subjects,
               Read read) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    timeEach(state, [&] {
        benchmark::DoNotOptimize(read(*w.repository, nth(w.subjects.*subjects, i++)));
    });
}

void BM_sourceIdentity(benchmark::State& state) {
    timeReads(state, &StoreSubjects::linked,
              [](auto& repository, const auto& id) { return repository.sourceIdentity(id); });
}
BENCHMARK(BM_sourceIdentity)->Apply(allShapes)->UseManualTime();

void BM_person(benchmark::State& state) {
    timeReads(state, &StoreSubjects::mergedPersons,
              [](auto& repository, const auto& id) { return repository.person(id); });
}
BENCHMARK(BM_person)->Apply(allShapes)->UseManualTime();

void BM_activeMembership(benchmark::State& state) {
    timeReads(state, &StoreSubjects::linked,
              [](auto& repository, const auto& id) { return repository.activeMembership(id); });
}
BENCHMARK(BM_activeMembership)->Apply(allShapes)->UseManualTime();

void BM_activeMemberships(benchmark::State& state) {
    timeReads(state, &StoreSubjects::mergedPersons,
              [](auto& repository, const auto& id) { return repository.activeMemberships(id); });
}
BENCHMARK(BM_activeMemberships)->Apply(allShapes)->UseManualTime();

void BM_mergeEvent(benchmark::State& state) {
    timeReads(state, &StoreSubjects::mergeEvents,
              [](auto& repository, const auto& id) { return repository.mergeEvent(id); });
}
BENCHMARK(BM_mergeEvent)->Apply(allShapes)->UseManualTime();

void BM_latestUndoableMergeEvent(benchmark::State& state) {
    timeReads(state, &StoreSubjects::mergedPersons, [](auto& repository, const auto& id) {
        return repository.latestUndoableMergeEvent(id);
    });
}
BENCHMARK(BM_latestUndoableMergeEvent)->Apply(allShapes)->UseManualTime();

// Alternates identities whose membership names a live person with identities
// whose membership names a person absorbed once or twice.
void BM_resolveCanonicalPerson(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    timeEach(state, [&] {
        const auto& id =
            i % 2 == 0 ? nth(w.subjects.linked, i / 2) : nth(w.subjects.chained, i / 2);
        ++i;
        benchmark::DoNotOptimize(w.repository->resolveCanonicalPerson(id));
    });
}
BENCHMARK(BM_resolveCanonicalPerson)->Apply(allShapes)->UseManualTime();

// The larger reads run through either repository of the world: the one that
// keeps nothing (every call reads), and, as "_askedAgain", the one that keeps
// their answers, given the same arguments, so that after the first rounds every
// call is answered from memory.
using Repository = std::unique_ptr<identity::IdentityRepository> World::*;

void searchSourceIdentities(benchmark::State& state, Repository repository) {
    auto& w = libraryWorld(state);
    const std::vector<std::string> excluding{nth(w.subjects.linked, 0)};
    timeEach(state, [&] {
        benchmark::DoNotOptimize((w.*repository)->searchSourceIdentities("ann", 20, excluding));
    });
}
void BM_searchSourceIdentities(benchmark::State& state) {
    searchSourceIdentities(state, &World::repository);
}
void BM_searchSourceIdentities_askedAgain(benchmark::State& state) {
    searchSourceIdentities(state, &World::keeping);
}
BENCHMARK(BM_searchSourceIdentities)->Apply(allShapes)->UseManualTime();
BENCHMARK(BM_searchSourceIdentities_askedAgain)->Apply(allShapes)->UseManualTime();

// Not an operation: what the search's result alone costs, its records built from
// the texts of the same rows and freed again, without the statement. The floor
// runs the statement without building them, so this is the part of the search's
// time the floor has no counterpart for.
void BM_searchSourceIdentities_records(benchmark::State& state) {
    auto& w = libraryWorld(state);
    const std::vector<std::string> excluding{nth(w.subjects.linked, 0)};
    const auto rows = w.repository->searchSourceIdentities("ann", 20, excluding);
    timeEach(state, [&] {
        // Copying a record allocates each of its texts anew, as building it from
        // the row's columns does.
        std::vector<SourceIdentityRow> result = rows;
        benchmark::DoNotOptimize(result);
    });
}
BENCHMARK(BM_searchSourceIdentities_records)->Apply(allShapes)->UseManualTime();

void BM_searchUserStatedPeople(benchmark::State& state) {
    auto& w = libraryWorld(state);
    const std::vector<std::string> excluding{nth(w.subjects.mergedPersons, 0)};
    timeEach(state, [&] {
        benchmark::DoNotOptimize(w.repository->searchUserStatedPeople("ber", 20, excluding));
    });
}
BENCHMARK(BM_searchUserStatedPeople)->Apply(allShapes)->UseManualTime();

void exactKeyCandidates(benchmark::State& state, Repository repository) {
    auto& w = libraryWorld(state);
    timeEach(state, [&] { benchmark::DoNotOptimize((w.*repository)->exactKeyCandidates(50)); });
}
void BM_exactKeyCandidates(benchmark::State& state) {
    exactKeyCandidates(state, &World::repository);
}
void BM_exactKeyCandidates_askedAgain(benchmark::State& state) {
    exactKeyCandidates(state, &World::keeping);
}
BENCHMARK(BM_exactKeyCandidates)->Apply(allShapes)->UseManualTime();
BENCHMARK(BM_exactKeyCandidates_askedAgain)->Apply(allShapes)->UseManualTime();

// Not an operation: the scan's 50 candidates copied and freed again, two
// identities and a reason each, as BM_searchSourceIdentities_records does for
// the search.
void BM_exactKeyCandidates_records(benchmark::State& state) {
    auto& w = libraryWorld(state);
    const auto candidates = w.repository->exactKeyCandidates(50);
    timeEach(state, [&] {
        std::vector<IdentityCandidate> result = candidates;
        benchmark::DoNotOptimize(result);
    });
}
BENCHMARK(BM_exactKeyCandidates_records)->Apply(allShapes)->UseManualTime();

void BM_candidateContext(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    timeEach(state, [&] {
        const auto& pair = nth(w.subjects.mergePairs, i++);
        benchmark::DoNotOptimize(
            w.repository->candidateContext(pair.first, {pair.second, nth(w.subjects.linked, i)}));
    });
}
BENCHMARK(BM_candidateContext)->Apply(allShapes)->UseManualTime();

void identityHistory(benchmark::State& state, Repository repository) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    timeEach(state, [&] {
        benchmark::DoNotOptimize(
            (w.*repository)->identityHistory(nth(w.subjects.mergedPersons, i++)));
    });
}
void BM_identityHistory(benchmark::State& state) {
    identityHistory(state, &World::repository);
}
void BM_identityHistory_askedAgain(benchmark::State& state) {
    identityHistory(state, &World::keeping);
}
BENCHMARK(BM_identityHistory)->Apply(allShapes)->UseManualTime();
BENCHMARK(BM_identityHistory_askedAgain)->Apply(allShapes)->UseManualTime();

void BM_identityCorrectionsReadback(benchmark::State& state) {
    auto& w = libraryWorld(state);
    timeEach(state, [&] { benchmark::DoNotOptimize(w.repository->identityCorrectionsReadback()); });
}
BENCHMARK(BM_identityCorrectionsReadback)->Apply(allShapes)->UseManualTime();

void BM_predictManualLinkSurvivor(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::vector<std::vector<ManualLinkTarget>> targets;
    for (std::size_t k = 0; k < 16; ++k) {
        const auto& pair = nth(w.subjects.linkPairs, k);
        targets.push_back({ManualLinkTarget::identity(identityRow(w, pair.first)),
                           ManualLinkTarget::person(pair.second)});
    }
    std::size_t i = 0;
    timeEach(state, [&] {
        benchmark::DoNotOptimize(w.repository->predictManualLinkSurvivor(nth(targets, i++)));
    });
}
BENCHMARK(BM_predictManualLinkSurvivor)->Apply(allShapes)->UseManualTime();

// --- Corrections and their undo. Each benchmark times one side of a do/undo
// pair and runs the other side untimed.

// Runs doIt and then undoIt once per iteration, timing the side named by
// timeUndo, and restores the store untimed.
template <typename Do, typename Undo>
void doAndUndo(benchmark::State& state, World& w, bool timeUndo, Do&& doIt, Undo&& undoIt) {
    Meter meter;
    Meter untimed;
    for (auto _ : state) {
        const auto mark = markStore(*w.pool);
        double seconds = 0;
        if (timeUndo) {
            auto done = doIt();
            seconds = meter.measure([&] { undoIt(done); });
        } else {
            decltype(doIt()) done;
            seconds = meter.measure([&] { done = doIt(); });
            undoIt(done);
        }
        restoreStore(*w.pool, mark);
        state.SetIterationTime(seconds);
    }
    meter.finish(state);
}

void linkIdentityPair(benchmark::State& state, bool timeUndo) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    doAndUndo(
        state, w, timeUndo,
        [&] {
            const auto& pair = nth(w.subjects.linkPairs, i++);
            return w.repository->linkIdentity(
                {.personID = pair.second, .sourceIdentityID = pair.first, .confirmed = true});
        },
        [&](const schema::LinkIdentityResponse& response) {
            w.repository->undoMerge(response.mergeEventID.value());
        });
}
void BM_linkIdentity(benchmark::State& state) {
    linkIdentityPair(state, false);
}
BENCHMARK(BM_linkIdentity)->Apply(allShapes)->UseManualTime();
void BM_undoMerge_link(benchmark::State& state) {
    linkIdentityPair(state, true);
}
BENCHMARK(BM_undoMerge_link)->Apply(allShapes)->UseManualTime();

void confirmCandidatePair(benchmark::State& state, bool timeUndo) {
    auto& w = libraryWorld(state);
    std::vector<IdentityCandidate> candidates;
    for (const auto& pair : w.subjects.mergePairs) {
        candidates.push_back(candidateOf(w, pair));
    }
    std::size_t i = 0;
    doAndUndo(
        state, w, timeUndo,
        [&] {
            return w.repository->confirmCandidate(nth(candidates, i++), SubjectLineage::person,
                                                  "bench");
        },
        [&](const identity::IdentityConfirmResult& result) {
            w.repository->undoConfirmation(result.mergeEventIDs);
        });
}
// A merge: the two identities are the only members of two persons.
void BM_confirmCandidate(benchmark::State& state) {
    confirmCandidatePair(state, false);
}
BENCHMARK(BM_confirmCandidate)->Apply(allShapes)->UseManualTime();
void BM_undoConfirmation(benchmark::State& state) {
    confirmCandidatePair(state, true);
}
BENCHMARK(BM_undoConfirmation)->Apply(allShapes)->UseManualTime();

void proposeMergePair(benchmark::State& state, bool timeUndo) {
    auto& w = libraryWorld(state);
    std::vector<std::pair<std::string, std::string>> persons;
    for (const auto& pair : w.subjects.mergePairs) {
        persons.emplace_back(personOf(w, pair.first), personOf(w, pair.second));
    }
    std::size_t i = 0;
    doAndUndo(
        state, w, timeUndo,
        [&] {
            const auto& pair = nth(persons, i++);
            return w.repository->proposeMerge({.presetValue = std::nullopt,
                                               .personIDA = pair.first,
                                               .personIDB = pair.second,
                                               .subjectID = "bench",
                                               .confirmed = true});
        },
        [&](const schema::ProposeMergeResponse& response) {
            w.repository->undoMerge(response.mergeEventID.value());
        });
}
void BM_proposeMerge(benchmark::State& state) {
    proposeMergePair(state, false);
}
BENCHMARK(BM_proposeMerge)->Apply(allShapes)->UseManualTime();
void BM_undoMerge(benchmark::State& state) {
    proposeMergePair(state, true);
}
BENCHMARK(BM_undoMerge)->Apply(allShapes)->UseManualTime();

// Two persons that are apart: the constraint is written, and removed untimed.
void BM_markDifferent(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::vector<std::pair<std::string, std::string>> persons;
    for (const auto& pair : w.subjects.mergePairs) {
        persons.emplace_back(personOf(w, pair.first), personOf(w, pair.second));
    }
    std::size_t i = 0;
    doAndUndo(
        state, w, false,
        [&] {
            const auto& pair = nth(persons, i++);
            return w.repository->markDifferent({.reason = "not the same",
                                                .presetValue = std::nullopt,
                                                .personIDA = pair.first,
                                                .personIDB = pair.second,
                                                .subjectID = "bench"});
        },
        [](const schema::MarkDifferentResponse&) {});
}
BENCHMARK(BM_markDifferent)->Apply(allShapes)->UseManualTime();

void BM_rejectCandidate(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::vector<IdentityCandidate> candidates;
    for (const auto& pair : w.subjects.mergePairs) {
        candidates.push_back(candidateOf(w, pair));
    }
    std::size_t i = 0;
    doAndUndo(
        state, w, false,
        [&] {
            w.repository->rejectCandidate(nth(candidates, i++), SubjectLineage::person, "bench");
            return 0;
        },
        [](int) {});
}
BENCHMARK(BM_rejectCandidate)->Apply(allShapes)->UseManualTime();

void BM_confirmManualLink(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::vector<std::pair<SourceIdentityRow, SourceIdentityRow>> rows;
    for (const auto& pair : w.subjects.mergePairs) {
        rows.emplace_back(identityRow(w, pair.first), identityRow(w, pair.second));
    }
    std::size_t i = 0;
    doAndUndo(
        state, w, false,
        [&] {
            const auto& pair = nth(rows, i++);
            return w.repository->confirmManualLink(pair.first, pair.second, SubjectLineage::person,
                                                   "bench");
        },
        [&](const identity::IdentityConfirmResult& result) {
            w.repository->undoConfirmation(result.mergeEventIDs);
        });
}
BENCHMARK(BM_confirmManualLink)->Apply(allShapes)->UseManualTime();

// Three identities of three persons.
void BM_batchConfirmManualLink(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::vector<std::vector<SourceIdentityRow>> batches;
    for (std::size_t k = 0; k + 1 < w.subjects.mergePairs.size(); k += 2) {
        batches.push_back({identityRow(w, w.subjects.mergePairs[k].first),
                           identityRow(w, w.subjects.mergePairs[k].second),
                           identityRow(w, w.subjects.mergePairs[k + 1].first)});
    }
    std::size_t i = 0;
    doAndUndo(
        state, w, false,
        [&] {
            return w.repository->batchConfirmManualLink(nth(batches, i++), SubjectLineage::person,
                                                        "bench");
        },
        [&](const identity::IdentityConfirmResult& result) {
            w.repository->undoConfirmation(result.mergeEventIDs);
        });
}
BENCHMARK(BM_batchConfirmManualLink)->Apply(allShapes)->UseManualTime();

// An identity without a person and a person, as targets.
void BM_confirmManualLinkTargets(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::vector<std::vector<ManualLinkTarget>> targets;
    for (const auto& pair : w.subjects.linkPairs) {
        targets.push_back({ManualLinkTarget::identity(identityRow(w, pair.first)),
                           ManualLinkTarget::person(pair.second)});
    }
    std::size_t i = 0;
    doAndUndo(
        state, w, false,
        [&] {
            return w.repository->confirmManualLink(nth(targets, i++), SubjectLineage::person,
                                                   "bench");
        },
        [&](const identity::IdentityConfirmResult& result) {
            w.repository->undoConfirmation(result.mergeEventIDs);
        });
}
BENCHMARK(BM_confirmManualLinkTargets)->Apply(allShapes)->UseManualTime();

void BM_separateIdentity(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    doAndUndo(
        state, w, false,
        [&] { return w.repository->separateIdentity(nth(w.subjects.separable, i++), "bench"); },
        [&](const identity::IdentityConfirmResult& result) {
            w.repository->undoConfirmation(result.mergeEventIDs);
        });
}
BENCHMARK(BM_separateIdentity)->Apply(allShapes)->UseManualTime();

void declareOwnerAliasPair(benchmark::State& state, bool timeUndo) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    doAndUndo(
        state, w, timeUndo,
        [&] { return w.repository->declareOwnerAlias(nth(w.subjects.unaffiliated, i++), "bench"); },
        [&](const identity::OwnerAliasDeclarationOutcome& outcome) {
            w.repository->undoOwnerAliasMutation(outcome.mutation);
        });
}
void BM_declareOwnerAlias(benchmark::State& state) {
    declareOwnerAliasPair(state, false);
}
BENCHMARK(BM_declareOwnerAlias)->Apply(allShapes)->UseManualTime();
void BM_undoOwnerAliasMutation(benchmark::State& state) {
    declareOwnerAliasPair(state, true);
}
BENCHMARK(BM_undoOwnerAliasMutation)->Apply(allShapes)->UseManualTime();

void BM_batchDeclareOwnerAlias(benchmark::State& state) {
    auto& w = libraryWorld(state);
    std::size_t i = 0;
    doAndUndo(
        state, w, false,
        [&] {
            const std::vector<std::string> ids{nth(w.subjects.unaffiliated, i),
                                               nth(w.subjects.unaffiliated, i + 1)};
            i += 2;
            return w.repository->batchDeclareOwnerAlias(ids, "bench");
        },
        [&](const identity::OwnerAliasDeclarationOutcome& outcome) {
            w.repository->undoOwnerAliasMutation(outcome.mutation);
        });
}
BENCHMARK(BM_batchDeclareOwnerAlias)->Apply(allShapes)->UseManualTime();

}  // namespace
}  // namespace orvik::bench

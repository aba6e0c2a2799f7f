// Owner-alias declarations: the registry does the writing; the core records
// exactly what was newly inserted so that the undo removes that and nothing else.
#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

const std::string kDeleteExclusionRule = "DELETE FROM exclusion_rule WHERE id = ?";

}  // namespace

OwnerAliasDeclarationOutcome RepositoryCore::declareOwnerAliasCore(
    const std::vector<std::string>& sourceIdentityIDs, const std::string& subjectID,
    store::Connection& db) {
    OwnerAliasDeclarationOutcome outcome;
    auto& mutation = outcome.mutation;
    for (const auto& id : sourceIdentityIDs) {
        const auto& identity = sourceIdentityRow(id, db);
        if (!identity) {
            // The caller's transaction rolls back whatever the batch declared so far.
            throw IdentityStoreError::notFound(id);
        }
        const auto declared = services_.ownerAliases->declareAliasAndExcludeBoundPerson(
            db, identity->sourceType, identity->handleNormalized, subjectID, id);
        outcome.perIdentity.push_back(DeclareOwnerAliasResult{
            .excludedPersonID = declared.excludedPersonID,
            .wasNewAlias = declared.wasNewAlias,
        });
        if (declared.wasNewAlias) {
            mutation.insertedAliases.push_back(OwnerAliasMutation::InsertedAlias{
                .sourceIdentityID = id,
                .sourceType = identity->sourceType,
                .handleNormalized = identity->handleNormalized,
            });
        }
        if (declared.insertedExclusion && declared.excludedPersonID) {
            mutation.insertedExclusions.push_back(OwnerAliasMutation::InsertedExclusion{
                .exclusionRuleID =
                    host::stableID("owner-alias-exclusion", *declared.excludedPersonID),
                .personID = *declared.excludedPersonID,
            });
        }
    }
    if (!mutation.empty()) {
        services_.projectionGeneration->bump(db);
    }
    return outcome;
}

void RepositoryCore::undoOwnerAliasMutationCore(const OwnerAliasMutation& mutation,
                                                store::Connection& db) {
    for (const auto& alias : mutation.insertedAliases) {
        services_.ownerAliases->removeAlias(db, alias.sourceType, alias.handleNormalized);
    }
    for (const auto& exclusion : mutation.insertedExclusions) {
        // A rule that is already gone is fine: the undo only has to leave it absent.
        db.run(kDeleteExclusionRule, {exclusion.exclusionRuleID});
    }
    services_.projectionGeneration->bump(db);
}

}  // namespace orvik::identity::internal

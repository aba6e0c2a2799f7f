// Different-person constraints: testing, listing and revoking live constraints,
// with absorption-aware matching of person pairs and re-minted copies of
// constraints that name archive participants.
#include <algorithm>
#include <set>
#include <unordered_map>
#include <utility>

#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

const std::string kHasSymmetricDifferent =
    "SELECT count(*) > 0 FROM identity_constraint\n"
    "WHERE kind = 'different' AND revoked_at IS NULL\n"
    "  AND ((a_type = ? AND a_id = ? AND b_type = ? AND b_id = ?)\n"
    "    OR (a_type = ? AND a_id = ? AND b_type = ? AND b_id = ?))";
const std::string kLivePersonPairEnds =
    "SELECT a_id, b_id FROM identity_constraint\n"
    "WHERE kind = 'different' AND revoked_at IS NULL\n"
    "  AND a_type = 'person' AND b_type = 'person'";
const std::string kLiveSymmetricDifferentRows =
    "SELECT id, decided_by FROM identity_constraint\n"
    "WHERE kind = 'different' AND revoked_at IS NULL\n"
    "  AND ((a_type = ? AND a_id = ? AND b_type = ? AND b_id = ?)\n"
    "    OR (a_type = ? AND a_id = ? AND b_type = ? AND b_id = ?))";
const std::string kLivePersonPairRows =
    "SELECT id, a_id, b_id FROM identity_constraint\n"
    "WHERE kind = 'different' AND revoked_at IS NULL\n"
    "  AND a_type = 'person' AND b_type = 'person'";
const std::string kConstraintEnds =
    "SELECT a_type, a_id, b_type, b_id FROM identity_constraint WHERE id = ?";
const std::string kIsArchiveParticipant =
    "SELECT count(*) > 0 FROM source_identity WHERE id = ? AND source_type = 'hybrid_archive' "
    "AND handle_normalized LIKE 'am-participant-%'";
const std::string kArchiveAddressIdentities =
    "SELECT id FROM source_identity WHERE source_type = 'hybrid_archive' AND handle_normalized "
    "LIKE '%@%'";
const std::string kRevokeConstraint = "UPDATE identity_constraint SET revoked_at = ? WHERE id = ?";
const std::string kLiveSymmetricDifferentIDs =
    "SELECT id FROM identity_constraint\n"
    "WHERE kind = 'different' AND revoked_at IS NULL\n"
    "  AND ((a_type = ? AND a_id = ? AND b_type = ? AND b_id = ?)\n"
    "    OR (a_type = ? AND a_id = ? AND b_type = ? AND b_id = ?))";

// The eight arguments of a symmetric match: (a, b) then (b, a).
store::Params symmetricParams(ConstraintSubjectType aType, const std::string& aID,
                              ConstraintSubjectType bType, const std::string& bID) {
    // The type texts are static; the identifiers are bound where the caller keeps them.
    const std::string_view a = rawValue(aType);
    const std::string_view b = rawValue(bType);
    return {a, aID, b, bID, b, bID, a, aID};
}

bool samePair(const std::string& x1, const std::string& y1, const std::string& x2,
              const std::string& y2) {
    return (x1 == x2 && y1 == y2) || (x1 == y2 && y1 == x2);
}

bool contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

// Whether a constraint whose a end resolves to `head` has its b end resolve to
// `other`. Only those b ends are resolved.
bool pairedThrough(const PersonPairIndex& index, const std::string& head, const std::string& other,
                   RepositoryCore& core, store::Connection& db) {
    const auto it = index.find(head);
    if (it == index.end()) {
        return false;
    }
    for (const auto& bEnd : it->second) {
        if (core.scannedAbsorptionChainHead(bEnd, db) == other) {
            return true;
        }
    }
    return false;
}

}  // namespace

PersonPairIndex indexByHeadOfA(const OperationMemo::PersonPairEnds& ends, RepositoryCore& core,
                               store::Connection& db, std::pmr::memory_resource* resource) {
    PersonPairIndex index(resource);
    for (const auto& [a, b] : ends) {
        index[MemoString(core.scannedAbsorptionChainHead(a, db), resource)].emplace_back(b);
    }
    return index;
}

namespace {

// The (a_id, b_id) of every live person-person constraint, in memory from resource.
OperationMemo::PersonPairEnds livePersonPairEnds(store::Connection& db,
                                                 std::pmr::memory_resource* resource) {
    OperationMemo::PersonPairEnds ends(resource);
    db.query(kLivePersonPairEnds, {},
             [&](const store::Row& row) { ends.emplace_back(row.view(0), row.view(1)); });
    return ends;
}

}  // namespace

bool PersonDifferenceIndex::differ(const std::string& personA, const std::string& personB) {
    const std::string headA = core_.absorptionChainHead(personA, db_);
    const std::string headB = core_.absorptionChainHead(personB, db_);
    if (headA == headB) {
        return false;
    }
    // Inside a transaction the operation's memo keeps the same index.
    if (OperationMemo::of(db_) != nullptr) {
        return core_.hasDifferentConstraint(ConstraintSubjectType::person, headA,
                                            ConstraintSubjectType::person, headB, db_);
    }
    if (!index_) {
        ends_ = livePersonPairEnds(db_, std::pmr::get_default_resource());
        index_ = indexByHeadOfA(*ends_, core_, db_, std::pmr::get_default_resource());
    }
    return pairedThrough(*index_, headA, headB, core_, db_) ||
           pairedThrough(*index_, headB, headA, core_, db_);
}

bool RepositoryCore::hasDifferentConstraint(ConstraintSubjectType aType, const std::string& aID,
                                            ConstraintSubjectType bType, const std::string& bID,
                                            store::Connection& db) {
    if (aType == ConstraintSubjectType::identity || bType == ConstraintSubjectType::identity) {
        return db.scalarFlag(kHasSymmetricDifferent, symmetricParams(aType, aID, bType, bID));
    }
    const std::string headA = absorptionChainHead(aID, db);
    const std::string headB = absorptionChainHead(bID, db);
    if (headA == headB) {
        return false;
    }
    OperationMemo* memo = OperationMemo::of(db);
    if (memo == nullptr) {
        PersonDifferenceIndex index(*this, db);
        return index.differ(headA, headB);
    }
    if (!memo->personPairsByHeadOfA) {
        if (!memo->personPairEnds) {
            memo->personPairEnds = livePersonPairEnds(db, memo->arena());
        }
        // Heads are resolved after the scan so that no statement runs inside its
        // row loop. Resolving only reads: the memo keeps the ends the index views.
        auto index = indexByHeadOfA(*memo->personPairEnds, *this, db, memo->arena());
        memo = OperationMemo::of(db);
        memo->personPairsByHeadOfA = std::move(index);
    }
    // Within an operation the index is kept: the next test of any two persons
    // resolves only the b ends filed under their heads, until persons or
    // constraints are written.
    return pairedThrough(*memo->personPairsByHeadOfA, headA, headB, *this, db) ||
           pairedThrough(*memo->personPairsByHeadOfA, headB, headA, *this, db);
}

std::vector<RepositoryCore::ConstraintRef> RepositoryCore::liveDifferentConstraintRows(
    ConstraintSubjectType aType, const std::string& aID, ConstraintSubjectType bType,
    const std::string& bID, store::Connection& db) {
    std::vector<ConstraintRef> rows;
    db.query(kLiveSymmetricDifferentRows, symmetricParams(aType, aID, bType, bID),
             [&](const store::Row& row) {
                 rows.push_back({row.text("id"), row.text("decided_by")});
             });
    return rows;
}

void RepositoryCore::appendLiveDifferentConstraintIDs(
    ConstraintSubjectType aType, const std::string& aID, ConstraintSubjectType bType,
    const std::string& bID, std::vector<std::string>& ids, store::Connection& db) {
    db.query(kLiveSymmetricDifferentIDs, symmetricParams(aType, aID, bType, bID),
             [&](const store::Row& row) { ids.push_back(row.text(0)); });
}

std::vector<std::string> RepositoryCore::livePersonPairDifferentConstraintIDs(
    const std::string& personA, const std::string& personB, store::Connection& db) {
    const std::string headA = absorptionChainHead(personA, db);
    const std::string headB = absorptionChainHead(personB, db);
    if (headA == headB) {
        return {};
    }
    // The rows come from the memo when the operation read them already.
    OperationMemo* memo = OperationMemo::of(db);
    std::optional<std::pmr::vector<OperationMemo::PersonPairRow>> read;
    if (memo == nullptr || !memo->personPairRows) {
        std::pmr::memory_resource* resource =
            memo != nullptr ? memo->arena() : std::pmr::get_default_resource();
        read.emplace(resource);
        db.query(kLivePersonPairRows, {}, [&](const store::Row& row) {
            read->push_back({MemoString(row.view(0), resource), MemoString(row.view(1), resource),
                             MemoString(row.view(2), resource)});
        });
        if (memo != nullptr) {
            memo->personPairRows = std::move(read);
        }
    }
    const auto& candidates = memo != nullptr ? *memo->personPairRows : *read;
    // A b end is resolved only when the a end matched one of the heads.
    std::vector<std::string> ids;
    for (const auto& c : candidates) {
        const std::string x = scannedAbsorptionChainHead(c.a, db);
        if ((x == headA || x == headB) &&
            samePair(x, scannedAbsorptionChainHead(c.b, db), headA, headB)) {
            ids.emplace_back(c.id);
        }
    }
    return ids;
}

std::vector<std::string> RepositoryCore::liveRemintedConstraintIDs(
    const std::string& originalConstraintID, store::Connection& db) {
    std::vector<std::string> identityEnds;
    bool found = false;
    db.query(kConstraintEnds, {originalConstraintID}, [&](const store::Row& row) {
        if (found) {
            return;
        }
        found = true;
        if (row.text("a_type") == "identity") {
            identityEnds.push_back(row.text("a_id"));
        }
        if (row.text("b_type") == "identity") {
            identityEnds.push_back(row.text("b_id"));
        }
    });
    std::set<std::string> copies;
    for (const auto& identityID : identityEnds) {
        if (!db.scalarFlag(kIsArchiveParticipant, {identityID})) {
            continue;
        }
        std::vector<std::string> archiveIdentities;
        db.query(kArchiveAddressIdentities, {},
                 [&](const store::Row& row) { archiveIdentities.push_back(row.text(0)); });
        for (const auto& archiveID : archiveIdentities) {
            std::string copyID =
                host::stableID("constraint-remint", originalConstraintID, archiveID);
            if (db.scalarFlag(kIsLiveConstraint, {copyID})) {
                copies.insert(std::move(copyID));
            }
        }
    }
    return {copies.begin(), copies.end()};
}

std::vector<std::string> RepositoryCore::revokeDifferentConstraintRows(
    const std::vector<std::string>& ids, const std::string& revokedAt, store::Connection& db) {
    std::vector<std::string> revoked;
    for (const auto& id : ids) {
        if (contains(revoked, id)) {
            continue;
        }
        // The copies are found before the original is touched.
        const auto copies = liveRemintedConstraintIDs(id, db);
        // No test on revoked_at: a constraint already revoked gets the new time.
        db.run(kRevokeConstraint, {revokedAt, id});
        revoked.push_back(id);
        for (const auto& copy : copies) {
            if (contains(revoked, copy)) {
                continue;
            }
            if (db.run(kRevokeLiveConstraint, {revokedAt, copy}) == 1) {
                revoked.push_back(copy);
            }
        }
    }
    return revoked;
}

std::vector<std::string> RepositoryCore::revokeLiveDifferentConstraints(
    const std::string& sourceIdentityA, const std::string& sourceIdentityB,
    const std::optional<std::string>& personA, const std::optional<std::string>& personB,
    const std::string& revokedAt, store::Connection& db) {
    using Subject = std::pair<ConstraintSubjectType, std::string>;
    constexpr auto identity = ConstraintSubjectType::identity;
    constexpr auto person = ConstraintSubjectType::person;

    std::vector<std::pair<Subject, Subject>> pairs;
    pairs.push_back({{identity, sourceIdentityA}, {identity, sourceIdentityB}});
    if (personA && personB) {
        pairs.push_back({{person, *personA}, {person, *personB}});
    }
    if (personB) {
        pairs.push_back({{identity, sourceIdentityA}, {person, *personB}});
    }
    if (personA) {
        pairs.push_back({{identity, sourceIdentityB}, {person, *personA}});
    }

    std::vector<std::string> ids;
    for (const auto& [a, b] : pairs) {
        appendLiveDifferentConstraintIDs(a.first, a.second, b.first, b.second, ids, db);
    }
    if (personA && personB) {
        auto throughHeads = livePersonPairDifferentConstraintIDs(*personA, *personB, db);
        ids.insert(ids.end(), throughHeads.begin(), throughHeads.end());
    }
    return revokeDifferentConstraintRows(ids, revokedAt, db);
}

}  // namespace orvik::identity::internal

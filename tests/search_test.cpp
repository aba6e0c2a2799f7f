#include <gtest/gtest.h>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Strings = std::vector<std::string>;

using test::ids;

struct Store {
    test::TestDatabase db;
    IdentityRepository repo{db.sharedPool(), nullptr};

    Strings identities(const std::string& query, std::int64_t limit = 50,
                       const Strings& excluding = {}) {
        return ids(repo.searchSourceIdentities(query, limit, excluding));
    }
    Strings people(const std::string& query, std::int64_t limit = 50,
                   const Strings& excluding = {}) {
        return ids(repo.searchUserStatedPeople(query, limit, excluding));
    }

    // A user-stated person with a user-stated name claim.
    void addStatedPerson(const std::string& id, const std::optional<std::string>& name,
                         const std::optional<std::string>& mergedInto = {}) {
        db.addPerson(id, mergedInto, name);
        db.exec("INSERT INTO claim VALUES ('c-" + id + "', '" + id +
                "', NULL, 'display_name', 'user_stated', NULL)");
    }
};

TEST(Search, QueryIsALiteralCaseInsensitiveSubstring) {
    Store s;
    s.db.addIdentity("hit", "gmail", "deals@shop.example", "Get 50%_OFF\\ now");
    s.db.addIdentity("no-backslash", "gmail", "a@x", "50%_off");
    s.db.addIdentity("any-char", "gmail", "b@x", "50%Xoff\\");
    s.db.addIdentity("any-run", "gmail", "c@x", "50 percent_off\\");
    s.db.addIdentity("by-handle", "imessage", "50%_off\\@x");
    EXPECT_EQ(s.identities("  50%_off\\\n"), (Strings{"hit", "by-handle"}));

    s.addStatedPerson("p1", "50%_off\\ Club");
    s.addStatedPerson("p2", "50x_off\\ Club");
    EXPECT_EQ(s.people("\t50%_OFF\\ "), (Strings{"p1"}));
}

TEST(Search, IdentitiesAreOrderedLimitedAndFiltered) {
    Store s;
    s.db.addIdentity("i3", "gmail", "b@x", "Ann");
    s.db.addIdentity("i2", "gmail", "a@x", "Ann");
    s.db.addIdentity("i1", "gmail", "a@x", "Ann");
    s.db.addIdentity("i0", "gmail", "a@x");
    s.db.addIdentity("i4", "gmail", "c@x", "Bea");
    s.db.addIdentity("hidden", "gmail", "0@x", "Aaron");
    s.db.exec("INSERT INTO exclusion_rule VALUES ('r1', 'source_identity', 'hidden', NULL, NULL)");
    EXPECT_EQ(s.identities(" \n\t "), (Strings{"i1", "i2", "i3", "i4", "i0"}));
    EXPECT_EQ(s.identities("", 0), (Strings{"i1"}));
    EXPECT_EQ(s.identities("", -5), (Strings{"i1"}));

    // Marked different from i2 (either orientation, live, identity-identity) drops
    // i1 and i3; a revoked or person-typed constraint does not drop i4 or i0. The
    // constraint against "" would drop i0 if the empty exclusion were kept.
    s.db.addDifferent("k1", "identity", "i2", "identity", "i1");
    s.db.addDifferent("k2", "identity", "i3", "identity", "i2");
    s.db.addDifferent("k3", "identity", "i2", "identity", "i4", "2021-01-01T00:00:00Z");
    s.db.addDifferent("k4", "person", "i2", "person", "i0");
    s.db.addDifferent("k5", "identity", "i0", "identity", "");
    EXPECT_EQ(s.identities("", 50, {"", "i2"}), (Strings{"i2", "i4", "i0"}));
    EXPECT_EQ(s.identities("", 50, {"i2", "i4"}), (Strings{"i2", "i4", "i0"}));
}

// Results longer than the rows gathered on the stack, read twice over so that
// the second search reuses what the first one freed: every record arrives whole
// and in order.
TEST(Search, LongResultsArriveWhole) {
    Store s;
    // Named rows come first, by name; then the unnamed ones, by handle.
    Strings named;
    Strings unnamed;
    for (int i = 0; i < 90; ++i) {
        const std::string n = (i < 10 ? "0" : "") + std::to_string(i);
        const std::string id = "identity-with-a-long-id-" + n;
        const bool hasName = i % 3 != 0;
        s.db.addIdentity(id, "gmail", "someone-" + n + "@long-handles.example",
                         hasName ? "Ann Person Number " + n : std::optional<std::string>{});
        (hasName ? named : unnamed).push_back(id);
    }
    Strings ordered = named;
    ordered.insert(ordered.end(), unnamed.begin(), unnamed.end());
    const Strings firstFifty(ordered.begin(), ordered.begin() + 50);
    for (int round = 0; round < 2; ++round) {
        const auto rows = s.repo.searchSourceIdentities("", 100, {});
        ASSERT_EQ(ids(rows), ordered);
        for (const auto& row : rows) {
            EXPECT_EQ(row, s.repo.sourceIdentity(row.id));
        }
        EXPECT_EQ(s.identities("PERSON", 50), firstFifty);
    }
}

TEST(Search, PeopleAreUserStatedEligibleAndNotDifferentFromTheChosen) {
    Store s;
    s.addStatedPerson("owner", "Aaron");
    s.db.exec("INSERT INTO owner_ego VALUES ('owner')");
    s.addStatedPerson("head", "Abe");
    s.addStatedPerson("old-head", "Old", "head");  // absorbed into head
    s.addStatedPerson("chosen", "Zed");
    s.addStatedPerson("old-chosen", "Old", "chosen");  // absorbed into chosen
    s.db.addDifferent("k1", "person", "old-head", "person", "old-chosen");
    s.addStatedPerson("ann", "Ann");
    s.db.exec("INSERT INTO claim VALUES ('c-a2', 'ann', NULL, 'display_name', 'user_stated', 'x')");
    s.addStatedPerson("unnamed", std::nullopt);
    s.addStatedPerson("hidden", "Bea");
    s.db.exec("INSERT INTO exclusion_rule VALUES ('r', 'person', 'hidden', NULL, NULL)");
    s.addStatedPerson("carl", "Carl");
    s.addStatedPerson("dora", "Dora");
    s.addStatedPerson("inferred", "Cat");
    s.db.exec("UPDATE claim SET provenance = 'inferred' WHERE person_id = 'inferred'");
    s.addStatedPerson("not-stated", "Cy");
    s.db.exec("UPDATE person SET created_from = 'identity_correction' WHERE id = 'not-stated'");

    EXPECT_EQ(s.people(""), (Strings{"head", "ann", "carl", "dora", "chosen"}));
    // head is skipped through the absorbed persons' constraint; the limit counts
    // only what is returned.
    EXPECT_EQ(s.people("", 2, {"", "chosen"}), (Strings{"ann", "carl"}));
    EXPECT_EQ(s.people("a", 0), (Strings{"head"}));
}

}  // namespace
}  // namespace orvik::identity

#include "bench/support/BenchRows.h"

#include <array>
#include <chrono>
#include <random>
#include <unordered_set>

#include "host/HostServices.h"
#include "host/StoreSeeder.h"

namespace orvik::bench {

namespace {

constexpr std::array<const char*, 8> kSourceTypes = {
    "gmail",          "outlook",         "google_calendar", "apple_calendar",
    "apple_contacts", "google_contacts", "imessage",        "hybrid_archive"};
constexpr std::array<const char*, 24> kGivenNames = {
    "Anna", "Ben",   "Carla", "David", "Elena",  "Farid", "Greta", "Hugo",
    "Ines", "Jonas", "Kira",  "Lars",  "Maja",   "Nils",  "Olga",  "Paul",
    "Rosa", "Sami",  "Tove",  "Ulla",  "Viktor", "Wera",  "Yusuf", "Zoe"};
constexpr std::array<const char*, 24> kFamilyNames = {
    "Andersen", "Berg",   "Costa",  "Dahl",     "Eklund", "Fischer", "Garcia", "Hansen",
    "Iversen",  "Jensen", "Keller", "Lund",     "Moreau", "Nowak",   "Olsen",  "Petrov",
    "Quist",    "Rossi",  "Strand", "Toivonen", "Urban",  "Vidal",   "Weber",  "Young"};

// A timestamp in 2024, spread over the year by n.
std::string stamp(std::uint64_t n) {
    using namespace std::chrono;
    constexpr std::uint64_t kYear = 365ULL * 24 * 3600;
    return seed::timestamp(sys_days{2024y / January / 1} + seconds(n % kYear));
}

std::string identityID(int i) {
    return "si-" + std::to_string(i);
}
std::string personID(int p) {
    return "p-" + std::to_string(p);
}

constexpr const char* kSubjectTable =
    "CREATE TABLE IF NOT EXISTS bench_subject (kind TEXT NOT NULL, a TEXT NOT NULL, "
    "b TEXT NOT NULL DEFAULT '')";

}  // namespace

WrittenRows writeRows(store::Connection& db, const RowPlan& plan,
                      const std::function<void(double)>& progress) {
    host::createReferenceSchema(db);
    db.executeScript(kSubjectTable);
    std::mt19937_64 rng(plan.seed);
    auto pick = [&](std::uint64_t n) { return n == 0 ? 0 : static_cast<int>(rng() % n); };
    const int n = plan.identities;
    WrittenRows written;

    // Identities: a handle of their own, or (one in seven) the handle of an earlier
    // identity, which makes exact-key candidates; three in four carry a name.
    std::vector<std::string> handles(n);
    std::vector<std::string> names(n);
    for (int i = 0; i < n; ++i) {
        handles[i] =
            (i > 0 && pick(7) == 0) ? handles[pick(i)] : "c" + std::to_string(i) + "@example.com";
        if (pick(4) != 0) {
            names[i] = std::string(kGivenNames[pick(kGivenNames.size())]) + " " +
                       kFamilyNames[pick(kFamilyNames.size())];
        }
        const auto seen = stamp(rng());
        seed::insert(db,
                     seed::SourceIdentity{
                         .id = identityID(i),
                         .sourceType = kSourceTypes[pick(kSourceTypes.size())],
                         .handleNormalized = handles[i],
                         .displayName = names[i].empty() ? std::nullopt : std::optional(names[i]),
                         .firstSeenAt = seen,
                         .lastSeenAt = seen,
                         .createdAt = seen});
        if (i % 2048 == 0) {
            progress(0.3 * i / n);
        }
    }

    // Persons: one in ten identities stays without a person; the others are
    // grouped into persons of one to three identities.
    struct Person {
        std::vector<int> members;
        bool reserved = false;
    };
    std::vector<Person> persons;
    std::vector<int> unaffiliated;
    for (int i = 0; i < n;) {
        if (pick(10) == 0) {
            unaffiliated.push_back(i++);
            continue;
        }
        Person person;
        const int size = 1 + pick(3);
        for (int k = 0; k < size && i < n; ++k) {
            person.members.push_back(i++);
        }
        persons.push_back(std::move(person));
    }
    auto insertPerson = [&](const std::string& id, const std::string& name, bool userStated,
                            const std::optional<std::string>& mergedInto) {
        seed::insert(db,
                     seed::Person{.id = id,
                                  .displayName = name,
                                  .tier = userStated ? "full" : "stub",
                                  .compiledStateJSON = std::nullopt,
                                  .createdFrom = userStated ? "user_stated" : "identity_resolution",
                                  .mergedIntoPersonID = mergedInto,
                                  .createdAt = stamp(rng())});
    };
    auto insertMembership = [&](const std::string& id, int identity, const std::string& person,
                                const char* state) {
        const auto decided = stamp(rng());
        seed::insert(db, seed::Membership{.id = id,
                                          .sourceIdentityID = identityID(identity),
                                          .canonicalPersonID = person,
                                          .state = state,
                                          .because = "same contact key",
                                          .decidedBy = pick(3) == 0 ? "user" : "auto",
                                          .decidedAt = decided,
                                          .endedAt = std::nullopt,
                                          .createdAt = decided});
    };

    // Set aside, before anything else uses them: single-identity persons for
    // merges (the benchmarks' and the generator's own), for links, and
    // three-identity persons for separation.
    std::vector<int> singles;
    std::vector<int> triples;
    for (int p = 0; p < static_cast<int>(persons.size()); ++p) {
        (persons[p].members.size() == 1 ? singles : triples).push_back(p);
    }
    std::shuffle(singles.begin(), singles.end(), rng);
    std::erase_if(triples, [&](int p) { return persons[p].members.size() != 3; });
    std::shuffle(triples.begin(), triples.end(), rng);
    std::size_t nextSingle = 0;
    auto takeSingle = [&]() {
        const int p = singles.at(nextSingle++);
        persons[p].reserved = true;
        return p;
    };
    for (int k = 0; k < plan.benchPairs; ++k) {
        const int a = takeSingle();
        const int b = takeSingle();
        written.subjects.push_back(
            {"merge_pair", identityID(persons[a].members[0]), identityID(persons[b].members[0])});
    }
    for (int k = 0; k < plan.generationMerges; ++k) {
        const int a = takeSingle();
        const int b = takeSingle();
        written.generationMerges.emplace_back(identityID(persons[a].members[0]),
                                              identityID(persons[b].members[0]));
    }
    std::shuffle(unaffiliated.begin(), unaffiliated.end(), rng);
    std::unordered_set<int> reservedIdentities;
    for (int k = 0; k < plan.benchPairs && 2 * k + 1 < static_cast<int>(unaffiliated.size()); ++k) {
        const int p = takeSingle();
        written.subjects.push_back({"link_pair", identityID(unaffiliated[2 * k]), personID(p)});
        written.subjects.push_back({"unaffiliated", identityID(unaffiliated[2 * k + 1]), ""});
        reservedIdentities.insert(unaffiliated[2 * k]);
        reservedIdentities.insert(unaffiliated[2 * k + 1]);
    }
    for (int k = 0; k < plan.benchPairs && k < static_cast<int>(triples.size()); ++k) {
        persons[triples[k]].reserved = true;
        written.subjects.push_back({"separable", identityID(persons[triples[k]].members[0]), ""});
    }
    for (const auto& person : persons) {
        if (person.reserved) {
            for (int i : person.members) {
                reservedIdentities.insert(i);
            }
        }
    }

    // Persons and memberships; one in twelve unreserved persons absorbed one or two
    // others earlier, and one of its identities still names the oldest of them.
    int chains = 0;
    for (int p = 0; p < static_cast<int>(persons.size()); ++p) {
        const auto& person = persons[p];
        const std::string id = personID(p);
        const std::string name = names[person.members[0]].empty() ? "Person " + std::to_string(p)
                                                                  : names[person.members[0]];
        // One in five persons was named by the user, with the claim that says so.
        const bool userStated = pick(5) == 0;
        insertPerson(id, name, userStated, std::nullopt);
        if (userStated) {
            seed::insert(db, seed::Claim{.id = "cn-" + std::to_string(p),
                                         .personID = id,
                                         .sourceIdentityID = std::nullopt,
                                         .predicate = "display_name",
                                         .provenance = "user_stated",
                                         .value = name});
        }
        std::string memberOf = id;
        if (!person.reserved && pick(12) == 0) {
            const int hops = 1 + pick(2);
            std::string into = id;
            for (int h = 0; h < hops; ++h) {
                const std::string absorbed = id + "-a" + std::to_string(h);
                insertPerson(absorbed, name, false, into);
                into = absorbed;
            }
            memberOf = into;
            if (chains++ < plan.benchPairs) {
                written.subjects.push_back({"chained", identityID(person.members[0]), ""});
            }
        }
        for (std::size_t k = 0; k < person.members.size(); ++k) {
            const int i = person.members[k];
            const char* state = person.reserved ? "confirmed"
                                : pick(20) == 0 ? "possible"
                                : pick(3) == 0  ? "high_conf"
                                                : "confirmed";
            insertMembership("m-" + std::to_string(i), i, k == 0 ? memberOf : id, state);
        }
        if (!person.reserved && person.members.size() > 1 &&
            written.subjects.size() < static_cast<std::size_t>(8 * plan.benchPairs) &&
            pick(4) == 0) {
            written.subjects.push_back({"linked", identityID(person.members[1]), ""});
        }
        if (p % 1024 == 0) {
            progress(0.3 + 0.3 * p / persons.size());
        }
    }

    // Dependent rows of the neighbouring modules.
    for (int p = 0; p < static_cast<int>(persons.size()); ++p) {
        const std::string id = personID(p);
        const int first = persons[p].members[0];
        seed::insert(db, seed::Claim{.id = "cl-" + std::to_string(p),
                                     .personID = id,
                                     .sourceIdentityID = identityID(first),
                                     .predicate = "email",
                                     .provenance = "import",
                                     .value = handles[first]});
        if (pick(5) == 0) {
            seed::insert(db, seed::CaptureAssociation{.sourceObjectID = "co-" + std::to_string(p),
                                                      .personID = id,
                                                      .state = "active",
                                                      .endedAt = std::nullopt});
        }
        if (pick(10) == 0) {
            const std::string loop = "ol-" + std::to_string(p);
            seed::insert(db,
                         seed::OpenLoop{.id = loop, .personID = id, .detectedAt = stamp(rng())});
            seed::insert(db, seed::FollowUp{.id = "fu-" + std::to_string(p),
                                            .openLoopID = loop,
                                            .personID = id,
                                            .state = "open"});
            seed::insert(db, seed::AttentionCandidate{.candidateKey = "rac-" + std::to_string(p),
                                                      .personID = id,
                                                      .openLoopID = loop,
                                                      .detectedAt = stamp(rng())});
        }
        if (pick(20) == 0) {
            seed::insert(db, seed::AttentionDisposition{.candidateKey = "rad-" + std::to_string(p),
                                                        .personID = id,
                                                        .disposition = "dismissed"});
        }
    }
    progress(0.65);

    // Threads of two or three participants, half of them within one person.
    for (int t = 0; t < n / 2; ++t) {
        const std::string thread = "t-" + std::to_string(t);
        std::unordered_set<int> members;
        const auto& person = persons[pick(persons.size())];
        members.insert(person.members[0]);
        members.insert(pick(2) == 0 ? person.members.back() : pick(n));
        if (pick(3) == 0) {
            members.insert(pick(n));
        }
        for (int i : members) {
            seed::insert(
                db, seed::ThreadParticipant{.threadID = thread, .sourceIdentityID = identityID(i)});
        }
    }
    progress(0.8);

    // Different constraints between unreserved subjects: N/50 person-person and
    // N/20 identity-identity, live, decided by the user; a few revoked ones.
    std::vector<int> freePersons;
    for (int p = 0; p < static_cast<int>(persons.size()); ++p) {
        if (!persons[p].reserved) {
            freePersons.push_back(p);
        }
    }
    auto freeIdentity = [&]() {
        for (;;) {
            const int i = pick(n);
            if (!reservedIdentities.contains(i)) {
                return i;
            }
        }
    };
    auto constraint = [&](const std::string& id, const char* type, const std::string& a,
                          const std::string& b, bool revoked) {
        const auto created = stamp(rng());
        seed::insert(
            db, seed::Constraint{.id = id,
                                 .aType = type,
                                 .aID = a,
                                 .bType = type,
                                 .bID = b,
                                 .kind = "different",
                                 .decidedBy = "user",
                                 .createdAt = created,
                                 .revokedAt = revoked ? std::optional(created) : std::nullopt});
    };
    for (int k = 0; k < n / 50; ++k) {
        constraint("kp-" + std::to_string(k), "person",
                   personID(freePersons[pick(freePersons.size())]),
                   personID(freePersons[pick(freePersons.size())]), false);
    }
    for (int k = 0; k < n / 500; ++k) {
        constraint("kr-" + std::to_string(k), "person",
                   personID(freePersons[pick(freePersons.size())]),
                   personID(freePersons[pick(freePersons.size())]), true);
    }
    for (int k = 0; k < n / 20; ++k) {
        constraint("ki-" + std::to_string(k), "identity", identityID(freeIdentity()),
                   identityID(freeIdentity()), false);
    }

    // The user: a person with two handles, one a connected account and one a
    // declared alias; a few identities excluded from presentation.
    insertPerson("p-owner", "Me", true, std::nullopt);
    seed::insert(db, seed::OwnerEgo{.personID = "p-owner"});
    for (int k = 0; k < 2; ++k) {
        const std::string id = "si-owner-" + std::to_string(k);
        const std::string handle = "me" + std::to_string(k) + "@example.com";
        seed::insert(db, seed::SourceIdentity{.id = id,
                                              .sourceType = "gmail",
                                              .handleNormalized = handle,
                                              .displayName = "Me",
                                              .firstSeenAt = stamp(k),
                                              .lastSeenAt = stamp(k),
                                              .createdAt = stamp(k)});
        seed::insert(db, seed::Membership{.id = "m-owner-" + std::to_string(k),
                                          .sourceIdentityID = id,
                                          .canonicalPersonID = "p-owner",
                                          .state = "confirmed",
                                          .because = "user confirmed",
                                          .decidedBy = "user",
                                          .decidedAt = stamp(k),
                                          .endedAt = std::nullopt,
                                          .createdAt = stamp(k)});
    }
    seed::insert(db, seed::SourceAccount{.sourceType = "gmail", .handle = "me0@example.com"});
    seed::insert(db, seed::OwnerAlias{.sourceType = "gmail",
                                      .handleNormalized = "me1@example.com",
                                      .subjectID = "bench",
                                      .sourceIdentityID = "si-owner-1",
                                      .createdAt = stamp(1)});
    for (int k = 0; k < std::max(1, n / 1000); ++k) {
        seed::insert(db, seed::ExclusionRule{.id = "ex-" + std::to_string(k),
                                             .scope = "source_identity",
                                             .targetID = identityID(freeIdentity()),
                                             .reason = "hidden",
                                             .createdAt = stamp(rng())});
    }

    for (const auto& subject : written.subjects) {
        db.run("INSERT INTO bench_subject (kind, a, b) VALUES (?, ?, ?)",
               {subject.kind, subject.a, subject.b});
    }
    progress(0.9);
    return written;
}

}  // namespace orvik::bench

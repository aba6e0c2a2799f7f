// SHA-256's own functions, deprecated in OpenSSL 3 in favour of EVP, hash an
// identifier's few bytes without EVP's provider dispatch, which took three times
// the instructions of the hashing itself and as much code again to run.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/sha.h>
#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "host/HostServices.h"

namespace orvik::host {

std::string stableIDOf(const std::vector<std::string_view>& parts) {
    // The parts joined by the unit separator, hashed as they come.
    SHA256_CTX context;
    bool hashed = SHA256_Init(&context) == 1;
    for (std::size_t i = 0; hashed && i < parts.size(); ++i) {
        if (i > 0) {
            hashed = SHA256_Update(&context, "\x1f", 1) == 1;
        }
        hashed = hashed && SHA256_Update(&context, parts[i].data(), parts[i].size()) == 1;
    }
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    if (!hashed || SHA256_Final(digest.data(), &context) != 1) {
        throw std::runtime_error("SHA-256 digest failed");
    }

    // The first 16 bytes in the 8-4-4-4-12 form of a UUID.
    static constexpr char kHex[] = "0123456789abcdef";
    std::array<char, 36> id{};
    std::size_t at = 0;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            id[at++] = '-';
        }
        id[at++] = kHex[digest[i] >> 4];
        id[at++] = kHex[digest[i] & 0x0f];
    }
    return std::string(id.data(), id.size());
}

namespace {

// Random bytes for identifiers, drawn from the kernel a few hundred at a time and
// each handed out once. libuuid's own generator seeds and cranks the C library's
// random() on every call, which cost more than a whole correction's statements.
// A forked child must not hand out its parent's remaining bytes: the fork
// generation makes every thread's buffer stale in the child.
std::atomic<std::uint64_t> forkGeneration{0};

void drawRandom(unsigned char* out, std::size_t length) {
    struct Buffer {
        std::array<unsigned char, 512> bytes{};
        std::size_t used = 512;
        std::uint64_t generation = 0;
    };
    static std::once_flag atFork;
    std::call_once(atFork, [] {
        (void)pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1); });
    });
    thread_local Buffer buffer;
    const auto generation = forkGeneration.load();
    if (buffer.generation != generation) {
        buffer.used = buffer.bytes.size();
        buffer.generation = generation;
    }
    if (buffer.bytes.size() - buffer.used < length) {
        std::size_t filled = 0;
        while (filled < buffer.bytes.size()) {
            const ssize_t n =
                getrandom(buffer.bytes.data() + filled, buffer.bytes.size() - filled, 0);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                throw std::runtime_error(std::string("cannot draw random bytes: ") +
                                         std::strerror(errno));
            }
            filled += static_cast<std::size_t>(n);
        }
        buffer.used = 0;
    }
    std::memcpy(out, buffer.bytes.data() + buffer.used, length);
    // Handed out once: the bytes are not kept once they are given away.
    std::memset(buffer.bytes.data() + buffer.used, 0, length);
    buffer.used += length;
}

}  // namespace

std::string newUUID() {
    // A version 4 (random) UUID, as uuid_generate_random makes it.
    uuid_t uuid;
    drawRandom(uuid, sizeof uuid);
    uuid[6] = static_cast<unsigned char>((uuid[6] & 0x0f) | 0x40);
    uuid[8] = static_cast<unsigned char>((uuid[8] & 0x3f) | 0x80);
    std::array<char, 37> text{};
    uuid_unparse_lower(uuid, text.data());
    return std::string(text.data());
}

std::string timestampText(std::chrono::sys_seconds time) {
    using namespace std::chrono;
    const sys_days day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    const int year = static_cast<int>(date.year());
    if (year < 0 || year > 9999) {
        throw std::out_of_range("a timestamp needs a year from 0000 to 9999, not " +
                                std::to_string(year));
    }
    std::string text = "0000-00-00T00:00:00Z";
    auto put = [&](std::size_t at, unsigned value, std::size_t digits) {
        for (std::size_t i = digits; i-- > 0; value /= 10) {
            text[at + i] = static_cast<char>('0' + value % 10);
        }
    };
    put(0, static_cast<unsigned>(year), 4);
    put(5, static_cast<unsigned>(date.month()), 2);
    put(8, static_cast<unsigned>(date.day()), 2);
    put(11, static_cast<unsigned>(clock.hours().count()), 2);
    put(14, static_cast<unsigned>(clock.minutes().count()), 2);
    put(17, static_cast<unsigned>(clock.seconds().count()), 2);
    return text;
}

std::string nowTimestamp() {
    // Corrections stamp several steps within the same second: the text of the
    // last second asked for is kept per thread.
    thread_local std::chrono::sys_seconds last{};
    thread_local std::string text;
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    if (text.empty() || now != last) {
        text = timestampText(now);
        last = now;
    }
    return text;
}

namespace {

// Statement texts are constants, so that the connection finds each one's prepared
// statement again without building the text.
const std::string kSelectOwnerEgo = "SELECT person_id FROM owner_ego LIMIT 1";
const std::string kIsOwnerAlias =
    "SELECT EXISTS(SELECT 1 FROM owner_alias WHERE source_type = ? AND handle_normalized = "
    "?)";
const std::string kInsertOwnerAlias =
    "INSERT INTO owner_alias (source_type, handle_normalized, subject_id, "
    "source_identity_id, created_at) VALUES (?, ?, ?, ?, ?)";
const std::string kSelectBoundPerson =
    "SELECT canonical_person_id FROM identity_membership\n"
    "WHERE source_identity_id = ? AND ended_at IS NULL AND state IN "
    "('high_conf','confirmed')\n"
    "LIMIT 1";
const std::string kInsertAliasExclusion =
    "INSERT INTO exclusion_rule (id, scope, target_id, reason, created_at)\n"
    "SELECT ?, 'person', ?, 'owner_alias', ?\n"
    "WHERE NOT EXISTS (SELECT 1 FROM exclusion_rule WHERE id = ?)";
const std::string kDeleteOwnerAlias =
    "DELETE FROM owner_alias WHERE source_type = ? AND handle_normalized = ?";
const std::string kBumpGeneration =
    "UPDATE relationship_projection_generation SET generation = generation + 1 "
    "WHERE id = 1";
const std::string kInsertGeneration =
    "INSERT INTO relationship_projection_generation (id, generation) VALUES (1, 1)";
const std::string kRetractCandidatesOfLoop =
    "DELETE FROM relationship_attention_candidate WHERE open_loop_id = ?";
const std::string kDeleteCandidatesOfPerson =
    "DELETE FROM relationship_attention_candidate WHERE person_id = ?";
const std::string kSelectScheduledFollowUps =
    "SELECT f.open_loop_id, o.detected_at\n"
    "FROM follow_up f JOIN open_loop o ON o.id = f.open_loop_id\n"
    "WHERE f.person_id = ? AND f.state = 'scheduled'\n"
    "ORDER BY f.id";
const std::string kInsertCandidate =
    "INSERT OR REPLACE INTO relationship_attention_candidate\n"
    "(candidate_key, person_id, open_loop_id, detected_at) VALUES (?, ?, ?, ?)";

class ReferenceOwnerEgo final : public OwnerEgoProjection {
  public:
    std::string personID(store::Connection& db) override {
        std::string id;
        db.query(kSelectOwnerEgo, {}, [&](const store::Row& row) { id = row.text("person_id"); });
        return id;
    }
};

class ReferenceOwnerAliases final : public OwnerAliasRegistry {
  public:
    bool isAlias(store::Connection& db, const std::string& sourceType,
                 const std::string& handleNormalized) override {
        return db.scalarFlag(kIsOwnerAlias, {sourceType, handleNormalized});
    }

    Declaration declareAliasAndExcludeBoundPerson(store::Connection& db,
                                                  const std::string& sourceType,
                                                  const std::string& handleNormalized,
                                                  const std::string& subjectID,
                                                  const std::string& sourceIdentityID) override {
        const std::string now = nowTimestamp();
        Declaration result;

        result.wasNewAlias = !isAlias(db, sourceType, handleNormalized);
        if (result.wasNewAlias) {
            db.run(kInsertOwnerAlias,
                   {sourceType, handleNormalized, subjectID, sourceIdentityID, now});
        }

        // The store keeps at most one active membership per identity; take the first.
        std::optional<std::string> bound;
        db.query(kSelectBoundPerson, {sourceIdentityID},
                 [&](const store::Row& row) { bound = row.text("canonical_person_id"); });
        if (!bound) {
            return result;
        }

        result.excludedPersonID = bound;
        const std::string ruleID = stableID("owner-alias-exclusion", *bound);
        // The rule's identifier is derived from the person, so declaring a second
        // alias bound to the same person finds the rule already there.
        result.insertedExclusion =
            db.run(kInsertAliasExclusion, {ruleID, *bound, now, ruleID}) == 1;
        return result;
    }

    void removeAlias(store::Connection& db, const std::string& sourceType,
                     const std::string& handleNormalized) override {
        db.run(kDeleteOwnerAlias, {sourceType, handleNormalized});
    }
};

class ReferenceProjectionGeneration final : public RelationshipProjectionGeneration {
  public:
    void bump(store::Connection& db) override {
        // No UPSERT before SQLite 3.24: update, and create the row when there was none.
        const int changed = db.run(kBumpGeneration);
        if (changed == 0) {
            db.run(kInsertGeneration);
        }
    }
};

std::string notExcluded(const char* scope, const std::string& column) {
    return std::string("(NOT EXISTS (SELECT 1 FROM exclusion_rule er WHERE er.scope = '") + scope +
           "' AND er.target_id = " + column + "))";
}

class ReferencePresentationEligibility final : public SourceIdentityPresentationEligibility {
  public:
    std::string presentationPredicateSQL(
        const std::string& identityIDColumn, const std::string& /*sourceTypeColumn*/,
        const std::optional<std::string>& /*personIDColumn*/) override {
        return notExcluded("source_identity", identityIDColumn);
    }

    std::string manualCorrectionPredicateSQL(const std::string& identityIDColumn,
                                             const std::string& /*sourceTypeColumn*/,
                                             const std::string& /*handleColumn*/) override {
        return notExcluded("source_identity", identityIDColumn);
    }
};

class ReferenceSourceEligibility final : public SourceEligibility {
  public:
    // Every policy gets the person-exclusion filter: the identity library only asks
    // for identityCorrection, and for the others a stricter filter is never wrong.
    std::string personPredicateSQL(Policy /*policy*/, const std::string& personIDColumn) override {
        return notExcluded("person", personIDColumn);
    }
};

class ReferenceFollowUpScheduler final : public FollowUpScheduler {
  public:
    std::optional<AttentionCatchUpItem> attentionItem(
        const std::string& personID, const std::string& openLoopID,
        const std::optional<std::string>& detectedAt) override {
        if (!detectedAt || detectedAt->empty()) {
            return std::nullopt;
        }
        return AttentionCatchUpItem{
            "follow-up|" + personID + "|" + openLoopID + "|" + *detectedAt,
            personID,
            openLoopID,
            *detectedAt,
        };
    }

    void retractCandidate(store::Connection& db, const std::string& openLoopID) override {
        db.run(kRetractCandidatesOfLoop, {openLoopID});
    }

    void reprojectCandidatesCore(store::Connection& db, const std::string& personID) override {
        db.run(kDeleteCandidatesOfPerson, {personID});

        struct Scheduled {
            std::string openLoopID;
            std::optional<std::string> detectedAt;
        };
        // Read everything first so that no insert runs while the read is open.
        std::vector<Scheduled> scheduled;
        db.query(kSelectScheduledFollowUps, {personID}, [&](const store::Row& row) {
            scheduled.push_back({row.text("open_loop_id"), row.optionalText("detected_at")});
        });

        for (const auto& followUp : scheduled) {
            const auto item = attentionItem(personID, followUp.openLoopID, followUp.detectedAt);
            if (!item) {
                continue;
            }
            db.run(kInsertCandidate,
                   {item->candidateKey, item->personID, item->openLoopID, item->detectedAt});
        }
    }
};

}  // namespace

HostServices HostServices::reference() {
    return HostServices{
        std::make_shared<ReferenceOwnerEgo>(),
        std::make_shared<ReferenceOwnerAliases>(),
        std::make_shared<ReferenceProjectionGeneration>(),
        std::make_shared<ReferencePresentationEligibility>(),
        std::make_shared<ReferenceSourceEligibility>(),
        std::make_shared<ReferenceFollowUpScheduler>(),
    };
}

}  // namespace orvik::host

// The repository's cores and internal helpers. Only the repository (and the
// tests that check its helpers directly) include this header.
//
// Every function takes the open connection of the caller's transaction as its
// last parameter and never opens a transaction of its own. Any of them may throw
// store::DatabaseError; row decoding throws IdentityStoreError::corruptRestoreMap.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <memory_resource>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "host/HostServices.h"
#include "identity/IdentityModels.h"
#include "store/Database.h"

namespace orvik::identity::internal {

// Row decoding, by column name.
[[nodiscard]] SourceIdentityRow decodeSourceIdentity(const store::Row& row);
[[nodiscard]] PersonRow decodePerson(const store::Row& row);
// Reads and parses state, then decided_by, before the other columns.
[[nodiscard]] IdentityMembershipRow decodeMembership(const store::Row& row);
// Reads and parses decided_by before the other columns.
[[nodiscard]] MergeEventRow decodeMergeEvent(const store::Row& row);
[[nodiscard]] IdentityConstraintRow decodeConstraint(const store::Row& row);

// A row decoded straight into a container's storage, without a move of the
// record: rows.emplace_back(DecodedInPlace{row, decodeMembership}).
template <typename Decode>
struct DecodedInPlace {
    const store::Row& row;
    Decode decode;
    operator std::invoke_result_t<Decode, const store::Row&>() const { return decode(row); }
};
template <typename Decode>
DecodedInPlace(const store::Row&, Decode) -> DecodedInPlace<Decode>;

// "<n> shared thread(s)" for n >= 1, else "user confirmed".
[[nodiscard]] std::string sharedThreadBecause(std::int64_t sharedThreads);
// Distinct threads in which both identities take part.
[[nodiscard]] std::int64_t countSharedThreads(const std::string& a, const std::string& b,
                                              store::Connection& db);
// An active membership as the snapshot records it (state and decider as texts).
[[nodiscard]] MergePreState::PriorMembership priorMembership(const IdentityMembershipRow& row);
// Ends the identity's active memberships to other persons, then confirms its open
// membership to the person (upgrading it in place) or inserts one. Returns the
// membership written.
std::string confirmMembershipTo(const std::string& sourceIdentityID, const std::string& personID,
                                const std::string& because, const std::string& now,
                                store::Connection& db);

// Raises the error a correction gives for a link or merge response that is not a
// success, through correctionRefusal with the operation's name ("confirm",
// "separate"). A success status without an event reads as "linked" / "merged".
[[noreturn]] void throwRefusal(std::string_view operation,
                               const schema::LinkIdentityResponse& response);
[[noreturn]] void throwRefusal(std::string_view operation,
                               const schema::ProposeMergeResponse& response);

// Statement texts that more than one core uses, in one place (the stored word
// kSeparatedByUser is in IdentityModels.h).
// The texts go to SQLite exactly as written (the statement cache is keyed by them).
// Both spellings of the live-constraint test are in use and must stay as they
// are: the undo checks with EXISTS, the other cores with count(*).
inline const std::string kRevokeLiveConstraint =
    "UPDATE identity_constraint SET revoked_at = ? WHERE id = ? AND revoked_at IS NULL";
inline const std::string kIsLiveConstraint =
    "SELECT count(*) > 0 FROM identity_constraint WHERE id = ? AND revoked_at IS NULL";
inline const std::string kIsLiveConstraintExists =
    "SELECT EXISTS(SELECT 1 FROM identity_constraint WHERE id = ? AND revoked_at IS NULL)";

// Room for the rows of a result that stops at `limit`, so that they are not moved
// each time the result grows; at most 64 are reserved ahead.
[[nodiscard]] inline std::size_t reservedRows(std::int64_t limit) noexcept {
    return static_cast<std::size_t>(std::clamp<std::int64_t>(limit, 0, 64));
}

// The maximum number of merged_into_person_id hops followed from a person.
inline constexpr int kAbsorptionChainHops = 20;

class RepositoryCore;

// Text the operation memo keeps, allocated from its arena.
using MemoString = std::pmr::string;

// Hashes and compares any kind of text, so that a table keyed by MemoString is
// searched with a std::string or a view, without a copy.
struct TextHash {
    using is_transparent = void;
    // Deliberately not noexcept: libstdc++ then keeps each key's hash in its node,
    // instead of hashing the keys again while it walks a bucket or rehashes.
    //
    // Eight bytes at a time, each folded in with one multiplication: the keys are
    // identifiers of a few dozen bytes, looked up for every row of a constraint
    // scan, and std::hash takes three times as long over them. The last word
    // overlaps the one before it where the length is not a multiple of eight.
    std::size_t operator()(std::string_view text) const {
        constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15ULL;
        const auto fold = [](std::uint64_t h, std::uint64_t word) {
            h = (h ^ word) * kOdd;
            return h ^ (h >> 32);
        };
        const char* bytes = text.data();
        const std::size_t size = text.size();
        std::uint64_t h = (size + 1) * kOdd;
        if (size >= 8) {
            for (std::size_t at = 0; at + 8 < size; at += 8) {
                h = fold(h, load<std::uint64_t>(bytes + at));
            }
            h = fold(h, load<std::uint64_t>(bytes + size - 8));
        } else if (size >= 4) {
            h = fold(h, load<std::uint32_t>(bytes) |
                            std::uint64_t{load<std::uint32_t>(bytes + size - 4)} << 32);
        } else if (size > 0) {
            h = fold(h, std::uint64_t{static_cast<unsigned char>(bytes[0])} |
                            std::uint64_t{static_cast<unsigned char>(bytes[size / 2])} << 8 |
                            std::uint64_t{static_cast<unsigned char>(bytes[size - 1])} << 16);
        }
        return static_cast<std::size_t>(h ^ (h >> 29));
    }

  private:
    template <typename Word>
    static Word load(const char* bytes) {
        Word word;
        std::memcpy(&word, bytes, sizeof word);
        return word;
    }
};
struct TextEqual {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const noexcept { return a == b; }
};
template <typename Value>
using TextMap = std::pmr::unordered_map<MemoString, Value, TextHash, TextEqual>;

// The b ends of the live person-person "different" constraints, filed by the
// absorption head of their a end. The ends are views of the scanned rows
// (OperationMemo::PersonPairEnds), which must outlive the index.
using PersonPairIndex = TextMap<std::pmr::vector<std::string_view>>;

// An order of the memo's keys (identifiers, pairs of texts, small integers) that
// is cheap to test: texts by length, then by their first eight bytes taken as one
// number, and only then byte by byte. Identifiers of one length nearly always
// differ in their first eight bytes, so a lookup in a tree of hundreds of them
// rarely compares memory.
// Transparent: a pair of views finds a pair of texts without copying them.
struct MemoKeyLess {
    using is_transparent = void;

    static int compare(std::string_view a, std::string_view b) noexcept {
        if (a.size() != b.size()) {
            return a.size() < b.size() ? -1 : 1;
        }
        if (a.size() >= 8) {
            std::uint64_t wordA = 0;
            std::uint64_t wordB = 0;
            std::memcpy(&wordA, a.data(), sizeof wordA);
            std::memcpy(&wordB, b.data(), sizeof wordB);
            if (wordA != wordB) {
                return wordA < wordB ? -1 : 1;
            }
        }
        return a.compare(b);
    }
    bool operator()(std::string_view a, std::string_view b) const noexcept {
        return compare(a, b) < 0;
    }
    template <typename A1, typename A2, typename B1, typename B2>
    bool operator()(const std::pair<A1, A2>& a, const std::pair<B1, B2>& b) const noexcept {
        const int first = compare(a.first, b.first);
        return first != 0 ? first < 0 : compare(a.second, b.second) < 0;
    }
    bool operator()(int a, int b) const noexcept { return a < b; }
};

// Bytes an answer keeps allocated beyond its record's short texts: what a node
// kept between transactions would hold on to.
template <typename T>
std::size_t answerBytes(const T&) noexcept {
    return 0;
}
template <typename T>
std::size_t answerBytes(const std::vector<T>& rows) noexcept {
    return rows.capacity() * sizeof(T);
}
inline std::size_t answerBytes(const std::optional<MergeEventRow>& event) noexcept {
    return event ? event->preMergeStateJSON.capacity() : 0;
}

// The answers of one kind of read by key, kept until the transaction writes one
// of the tables the read depends on (as the connection's update hook counts
// them). An answer handed out stays where it is until the transaction ends, also
// after it went stale, so that callers may hold it by reference for the length
// of the operation instead of copying it.
template <typename Key, typename Value>
class ReadMemo {
  public:
    // Built for every transaction that reads: no allocation here.
    ReadMemo(std::initializer_list<std::string_view> tables) {
        for (const auto table : tables) {
            seen_.at(tables_++) = {table, 0};
        }
    }

    // The answer for key; on a miss, fill(Value&) reads it into a value that
    // may hold an answer of an earlier transaction, and must overwrite all of it.
    // key is a Key or what MemoKeyLess compares with one, such as a pair of views.
    template <typename Lookup, typename Fill>
    const Value& getInto(store::Connection& db, const Lookup& key, Fill&& fill) {
        if (const Value* known = find(db, key)) {
            return *known;
        }
        // The answer is read into a node of its own and filed only when it is
        // complete: a read that asks this memo for other keys, or that fails,
        // leaves the table as it would be without it.
        typename Values::node_type node;
        if (spare_.empty()) {
            Values fresh;
            node = fresh.extract(fresh.try_emplace(Key(key)).first);
        } else {
            // A node of an earlier transaction: its key and strings keep their
            // storage, so that the answer is read without allocating.
            node = std::move(spare_.back());
            spare_.pop_back();
            spareBytes_ -= answerBytes(node.mapped().value);
            node.key() = key;
        }
        fill(node.mapped().value);
        return values_.insert(std::move(node)).position->second.value;
    }

    // An answer read outside a transaction, where nothing may be remembered: kept
    // only so that the reference stays valid, until the memo is emptied.
    const Value& keep(Value value) {
        return *kept_.emplace_back(std::make_unique<Value>(std::move(value)));
    }

    // The answer already read for the key, if any.
    template <typename Lookup>
    const Value* find(store::Connection& db, const Lookup& key) {
        bool stale = false;
        if (const auto rows = db.rowChanges(); rows != rowsSeen_) {
            rowsSeen_ = rows;
            for (std::size_t i = 0; i < tables_; ++i) {
                auto& [table, changes] = seen_[i];
                if (const auto now = db.tableChanges(table); now != changes) {
                    changes = now;
                    stale = true;
                }
            }
        }
        if (stale && !values_.empty()) {
            // The nodes move with the map: references handed out stay valid.
            retired_.push_back(std::move(values_));
            values_.clear();
        }
        const auto it = values_.find(key);
        return it == values_.end() ? nullptr : &it->second.value;
    }

    // Forgets everything; only between transactions. Up to kSpareNodes of the
    // answers' nodes are kept for the next transactions to read into, none
    // holding more than kLargestSpareAnswer of long texts and lists, and all of
    // them no more than kSpareAnswerBytes.
    void clear() noexcept {
        recycle(values_);
        for (auto& retired : retired_) {
            recycle(retired);
        }
        retired_.clear();
        kept_.clear();
    }

  private:
    struct Entry {
        Value value{};
    };
    using Values = std::map<Key, Entry, MemoKeyLess>;
    static constexpr std::size_t kSpareNodes = 1024;
    static constexpr std::size_t kSpareAnswerBytes = 4 * 1024 * 1024;
    static constexpr std::size_t kLargestSpareAnswer = 64 * 1024;

    void recycle(Values& values) noexcept {
        if (values.empty()) {
            return;
        }
        if (spare_.capacity() < kSpareNodes) {
            try {
                spare_.reserve(kSpareNodes);
            } catch (...) {
                values.clear();
                return;
            }
        }
        while (!values.empty() && spare_.size() < kSpareNodes) {
            auto node = values.extract(values.begin());
            const std::size_t bytes = answerBytes(node.mapped().value);
            if (bytes <= kLargestSpareAnswer && spareBytes_ + bytes <= kSpareAnswerBytes) {
                spareBytes_ += bytes;
                spare_.push_back(std::move(node));
            }
        }
        values.clear();
    }

    std::array<std::pair<std::string_view, std::uint64_t>, 5> seen_{};
    std::size_t tables_ = 0;
    // The connection's rowChanges() when seen_ was last brought up to date.
    std::uint64_t rowsSeen_ = 0;
    // A tree: its nodes stay where they are when the map is moved into
    // retired_, and a small map allocates nothing but its nodes.
    Values values_;
    std::vector<Values> retired_;
    std::vector<std::unique_ptr<Value>> kept_;
    // Nodes of earlier transactions, with the storage of their keys and answers.
    std::vector<typename Values::node_type> spare_;
    std::size_t spareBytes_ = 0;  // answerBytes of spare_
};

// What one operation has already read, so that it reads each row once: absorption
// heads, the scans of live person-person constraints, and single rows the cores
// ask for again. Lives on the connection for one transaction
// (store::Connection::transactionMemo) and is dropped when it ends, but for the
// last merge snapshots and what the history takes from the snapshots, both
// recognised by their text; an entry is
// forgotten as soon as the transaction writes the table it came from, except
// where the writer tells the memo what it wrote (personAbsorbed, unrelatedWrite).
struct OperationMemo {
  private:
    // What the tables of heads and constraint ends allocate comes from here: a
    // block of the memo's own, then larger blocks for a large operation, all let
    // go at once when the transaction ends. A scan of thousands of constraints
    // then costs no allocation per row, and leaves no thousands of small blocks
    // for the allocator to sweep up during the next operation.
    static constexpr std::size_t kArenaBlock = 48 * 1024;
    alignas(std::max_align_t) std::array<std::byte, kArenaBlock> arenaBlock_;
    std::pmr::monotonic_buffer_resource arena_{arenaBlock_.data(), arenaBlock_.size()};

    // Snapshots known to the connection, each with the text it was decoded from
    // or encoded to. They outlive the transaction, since a record is handed out
    // only for a text equal to its own, compared in full: a snapshot changed or
    // rolled back since is decoded afresh. Between transactions the
    // kKeptSnapshots used last stay; a record somebody still holds is never
    // decoded into.
    struct KnownSnapshot {
        std::string eventID;
        std::string text;
        bool decodable = false;
        std::shared_ptr<MergePreState> snapshot;
        std::uint64_t lastUse = 0;
    };
    static constexpr std::size_t kKeptSnapshots = 8;
    std::vector<KnownSnapshot> snapshots_;
    std::uint64_t snapshotUses_ = 0;
    std::uint64_t usesBeforeTransaction_ = 0;
    // What snapshots that are not kept decode into; it keeps its storage.
    MergePreState decodeScratch_;
    // The entry of eventID, else the one used longest ago of those this
    // transaction has not used, else a new one; marked as used now.
    KnownSnapshot& snapshotSlot(const std::string& eventID);
    // The entry's record taken out for refilling: itself when nobody else holds
    // it, else a new one.
    static std::shared_ptr<MergePreState> refillable(KnownSnapshot& entry);

  public:
    OperationMemo() = default;
    OperationMemo(const OperationMemo&) = delete;
    OperationMemo& operator=(const OperationMemo&) = delete;

    // The memo of the connection's current transaction, cleared of whatever the
    // transaction has written since; null outside a transaction.
    static OperationMemo* of(store::Connection& db);

    std::pmr::memory_resource* arena() noexcept { return &arena_; }
    // A text kept in the arena.
    MemoString text(std::string_view value) { return MemoString(value, &arena_); }

    // Where the walk from a person ends: its head, the hops taken, and whether
    // the walk was cut off at the hop limit instead of reaching a person that was
    // not absorbed (or does not exist).
    struct Head {
        MemoString id;
        int hops = 0;
        bool cut = false;
    };
    TextMap<Head> heads{&arena_};
    // (a_id, b_id) of the live person-person constraints.
    using PersonPairEnds = std::pmr::vector<std::pair<MemoString, MemoString>>;
    std::optional<PersonPairEnds> personPairEnds;
    // (id, a_id, b_id) of the same rows.
    struct PersonPairRow {
        MemoString id, a, b;
    };
    std::optional<std::pmr::vector<PersonPairRow>> personPairRows;
    // personPairEnds filed by the head of their a end.
    std::optional<PersonPairIndex> personPairsByHeadOfA;

    ReadMemo<std::string, std::optional<PersonRow>> persons{"person"};
    ReadMemo<std::string, std::optional<SourceIdentityRow>> sourceIdentities{"source_identity"};
    ReadMemo<std::string, std::optional<IdentityMembershipRow>> activeMembershipOfIdentity{
        "identity_membership"};
    ReadMemo<std::string, std::vector<IdentityMembershipRow>> activeMembershipsOfPerson{
        "identity_membership"};
    ReadMemo<std::string, std::optional<MergeEventRow>> mergeEvents{"merge_event"};
    ReadMemo<int, std::string> ownerPerson{"owner_ego"};
    // The record a merge event's snapshot text decodes to; null when the text is
    // not a valid snapshot. A text this connection decoded or wrote lately is not
    // decoded again.
    std::shared_ptr<const MergePreState> snapshotOf(const std::string& eventID,
                                                    const std::string& text);
    // Call after writing `text`, the encoding of `snapshot`, as the snapshot of
    // eventID: an undo right after the correction then finds the record instead
    // of decoding the text the correction has just encoded.
    void snapshotWritten(const std::string& eventID, std::string text,
                         MergePreState snapshot) noexcept;
    // What the history takes from a snapshot.
    struct SnapshotFacts {
        bool decodable = false;
        // The persons of the memberships active before the change.
        std::vector<std::string> priorPersons;
        // The identities of the memberships the change wrote, in the snapshot's
        // order.
        std::vector<std::string> touchedIdentities;
    };
    // Decodes text into scratch and takes its facts into facts, reusing the
    // storage of both.
    static void takeFacts(std::string_view text, MergePreState& scratch, SnapshotFacts& facts);
    // The facts of an event's snapshot text, valid until the next call. Those of
    // the kKeptFacts events asked for last stay for the connection's life, each
    // with its text, and are handed out again only for a text equal to it: the
    // history of a person shown again does not decode its snapshots again.
    const SnapshotFacts& snapshotFacts(const std::string& eventID, const std::string& text);
    // Owner tests by (source type, handle) and by person.
    ReadMemo<std::pair<std::string, std::string>, bool> ownerIdentities{
        "owner_alias", "source_account", "owner_ego", "source_identity", "identity_membership"};
    ReadMemo<std::string, bool> ownerPersons{"owner_alias", "source_account", "owner_ego",
                                             "source_identity", "identity_membership"};

    // Empties the memo between transactions; what it allocated stays allocated.
    void clear() noexcept;

    // Call right after the transaction's own "UPDATE person SET
    // merged_into_person_id = survivor WHERE id = absorbed", with the memo taken
    // (of) right before it: the heads and head pairs are carried over to the new
    // chains instead of being forgotten. Anything else written in between, or a
    // survivor whose own head is not known, makes it forget as before.
    void personAbsorbed(store::Connection& db, const std::string& survivor,
                        const std::string& absorbed);
    // Call right after one write to `table` that changes nothing the memo
    // answers (a new person under a fresh identifier, a 'same' constraint), with
    // the memo taken right before it.
    void unrelatedWrite(store::Connection& db, std::string_view table);

  private:
    // Snapshot facts by event id, each with the text they were taken from;
    // valid is false while they are being replaced.
    struct KnownFacts {
        std::string text;
        bool valid = false;
        std::uint64_t lastUse = 0;
        SnapshotFacts facts;
    };
    static constexpr std::size_t kKeptFacts = 64;
    static constexpr std::size_t kLargestKeptFactsText = 16 * 1024;
    std::unordered_map<std::string, KnownFacts> facts_;
    std::uint64_t factUses_ = 0;
    SnapshotFacts uncachedFacts_;
    std::uint64_t personChanges_ = 0;
    std::uint64_t constraintChanges_ = 0;
    std::uint64_t rowsSeen_ = 0;
};

// The memoised answer of `which` for `key` within the current transaction;
// outside one, `fill` runs every time. fill(Value&) reads the answer into the
// value given, overwriting whatever it held. The answer stays valid until the
// transaction ends (outside one, until the connection's next transaction).
template <typename Key, typename Value, typename Lookup, typename Fill>
const Value& memoisedReadInto(store::Connection& db, ReadMemo<Key, Value> OperationMemo::*which,
                              const Lookup& key, Fill&& fill) {
    if (OperationMemo* memo = OperationMemo::of(db)) {
        return (memo->*which).getInto(db, key, std::forward<Fill>(fill));
    }
    Value value{};
    fill(value);
    return (db.transactionMemo<OperationMemo>().*which).keep(std::move(value));
}

// The same with read() returning the answer.
template <typename Key, typename Value, typename Lookup, typename Read>
const Value& memoisedRead(store::Connection& db, ReadMemo<Key, Value> OperationMemo::*which,
                          const Lookup& key, Read&& read) {
    return memoisedReadInto(db, which, key, [&](Value& value) { value = read(); });
}

// Files each (a_id, b_id) under the head of a_id, in memory from resource.
// Resolves every a end, none of the b ends. The index views the b ends in ends.
PersonPairIndex indexByHeadOfA(const OperationMemo::PersonPairEnds& ends, RepositoryCore& core,
                               store::Connection& db, std::pmr::memory_resource* resource);

// Answers hasDifferentConstraint for pairs of persons, many times within one
// transaction: the live person-person constraints are scanned and the heads of
// their a ends resolved once, on first use; a b end is resolved when a test
// needs it. Only valid while nothing writes constraints or persons, as in a read
// that checks many rows.
class PersonDifferenceIndex {
  public:
    PersonDifferenceIndex(RepositoryCore& core, store::Connection& db) : core_(core), db_(db) {}
    bool differ(const std::string& personA, const std::string& personB);

  private:
    RepositoryCore& core_;
    store::Connection& db_;
    std::optional<OperationMemo::PersonPairEnds> ends_;  // what index_ views
    std::optional<PersonPairIndex> index_;
};

class RepositoryCore {
  public:
    explicit RepositoryCore(host::HostServices services);

    [[nodiscard]] const host::HostServices& services() const noexcept { return services_; }

    // --- Single-row and list reads --------------------------------------------

    // The same rows read straight into the caller's record, outside the memo:
    // for the public reads, whose transaction asks for nothing twice.
    std::optional<SourceIdentityRow> readSourceIdentity(const std::string& id,
                                                        store::Connection& db);
    std::optional<PersonRow> readPerson(const std::string& id, store::Connection& db);
    std::optional<IdentityMembershipRow> readActiveMembership(const std::string& sourceIdentityID,
                                                              store::Connection& db);
    std::vector<IdentityMembershipRow> readActiveMemberships(const std::string& personID,
                                                             store::Connection& db);
    std::optional<MergeEventRow> readMergeEvent(const std::string& id, store::Connection& db);
    // The single-row and list reads answer with the operation's memoised copy,
    // valid until the transaction ends.
    const std::optional<SourceIdentityRow>& sourceIdentityRow(const std::string& id,
                                                              store::Connection& db);
    const std::optional<PersonRow>& personRow(const std::string& id, store::Connection& db);
    // The first active membership SQLite returns (at most one is expected).
    const std::optional<IdentityMembershipRow>& activeMembershipRow(
        const std::string& sourceIdentityID, store::Connection& db);
    const std::vector<IdentityMembershipRow>& activeMembershipRows(const std::string& personID,
                                                                   store::Connection& db);
    const std::optional<MergeEventRow>& mergeEventRow(const std::string& id, store::Connection& db);
    // The event's snapshot, decoded once per transaction (as long as its text is
    // unchanged); null when it cannot be decoded. event must be the row that
    // mergeEventRow gave within this transaction.
    std::shared_ptr<const MergePreState> decodedSnapshot(const MergeEventRow& event,
                                                         store::Connection& db);
    // The newest unreversed event naming the person as survivor or absorbed; ties
    // on created_at go to the row inserted last.
    std::optional<MergeEventRow> latestUndoableMergeEventRow(const std::string& personID,
                                                             store::Connection& db);
    // The live head of the identity's active membership, with the membership's
    // state, decider and reason. Absent without an active membership or when the
    // head person does not exist.
    std::optional<ResolvedPerson> resolveCanonicalPerson(const std::string& sourceIdentityID,
                                                         store::Connection& db);

    // --- Owner tests -----------------------------------------------------------

    // The user's own person (OwnerEgoProjection.personID), read once per
    // transaction until owner_ego is written.
    const std::string& ownerPersonID(store::Connection& db);

    // The handle is a registered alias, a connected account, or the handle of an
    // active member of the user's own person.
    bool isOwnerIdentity(const std::string& sourceType, const std::string& handleNormalized,
                         store::Connection& db);
    // The person is the user's own, or one of its active members is an owner
    // identity.
    bool personContainsOwnerIdentity(const std::string& personID, store::Connection& db);
    bool hasOwnerAliasExclusion(const std::string& personID, store::Connection& db);
    // A handle of the person that is registered as one of the user's own.
    std::optional<std::string> ownerAliasHandle(const std::string& personID, store::Connection& db);

    // --- Persons and claims ------------------------------------------------------

    // Follows merged_into_person_id for at most 20 hops. A missing person ends the
    // walk at its identifier; a cycle ends wherever the 20th hop lands. Never fails
    // on a broken chain.
    // Within a transaction the rows walked through are kept for personRow.
    std::string absorptionChainHead(const std::string& personID, store::Connection& db);
    // The same head, for the many walks of a constraint scan: reads only where
    // each person went and keeps no row (a row already kept is used).
    std::string scannedAbsorptionChainHead(std::string_view personID, store::Connection& db);
    // The claims owned by the person, in id order.
    std::vector<std::string> claimIDs(const std::string& personID, store::Connection& db);
    // Inserts a stub person created by an identity correction; returns its id.
    std::string createPersonRow(store::Connection& db);

    // --- Different-person constraints --------------------------------------------

    struct ConstraintRef {
        std::string id;
        std::string decidedBy;
        bool operator==(const ConstraintRef&) const = default;
    };

    // Exact symmetric match when either side is an identity; for two persons, a
    // match between the absorption heads (false when both have the same head).
    bool hasDifferentConstraint(ConstraintSubjectType aType, const std::string& aID,
                                ConstraintSubjectType bType, const std::string& bID,
                                store::Connection& db);
    // Exact symmetric match whatever the types, in result order.
    std::vector<ConstraintRef> liveDifferentConstraintRows(ConstraintSubjectType aType,
                                                           const std::string& aID,
                                                           ConstraintSubjectType bType,
                                                           const std::string& bID,
                                                           store::Connection& db);
    // The ids of liveDifferentConstraintRows, appended to ids.
    void appendLiveDifferentConstraintIDs(ConstraintSubjectType aType, const std::string& aID,
                                          ConstraintSubjectType bType, const std::string& bID,
                                          std::vector<std::string>& ids, store::Connection& db);
    // Live person-person constraints whose heads are the two persons' heads.
    std::vector<std::string> livePersonPairDifferentConstraintIDs(const std::string& personA,
                                                                  const std::string& personB,
                                                                  store::Connection& db);
    // Live re-minted copies of a constraint naming an archive participant, sorted.
    std::vector<std::string> liveRemintedConstraintIDs(const std::string& originalConstraintID,
                                                       store::Connection& db);
    // Revokes each listed constraint once (even if already revoked) together with
    // its live re-minted copies; returns what it revoked, in order.
    std::vector<std::string> revokeDifferentConstraintRows(const std::vector<std::string>& ids,
                                                           const std::string& revokedAt,
                                                           store::Connection& db);
    // Revokes every live constraint between the two identities, between the two
    // persons (directly or through absorption) and across them.
    std::vector<std::string> revokeLiveDifferentConstraints(
        const std::string& sourceIdentityA, const std::string& sourceIdentityB,
        const std::optional<std::string>& personA, const std::optional<std::string>& personB,
        const std::string& revokedAt, store::Connection& db);

    // --- Identity link ---------------------------------------------------------------

    // Links one identity to one person. Refusals are responses; nothing is written
    // before a refusal except in the post-condition case. Throws
    // ownerIdentityUnmergeable and supersededByLaterCorrection. The caller's
    // additionally revoked constraints lead the snapshot's revoked list.
    schema::LinkIdentityResponse linkIdentityCore(
        const schema::LinkIdentityRequest& request, const std::string& operationID,
        const std::vector<std::string>& additionalRevokedConstraintIDs, store::Connection& db);
    // "same contact key", "<n> shared thread(s)" or "user confirmed".
    std::string computeLinkBecause(const std::string& sourceIdentityID, const std::string& personID,
                                   store::Connection& db);
    // Every membership row (active or ended) of the identities, in id order.
    std::vector<MergePreState::MembershipRowImage> membershipRowImages(
        const std::vector<std::string>& sourceIdentityIDs, store::Connection& db);
    // Whether those rows are exactly these images, in any order.
    bool membershipRowsAre(const std::vector<MergePreState::MembershipRowImage>& expected,
                           const std::vector<std::string>& sourceIdentityIDs,
                           store::Connection& db);

    // --- Person merge -----------------------------------------------------------------

    // Absorbs personIDB into personIDA. Refusals are responses. Throws
    // ownerIdentityUnmergeable, corruptRestoreMap (snapshot encoding) and the
    // errors of the follow-up scheduler.
    schema::ProposeMergeResponse proposeMergeCore(
        const schema::ProposeMergeRequest& request, const std::string& operationID,
        const std::vector<std::string>& additionalRevokedConstraintIDs, store::Connection& db);
    std::string computeMergeBecause(const std::string& personA, const std::string& personB,
                                    store::Connection& db);
    // The person rows with those ids, in id order; missing persons are left out.
    std::vector<MergePreState::PersonRowImage> personRowImages(const std::vector<std::string>& ids,
                                                               store::Connection& db);

    // --- Repointing of rows other modules keep per person --------------------------

    std::vector<MergePreState::CaptureAssociationImage> repointCaptureAssociations(
        const std::string& from, const std::string& to, store::Connection& db);

    struct FollowUpRepointing {
        std::vector<MergePreState::ClaimOwnershipImage> followUps;
        std::vector<MergePreState::ClaimOwnershipImage> openLoops;
        std::vector<MergePreState::DispositionKeyImage> dispositionKeys;
    };
    FollowUpRepointing repointFollowUpsAndOpenLoops(const std::string& from, const std::string& to,
                                                    store::Connection& db);

    // --- Undo -------------------------------------------------------------------------

    // Reverses one link, merge or separation event from its snapshot. Verifies
    // every post-image before writing anything. Throws notFound(id),
    // alreadyReversed, corruptRestoreMap, restoreSnapshotIncomplete and
    // supersededByLaterCorrection.
    UndoMergeResult undoMerge(const std::string& mergeEventID, const std::string& decidedAt,
                              store::Connection& db);
    // Undoes the events in the given order, then applies the no-reabsorption guard.
    std::vector<UndoMergeResult> undoConfirmationCore(const std::vector<std::string>& mergeEventIDs,
                                                      store::Connection& db);
    void applyNoReabsorptionGuard(
        const std::set<std::string>& affectedIdentityIDs,
        const std::map<std::string, std::string>& preBatchPersonIDByIdentity,
        const std::string& decidedAt, store::Connection& db);
    // The person automatic ingestion creates for a lone identity:
    // stableID("person-auto", "email" or "phone", handle).
    static std::string automaticPersonID(const SourceIdentityRow& identity);

    // --- Mark different ------------------------------------------------------------------

    // Refusals are responses. When the two persons are one at present, first undoes
    // the merge that joined them (its errors propagate).
    schema::MarkDifferentResponse markDifferentCore(const schema::MarkDifferentRequest& request,
                                                    store::Connection& db);
    // The newest unreversed merge event between the two persons, either direction.
    std::optional<std::string> connectingMergeEvent(const std::string& personA,
                                                    const std::string& personB,
                                                    store::Connection& db);

    // --- Candidate confirmation and rejection ----------------------------------------

    IdentityConfirmResult confirmCandidateCore(
        const IdentityCandidate& candidate, const std::string& operationID,
        SubjectLineage subjectLineage, const std::string& subjectID,
        const std::vector<std::string>& additionalRevokedConstraintIDs, store::Connection& db);
    void rejectCandidateWrite(const IdentityCandidate& candidate, SubjectLineage subjectLineage,
                              const std::string& subjectID, store::Connection& db);
    // Persons absorbed by the operation's events; -1 when the count fails.
    std::int64_t absorbedPersonCount(const std::string& operationID,
                                     store::Connection& db) noexcept;

    // --- Candidates and context --------------------------------------------------

    // Distinct threads in which both identities take part.
    std::int64_t sharedThreadCount(const std::string& a, const std::string& b,
                                   store::Connection& db);
    // Scored pairs of identities with equal normalised handles that are not one
    // person, not marked different, not the user's own and both presentable; at
    // most limit of them (none for a limit below 1). Throws the eligibility
    // service's errors.
    std::vector<IdentityCandidate> exactKeyCandidates(std::int64_t limit, store::Connection& db);
    // Absent when the identity is missing or marked different from a compared one.
    std::optional<IdentityCandidateContext> candidateContext(
        const std::string& sourceIdentityID, const std::vector<std::string>& relativeTo,
        store::Connection& db);

    // --- Readback -----------------------------------------------------------------

    // Fills every count except the candidate section.
    void readbackCounts(IdentityCorrectionCounts& counts, store::Connection& db);

    // --- Separation -----------------------------------------------------------------

    // Moves the identity into a new stub person, marks it different from every
    // identity that stays behind, and rewrites the link event as a separation.
    IdentityConfirmResult separateIdentityCore(const std::string& sourceIdentityID,
                                               const std::string& subjectID, store::Connection& db);

    // --- Manual link ----------------------------------------------------------------

    // What one manual-link target stands for: an identity without an active
    // membership, or the absorption head of the person it names or belongs to.
    struct ResolvedManualLinkSide {
        std::variant<SourceIdentityRow, std::string> value;
        [[nodiscard]] const std::string* personHead() const {
            return std::get_if<std::string>(&value);
        }
        [[nodiscard]] const SourceIdentityRow* unaffiliatedIdentity() const {
            return std::get_if<SourceIdentityRow>(&value);
        }
    };

    IdentityConfirmResult confirmManualLinkCore(
        const SourceIdentityRow& a, const SourceIdentityRow& b, const std::string& operationID,
        SubjectLineage subjectLineage, const std::string& subjectID, store::Connection& db);
    // Targets must be distinct and include at least one person.
    IdentityConfirmResult confirmManualLinkTargetsCore(const std::vector<ManualLinkTarget>& targets,
                                                       const std::string& operationID,
                                                       SubjectLineage subjectLineage,
                                                       const std::string& subjectID,
                                                       store::Connection& db);
    ResolvedManualLinkSide resolveManualLinkSide(const ManualLinkTarget& target,
                                                 store::Connection& db);
    // The head with members wins over one without; then the earlier created_at;
    // then the smaller identifier.
    std::optional<std::string> manualLinkSurvivor(const std::vector<std::string>& personHeads,
                                                  store::Connection& db);
    std::optional<ManualLinkSurvivorPrediction> predictManualLinkSurvivor(
        const std::vector<ManualLinkTarget>& targets, store::Connection& db);

    // --- Owner aliases --------------------------------------------------------------

    // Declares each identity (duplicates kept) and records what was inserted.
    OwnerAliasDeclarationOutcome declareOwnerAliasCore(
        const std::vector<std::string>& sourceIdentityIDs, const std::string& subjectID,
        store::Connection& db);
    // Removes exactly what the mutation records.
    void undoOwnerAliasMutationCore(const OwnerAliasMutation& mutation, store::Connection& db);

    // --- History ----------------------------------------------------------------------

    // A merge_event row as the history reads it.
    struct HistoryEventRow {
        std::string id;
        std::string survivingPersonID;
        std::optional<std::string> absorbedPersonID;
        std::string preMergeStateJSON;
        std::optional<std::string> because;
        std::string createdAt;
        std::optional<std::string> reversedAt;
        std::optional<std::string> operationID;
    };

    std::vector<IdentityHistoryEntry> identityHistory(const std::string& personID,
                                                      store::Connection& db);
    // Absent when the events do not concern the person. factsOf(row) gives what
    // the row's snapshot records.
    std::optional<IdentityHistoryEntry> historyEntry(
        const std::vector<HistoryEventRow>& rows, const std::string& personID,
        const std::function<const OperationMemo::SnapshotFacts&(const HistoryEventRow&)>& factsOf,
        store::Connection& db);

    // --- Search -----------------------------------------------------------------------

    // A backslash before every backslash, percent sign and underscore.
    static std::string escapedLikePattern(std::string_view text);
    std::vector<SourceIdentityRow> searchSourceIdentities(
        const std::string& query, std::int64_t limit,
        const std::vector<std::string>& excludingSourceIdentityIDs, store::Connection& db);
    std::vector<LinkablePersonRow> searchUserStatedPeople(
        const std::string& query, std::int64_t limit,
        const std::vector<std::string>& excludingPersonIDs, store::Connection& db);

  private:
    // The walk behind the absorption operations. keepRows: whole rows are read
    // through personRow inside a transaction.
    std::string walkAbsorptionChain(std::string_view personID, store::Connection& db,
                                    bool keepRows);

    host::HostServices services_;
};

}  // namespace orvik::identity::internal

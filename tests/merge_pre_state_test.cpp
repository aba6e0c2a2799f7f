#include <gtest/gtest.h>

#include "identity/IdentityModels.h"

namespace orvik::identity {
namespace {

using Membership = MergePreState::MembershipRowImage;
constexpr auto none = std::nullopt;

std::string minimalWith(const std::string& extra) {
    return R"({"priorActiveMemberships":[],"priorClaimPersonID":{},"writtenMembershipIDs":[])" +
           extra + "}";
}

TEST(MergePreStateCodec, EncodesExactBytesAndRoundTripsEveryField) {
    MergePreState s;
    s.priorActiveMemberships = {{"m1", "si/1", "p1", "confirmed", none, "user", "t0"}};
    s.priorClaimPersonID = {{"c2", "p2"}, {"c1", "p1"}};
    s.writtenMembershipIDs = {"m2"};
    s.membershipPreimages = {
        {"m1", "si/1", "p1", "confirmed", "a\tb\x1f\"q\"\\\n\b\f\r", "user", "t0", none}};
    s.membershipPostImages = {{"m1", "si/1", "p1", "confirmed", none, "user", "t0", "t1"}};
    s.personPostImages = {{"p1", "Zoë 山田", "user_stated", none, none}};
    s.createdSameConstraintID = "k1";
    s.dispositionKeyImages = {{"p2|x", "p1|x", "p2", "p1"}};
    EXPECT_EQ(
        encodeJSON(s),
        R"({"priorActiveMemberships":[{"id":"m1","sourceIdentityID":"si\/1","canonicalPersonID":"p1","state":"confirmed","decidedBy":"user","decidedAt":"t0"}],)"
        R"("priorClaimPersonID":{"c1":"p1","c2":"p2"},"writtenMembershipIDs":["m2"],)"
        R"("revokedDifferentConstraintIDs":[],"createdDifferentConstraintIDs":[],)"
        R"("membershipPreimages":[{"id":"m1","sourceIdentityID":"si\/1","canonicalPersonID":"p1","state":"confirmed","because":"a\tb\u001f\"q\"\\\n\b\f\r","decidedBy":"user","decidedAt":"t0"}],)"
        R"("membershipPostImages":[{"id":"m1","sourceIdentityID":"si\/1","canonicalPersonID":"p1","state":"confirmed","decidedBy":"user","decidedAt":"t0","endedAt":"t1"}],)"
        R"("preExistingSurvivorClaimIDs":[],"personPreimages":[],)"
        R"("personPostImages":[{"id":"p1","displayName":"Zoë 山田","tier":"user_stated"}],)"
        R"("claimOwnershipImages":[],"createdSameConstraintID":"k1","captureAssociationImages":[],)"
        R"("followUpOwnershipImages":[],"openLoopOwnershipImages":[],)"
        R"("dispositionKeyImages":[{"oldCandidateKey":"p2|x","newCandidateKey":"p1|x","preimagePersonID":"p2","postimagePersonID":"p1"}]})");

    EXPECT_EQ(encodeJSON(MergePreState{}).find("createdSameConstraintID"), std::string::npos);

    s.revokedDifferentConstraintIDs = {"d1", "d2"};
    s.createdDifferentConstraintIDs = {"d3"};
    s.preExistingSurvivorClaimIDs = {"c9", "\xC2\x80", "\xEF\xBF\xBF", "\xF4\x8F\xBF\xBF"};
    s.personPreimages = {{"p2", none, "auto", "capture/1", "p1"}};
    s.claimOwnershipImages = {{"c1", "p2", "p1"}};
    s.captureAssociationImages = {{"o1", "p2", "p1", "ended", "t2"},
                                  {"o2", "p2", "p1", none, none}};
    s.followUpOwnershipImages = {{"f1", "p2", "p1"}};
    s.openLoopOwnershipImages = {{"l1", "p2", "p1"}};
    EXPECT_EQ(decodeMergePreState(encodeJSON(s)), s);
}

TEST(MergePreStateCodec, DecodesAnyKeyOrderNullsAndOlderSnapshotsAndRejectsOthers) {
    MergePreState expected;
    expected.writtenMembershipIDs = {"m/1"};
    expected.priorClaimPersonID = {{"c1", "p1"}};
    expected.membershipPreimages = {{"m1", "s1", "p1", "confirmed", none, "user", "t0", none}};
    expected.personPostImages = {{"p1", none, "auto", none, none}};
    EXPECT_EQ(
        decodeMergePreState(
            R"( {"future":{"x":[1,2]},"dispositionKeyImages":null,"createdSameConstraintID":null,)"
            R"("personPostImages":[{"tier":"auto","mergedIntoPersonID":null,"id":"p1"}],)"
            R"("membershipPreimages":[{"endedAt":null,"because":null,"decidedAt":"t0",)"
            R"("decidedBy":"user","state":"confirmed","canonicalPersonID":"p1","sourceIdentityID":"s1",)"
            R"("id":"m1"}],"writtenMembershipIDs":["m\/1"],"priorClaimPersonID":{"c1":"p1"},)"
            R"("priorActiveMemberships":[]} )"),
        expected);
    EXPECT_EQ(decodeMergePreState(minimalWith("")), MergePreState{});  // an older snapshot

    const std::vector<std::string> malformed = {
        "not json",
        minimalWith("") + " x",
        R"({"priorActiveMemberships":null,"priorClaimPersonID":{},"writtenMembershipIDs":[]})",
        R"({"priorActiveMemberships":[],"priorClaimPersonID":{}})",
        R"({"priorActiveMemberships":[],"priorClaimPersonID":{"c":1},"writtenMembershipIDs":[]})",
        minimalWith(R"(,"createdSameConstraintID":5)"),
        minimalWith(R"(,"claimOwnershipImages":[{"id":"c1","preimagePersonID":"p2"}])"),
        minimalWith(R"(,"dispositionKeyImages":[null])"),
        minimalWith(R"(,"membershipPreimages":[{"id":"m","sourceIdentityID":"s",)"
                    R"("canonicalPersonID":"p","state":"confirmed","decidedBy":"user"}])"),
        minimalWith(",\"createdSameConstraintID\":\"\xC3\""),
    };
    for (const std::string& text : malformed) {
        EXPECT_EQ(decodeMergePreState(text), std::nullopt) << text;
    }
}

// The direct reader must answer exactly as the general JSON reader for every text:
// the snapshots as written, other spellings of them, and every text one edit away.
TEST(MergePreStateCodec, DirectReadingAgreesWithTheGeneralReader) {
    MergePreState s;
    s.priorActiveMemberships = {{"m1", "si/1", "p1", "confirmed", "why", "user", "t0"}};
    s.priorClaimPersonID = {{"c1", "p1"}, {"c/2", "p2"}};
    s.writtenMembershipIDs = {"m2", "m3"};
    s.revokedDifferentConstraintIDs = {"d1"};
    s.createdDifferentConstraintIDs = {"d2"};
    s.membershipPreimages = {{"m1", "si/1", "p1", "confirmed", "a\tb\"\\", "user", "t0", none}};
    s.membershipPostImages = {{"m1", "si/1", "p1", "ended", none, "user", "t0", "t1"}};
    s.preExistingSurvivorClaimIDs = {"c9", "\xC2\x80", "\xF4\x8F\xBF\xBF"};
    s.personPreimages = {{"p2", "Zoë", "auto", "capture/1", "p1"}};
    s.personPostImages = {{"p1", none, "user_stated", none, none}};
    s.claimOwnershipImages = {{"c1", "p2", "p1"}};
    s.createdSameConstraintID = "k1";
    s.captureAssociationImages = {{"o1", "p2", "p1", "ended", "t2"}};
    s.followUpOwnershipImages = {{"f1", "p2", "p1"}};
    s.openLoopOwnershipImages = {{"l1", "p2", "p1"}};
    s.dispositionKeyImages = {{"p2|x", "p1|x", "p2", "p1"}};
    // Long texts too: strings are scanned in blocks of sixteen bytes.
    s.writtenMembershipIDs.push_back("3f2b9c1e-8d4a-4e6f-9b2c-7a1d5e8f0c3b");
    s.personPreimages.push_back({"p3", "Anne-Marie Lefebvre-Dubois", "auto", none, none});
    const std::string written = encodeJSON(s);
    ASSERT_EQ(decodeMergePreState(written), s);

    std::vector<std::string> texts = {
        written,
        minimalWith(""),
        " \t\r\n" + minimalWith(" ") + "\n",
        "\xEF\xBB\xBF" + minimalWith(""),
        minimalWith(R"(,"createdSameConstraintID":"a","createdSameConstraintID":"b")"),
        minimalWith(R"(,"future":[1,true,{"x":-2.5e3}])"),
        minimalWith(R"(,"createdSameConstraintID":"\u00e9\u4e2d\ud83d\ude00\u0000\/")"),
        minimalWith(R"(,"createdSameConstraintID":"\ud83d")"),
        minimalWith(R"(,"createdSameConstraintID":"\ude00")"),
        minimalWith(R"(,"createdSameConstraintID":"\u12G4")"),
        minimalWith(R"(,"createdSameConstraintID":1e999)"),
        minimalWith(R"(,"claimOwnershipImages":[{"id":"c","preimagePersonID":"a",)"
                    R"("postimagePersonID":"b","id":"d"}])"),
        minimalWith(R"(,"claimOwnershipImages":[{"id":"c","preimagePersonID":"a",)"
                    R"("postimagePersonID":"b","extra":null}])"),
        R"({"priorActiveMemberships":[],"priorClaimPersonID":{"c":"a","c":"b"},)"
        R"("writtenMembershipIDs":[]})",
        R"({"priorActiveMemberships":[],"priorClaimPersonID":{"c\/1":"a"},)"
        R"("writtenMembershipIDs":[]})",
    };
    // Every text one edit away from the snapshot as written.
    static constexpr char kReplacements[] = "\"\\{}[],: n0\x01\xC3\x80";
    const std::string replacements(kReplacements, sizeof kReplacements - 1);
    for (std::size_t at = 0; at < written.size(); ++at) {
        texts.push_back(written.substr(0, at));
        texts.push_back(written.substr(0, at) + written.substr(at + 1));
        for (const char c : replacements) {
            std::string edited = written;
            edited[at] = c;
            texts.push_back(edited);
        }
    }
    for (const std::string& text : texts) {
        EXPECT_EQ(decodeMergePreState(text), decodeMergePreStateInGeneral(text)) << text;
    }
}

// Whatever byte interrupts a long run of plain ones, wherever it falls in a block,
// the writer escapes it as the general reader expects and the direct reader
// reads it back.
TEST(MergePreStateCodec, LongTextsRoundTripWithASpecialByteAtEveryOffset) {
    for (const std::string special : {"/", "\"", "\\", "\n", "\x7f", "\xC3\xA9"}) {
        for (std::size_t at = 0; at <= 40; ++at) {
            std::string text(48, 'a');
            text.insert(at, special);
            MergePreState s;
            s.createdSameConstraintID = text;
            const std::string written = encodeJSON(s);
            ASSERT_EQ(decodeMergePreStateInGeneral(written), s) << written;
            ASSERT_EQ(decodeMergePreState(written), s) << written;
            if (special == "/") {
                EXPECT_NE(written.find(std::string(at, 'a') + "\\/"), std::string::npos) << written;
            }
        }
    }
}

// The writer starts with a buffer of a few kilobytes and grows it where a value,
// an escape or a field name no longer fits; the growth must fall on every kind
// of write somewhere in these snapshots.
TEST(MergePreStateCodec, SnapshotsLargerThanTheFirstBufferRoundTrip) {
    for (std::size_t rows = 30; rows <= 100; rows += 7) {
        MergePreState s;
        for (std::size_t i = 0; i < rows; ++i) {
            const std::string n = std::to_string(i);
            s.membershipPreimages.push_back(
                {"m" + n, "si/" + n, "p" + n, "confirmed", "\x01\"" + n + "\n", "user", "t", none});
            s.priorClaimPersonID["c/" + n] = "p" + n;
        }
        const std::string written = encodeJSON(s);
        ASSERT_GT(written.size(), 4096u);
        ASSERT_EQ(decodeMergePreStateInGeneral(written), s) << rows;
        EXPECT_EQ(decodeMergePreState(written), s) << rows;
    }
}

// A record decoded into again keeps nothing of the snapshot it held: every pair
// of these, one decoded over the other, reads as the second on its own. Lists
// grow and shrink, optionals come and go (absent and null), older snapshots
// lack members, and some texts are only read by the general reader.
TEST(MergePreStateCodec, DecodingIntoARecordThatHeldAnotherSnapshotReadsOnlyTheNewOne) {
    MergePreState full;
    full.priorActiveMemberships = {{"m1", "s1", "p1", "confirmed", "why", "user", "t0"},
                                   {"m2", "s2", "p1", "confirmed", none, "user", "t0"}};
    full.priorClaimPersonID = {{"c1", "p1"}, {"c2", "p2"}};
    full.writtenMembershipIDs = {"m3", "m4", "m5"};
    full.membershipPreimages = {{"m1", "s1", "p1", "confirmed", "a\"b", "user", "t0", "t9"}};
    full.membershipPostImages = {{"m1", "s1", "p2", "ended", "x", "user", "t0", "t1"},
                                 {"m3", "s3", "p2", "confirmed", none, "user", "t1", none}};
    full.personPreimages = {{"p2", "Zoë", "auto", "capture/1", "p1"}};
    full.createdSameConstraintID = "k1";
    full.captureAssociationImages = {{"o1", "p2", "p1", "ended", "t2"}};
    full.dispositionKeyImages = {{"p2|x", "p1|x", "p2", "p1"}};
    MergePreState small;
    small.writtenMembershipIDs = {"m9"};
    small.membershipPostImages = {{"m9", "s9", "p9", "confirmed", none, "user", "t5", none}};
    small.personPreimages = {{"p9", none, "auto", none, none}};

    const std::vector<std::string> texts = {
        encodeJSON(full),
        encodeJSON(small),
        encodeJSON(MergePreState{}),
        minimalWith(""),
        minimalWith(R"(,"createdSameConstraintID":null,"membershipPostImages":null)"),
        minimalWith(R"(,"membershipPostImages":[{"id":"m1","sourceIdentityID":"s1",)"
                    R"("canonicalPersonID":"p2","state":"ended","because":null,)"
                    R"("decidedBy":"user","decidedAt":"t0"}])"),
        minimalWith(R"(,"future":[1],"createdSameConstraintID":"k2")"),
        "\xEF\xBB\xBF" + encodeJSON(small),
        "not a snapshot",
    };
    for (const std::string& first : texts) {
        for (const std::string& second : texts) {
            MergePreState state;
            (void)decodeMergePreStateInto(first, state);
            const bool decoded = decodeMergePreStateInto(second, state);
            const auto alone = decodeMergePreState(second);
            ASSERT_EQ(decoded, alone.has_value()) << first << "\nthen " << second;
            if (alone) {
                EXPECT_EQ(state, *alone) << first << "\nthen " << second;
            }
        }
    }
}

TEST(MergePreStateCodec, EncodeRefusesMalformedUtf8AnywhereInTheSnapshot) {
    for (const std::string text :
         {"a\xC3(", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80"}) {
        // In a plain list, a map key and a nested optional field.
        MergePreState inList, inKey, inOptional;
        inList.writtenMembershipIDs = {text};
        inKey.priorClaimPersonID = {{text, "p"}};
        inOptional.membershipPostImages = {{"m", "s", "p", "confirmed", none, "user", "t", text}};
        for (const MergePreState* s : {&inList, &inKey, &inOptional}) {
            try {
                (void)encodeJSON(*s);
                ADD_FAILURE() << "no error for " << testing::PrintToString(text);
            } catch (const IdentityStoreError& error) {
                EXPECT_EQ(error.errorCase(), IdentityStoreError::Case::corruptRestoreMap);
            }
        }
    }
}

TEST(MergePreStateCodec, AffectedIdentitiesAreUniqueAndSortedByBytes) {
    const auto image = [](std::string identity) {
        return Membership{"m", std::move(identity), "p", "confirmed", none, "user", "t", none};
    };
    MergePreState s;
    s.membershipPostImages = {image("s\xC3\xA9"), image("sb"), image("sA")};
    s.membershipPreimages = {image("sb"), image("sa"), image("s\xC3\xA9")};
    EXPECT_EQ(affectedIdentityIDs(s), (std::vector<std::string>{"sA", "sa", "sb", "s\xC3\xA9"}));
}

}  // namespace
}  // namespace orvik::identity

// The manual-link screen's searches over source identities and user-stated
// persons. The query is always matched as a literal substring.
#include <algorithm>
#include <iterator>
#include <memory_resource>

#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

const std::string kIdentitySearchTextHead =
    "SELECT * FROM source_identity\n"
    "WHERE (display_name LIKE ? ESCAPE '\\'\n"
    "   OR handle_normalized LIKE ? ESCAPE '\\')\n"
    "  AND ";
const std::string kIdentitySearchPlainHead =
    "SELECT * FROM source_identity\n"
    "WHERE ";
const std::string kIdentityExclusionClause =
    "AND NOT EXISTS (SELECT 1 FROM identity_constraint c WHERE c.kind = 'different' AND "
    "c.revoked_at IS NULL AND c.a_type = 'identity' AND c.b_type = 'identity' AND ((c.a_id = "
    "source_identity.id AND c.b_id = ?) OR (c.a_id = ? AND c.b_id = source_identity.id)))";
const std::string kIdentitySearchTail =
    "ORDER BY display_name IS NULL, display_name, handle_normalized, id\n"
    "LIMIT ?";

const std::string kPersonSearchHead =
    "SELECT DISTINCT p.id, p.display_name, p.created_at FROM person p\n"
    "JOIN claim c ON c.person_id = p.id\n"
    "WHERE p.created_from = 'user_stated'\n"
    "  AND p.merged_into_person_id IS NULL\n"
    "  AND c.predicate = 'display_name'\n"
    "  AND c.provenance = 'user_stated'\n"
    "  AND ";
const std::string kPersonSearchTextFilter = "  AND p.display_name LIKE ? ESCAPE '\\'";
const std::string kPersonSearchExclusionOpen = "  AND p.id NOT IN (";
const std::string kPersonSearchOrder =
    "ORDER BY p.display_name IS NULL, p.display_name, p.created_at, p.id";

// Length of the Unicode white-space character or line break that starts `text`
// (UTF-8), or 0.
std::size_t leadingSpaceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (text.empty()) {
        return 0;
    }
    const unsigned char c = byte(0);
    if (c == ' ' || (c >= 0x09 && c <= 0x0D)) {
        return 1;
    }
    if (c == 0xC2 && text.size() >= 2 && (byte(1) == 0x85 || byte(1) == 0xA0)) {
        return 2;  // U+0085, U+00A0
    }
    if (text.size() < 3) {
        return 0;
    }
    const unsigned c1 = byte(1);
    const unsigned c2 = byte(2);
    if (c == 0xE1 && c1 == 0x9A && c2 == 0x80) {
        return 3;  // U+1680
    }
    if (c == 0xE2 && c1 == 0x80 && (c2 <= 0x8A || c2 == 0xA8 || c2 == 0xA9 || c2 == 0xAF)) {
        return 3;  // U+2000..U+200A, U+2028, U+2029, U+202F
    }
    if (c == 0xE2 && c1 == 0x81 && c2 == 0x9F) {
        return 3;  // U+205F
    }
    if (c == 0xE3 && c1 == 0x80 && c2 == 0x80) {
        return 3;  // U+3000
    }
    return 0;
}

// Length of the white-space character or line break that ends `text`, or 0.
std::size_t trailingSpaceLength(std::string_view text) {
    // A character is at most three bytes long here; try each possible start.
    for (std::size_t length = 1; length <= std::min<std::size_t>(3, text.size()); ++length) {
        if (leadingSpaceLength(text.substr(text.size() - length)) == length) {
            return length;
        }
    }
    return 0;
}

std::string trimmed(std::string_view text) {
    while (const std::size_t n = leadingSpaceLength(text)) {
        text.remove_prefix(n);
    }
    while (const std::size_t n = trailingSpaceLength(text)) {
        text.remove_suffix(n);
    }
    return std::string(text);
}

std::string asciiLower(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return out;
}

bool containsLiteral(const std::optional<std::string>& text, const std::string& lowerNeedle) {
    return text && asciiLower(*text).find(lowerNeedle) != std::string::npos;
}

// The inputs every search normalises the same way.
struct SearchInputs {
    // Absent when the trimmed query is empty: no text filter.
    std::optional<std::string> pattern;
    // A query holding U+0000, which LIKE would take as its end: it is matched here
    // instead, as a literal substring ignoring ASCII case, as LIKE would.
    std::optional<std::string> literal;
    std::int64_t limit = 1;
    std::vector<std::string> exclusions;
};

SearchInputs normalised(const std::string& query, std::int64_t limit,
                        const std::vector<std::string>& exclusions) {
    SearchInputs inputs;
    const std::string text = trimmed(query);
    if (text.find('\0') != std::string::npos) {
        inputs.literal = asciiLower(text);
    } else if (!text.empty()) {
        inputs.pattern = "%" + RepositoryCore::escapedLikePattern(text) + "%";
    }
    inputs.limit = std::max<std::int64_t>(limit, 1);
    std::copy_if(exclusions.begin(), exclusions.end(), std::back_inserter(inputs.exclusions),
                 [](const std::string& id) { return !id.empty(); });
    return inputs;
}

// The rows of a result, collected first in a buffer on the stack; `take()` moves
// them into the result's own array, allocated exactly once, after every string
// of its records. A caller that reads again frees its previous result first, and
// the allocator can hand those freed strings straight back to the new records.
// Were the array requested first, its size would have the allocator merge all of
// them into larger free blocks and split those again, string by string. (glibc
// merges them anyway when the freed array leaves a large free block behind.)
template <typename Record>
class StagedRows {
  public:
    explicit StagedRows(std::int64_t limit) {
        rows_.reserve(std::min(reservedRows(limit), kStaged));
    }
    StagedRows(const StagedRows&) = delete;
    StagedRows& operator=(const StagedRows&) = delete;

    [[nodiscard]] std::pmr::vector<Record>& rows() noexcept { return rows_; }
    [[nodiscard]] std::vector<Record> take() {
        return {std::make_move_iterator(rows_.begin()), std::make_move_iterator(rows_.end())};
    }

  private:
    static constexpr std::size_t kStaged = 32;
    alignas(Record) std::byte buffer_[kStaged * sizeof(Record)];
    std::pmr::monotonic_buffer_resource arena_{buffer_, sizeof(buffer_)};
    std::pmr::vector<Record> rows_{&arena_};
};

}  // namespace

std::string RepositoryCore::escapedLikePattern(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (c == '\\' || c == '%' || c == '_') {
            escaped.push_back('\\');
        }
        escaped.push_back(c);
    }
    return escaped;
}

std::vector<SourceIdentityRow> RepositoryCore::searchSourceIdentities(
    const std::string& query, std::int64_t limit,
    const std::vector<std::string>& excludingSourceIdentityIDs, store::Connection& db) {
    const std::string eligible = services_.presentationEligibility->manualCorrectionPredicateSQL(
        "source_identity.id", "source_identity.source_type", "source_identity.handle_normalized");
    const SearchInputs inputs = normalised(query, limit, excludingSourceIdentityIDs);

    std::string sql = inputs.pattern ? kIdentitySearchTextHead : kIdentitySearchPlainHead;
    sql += eligible;
    sql += "\n  ";
    store::Params params;
    if (inputs.pattern) {
        params.add(*inputs.pattern).add(*inputs.pattern);
    }
    for (std::size_t i = 0; i < inputs.exclusions.size(); ++i) {
        if (i > 0) {
            sql += "\n";
        }
        sql += kIdentityExclusionClause;
        params.add(inputs.exclusions[i]).add(inputs.exclusions[i]);
    }
    sql += "\n";
    sql += kIdentitySearchTail;
    // A literal query is filtered here, so SQLite returns every row in order
    // (LIMIT -1) and reading stops once the result is full.
    params.add(inputs.literal ? std::int64_t{-1} : inputs.limit);

    StagedRows<SourceIdentityRow> staged(inputs.limit);
    auto& rows = staged.rows();
    const auto limitCount = static_cast<std::uint64_t>(inputs.limit);
    db.queryWhile(sql, params, [&](const store::Row& row) {
        const auto& identity = rows.emplace_back(DecodedInPlace{row, decodeSourceIdentity});
        if (inputs.literal && !containsLiteral(identity.displayName, *inputs.literal) &&
            !containsLiteral(identity.handleNormalized, *inputs.literal)) {
            rows.pop_back();
            return true;
        }
        return rows.size() < limitCount;
    });
    return staged.take();
}

std::vector<LinkablePersonRow> RepositoryCore::searchUserStatedPeople(
    const std::string& query, std::int64_t limit,
    const std::vector<std::string>& excludingPersonIDs, store::Connection& db) {
    const std::string eligible = services_.sourceEligibility->personPredicateSQL(
        host::SourceEligibility::Policy::identityCorrection, "p.id");
    const SearchInputs inputs = normalised(query, limit, excludingPersonIDs);

    std::string sql = kPersonSearchHead + eligible;
    store::Params params;
    if (inputs.pattern) {
        sql += "\n" + kPersonSearchTextFilter;
        params.add(*inputs.pattern);
    }
    if (!inputs.exclusions.empty()) {
        sql +=
            "\n" + kPersonSearchExclusionOpen + store::placeholders(inputs.exclusions.size()) + ")";
        for (const auto& id : inputs.exclusions) {
            params.add(id);
        }
    }
    sql += "\n" + kPersonSearchOrder;

    // The checks below cannot be expressed in SQL, so rows are filtered here and
    // reading stops as soon as the result is full.
    std::vector<LinkablePersonRow> people;
    people.reserve(reservedRows(inputs.limit));
    const auto limitCount = static_cast<std::uint64_t>(inputs.limit);
    PersonDifferenceIndex personDifferences(*this, db);
    db.queryWhile(sql, params, [&](const store::Row& row) {
        if (row.isNull("display_name") ||
            (inputs.literal && !containsLiteral(row.text("display_name"), *inputs.literal))) {
            return true;
        }
        const std::string id = row.text("id");
        if (personContainsOwnerIdentity(id, db)) {
            return true;
        }
        for (const auto& excluded : inputs.exclusions) {
            if (excluded != id && personDifferences.differ(id, excluded)) {
                return true;
            }
        }
        people.push_back(LinkablePersonRow{
            .id = id,
            .displayName = row.text("display_name"),
            .createdAt = row.text("created_at"),
        });
        return people.size() < limitCount;
    });
    return people;
}

}  // namespace orvik::identity::internal

// How orvik-identity writes for a person at a terminal and for a program reading
// a pipe: tables, times, the words shown for stored codes, counts.
//
// At a terminal (Style::human) tables are fitted to the terminal's width, cutting
// the widest cells with "…", and times are shown in the local time zone. In a pipe
// or a file the same lines are written without cutting anything and with times as
// stored (ISO 8601 UTC), so that scripts see stable text. No colour is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "identity/IdentityModels.h"

namespace orvik::app {

struct Style {
    // Times in local time, tables cut to width.
    bool human = false;
    // Columns available; 0 means unlimited.
    std::size_t width = 0;

    // The style for standard output: human when it is a terminal, with the width
    // from COLUMNS or the terminal itself (80 when neither says).
    [[nodiscard]] static Style forStandardOutput();
};

// The text with C0 and C1 control characters replaced: line breaks and tabs by a
// space, the others by "?", so that a stored name cannot move the cursor.
[[nodiscard]] std::string printable(std::string_view text);
[[nodiscard]] std::string printableOr(const std::optional<std::string>& text,
                                      std::string_view absent = "-");

// Characters on screen, counting each UTF-8 sequence as one.
[[nodiscard]] std::size_t displayWidth(std::string_view text);
// The text cut to at most width characters, ending in "…" when cut.
[[nodiscard]] std::string truncated(std::string_view text, std::size_t width);

// "1 correction", "2 corrections".
[[nodiscard]] std::string plural(std::int64_t n, std::string_view one, std::string_view many);

// A stored timestamp for display: human, "2026-11-18 10:00" in the local time zone;
// otherwise, or when the text is not an ISO 8601 UTC timestamp, the text as stored.
[[nodiscard]] std::string whenText(std::string_view timestamp, const Style& style);

// Words for stored codes.
// "possible", "high confidence", "confirmed".
[[nodiscard]] std::string_view stateInWords(identity::MembershipState state);
// "automatically", "by you", "suggested and confirmed by you".
[[nodiscard]] std::string_view decidedByInWords(identity::DecidedBy decidedBy);
// A stored reason in words: "separated_by_user" is "separated by you",
// "user_directed" "linked by you"; any other text with its underscores as spaces.
[[nodiscard]] std::string reasonInWords(std::string_view because);

// Rows of cells with a header, printed with two spaces between columns and no
// trailing blanks. At a limited width the columns marked as shrinkable give up
// characters, widest first, down to a few each; cut cells end in "…".
class Table {
  public:
    explicit Table(std::vector<std::string> header, std::vector<bool> shrinkable = {});

    void add(std::vector<std::string> row);
    [[nodiscard]] bool empty() const noexcept { return rows_.empty(); }

    // The header and every row.
    void print(std::ostream& out, const Style& style, std::string_view indent = "") const;
    // Rows [first, first + count) without the header, in the columns that print
    // would give them, so that several groups of one table line up.
    void printRows(std::ostream& out, const Style& style, std::string_view indent,
                   std::size_t first, std::size_t count) const;

  private:
    [[nodiscard]] std::vector<std::size_t> widths(const Style& style,
                                                  std::string_view indent) const;
    void printRow(std::ostream& out, const Style& style, std::string_view indent,
                  const std::vector<std::string>& row,
                  const std::vector<std::size_t>& widths) const;

    std::vector<std::string> header_;
    std::vector<bool> shrinkable_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace orvik::app

#include "app/TerminalOutput.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <ostream>

namespace orvik::app {

namespace {

constexpr std::string_view kEllipsis = "…";
// A shrunk column keeps at least this many characters.
constexpr std::size_t kMinimumColumn = 6;
constexpr std::size_t kColumnGap = 2;

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

}  // namespace

Style Style::forStandardOutput() {
    Style style;
    style.human = ::isatty(STDOUT_FILENO) == 1;
    if (!style.human) {
        return style;
    }
    style.width = 80;
    if (const char* columns = std::getenv("COLUMNS"); columns != nullptr) {
        char* end = nullptr;
        const long value = std::strtol(columns, &end, 10);
        if (end != columns && *end == '\0' && value > 0) {
            style.width = static_cast<std::size_t>(value);
            return style;
        }
    }
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        style.width = size.ws_col;
    }
    return style;
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '\n' || c == '\r' || c == '\t') {
            out.push_back(' ');
        } else if (c < 0x20 || c == 0x7f) {
            out.push_back('?');
        } else if (c == 0xc2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
            out.push_back('?');
            ++i;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

std::string printableOr(const std::optional<std::string>& text, std::string_view absent) {
    return text ? printable(*text) : std::string(absent);
}

std::size_t displayWidth(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); }));
}

std::string truncated(std::string_view text, std::size_t width) {
    if (displayWidth(text) <= width) {
        return std::string(text);
    }
    if (width == 0) {
        return {};
    }
    // Keep width - 1 characters and end with the ellipsis.
    std::size_t kept = 0;
    std::size_t end = 0;
    while (end < text.size()) {
        if (!isContinuation(text[end])) {
            if (kept == width - 1) {
                break;
            }
            ++kept;
        }
        ++end;
    }
    return std::string(text.substr(0, end)) + std::string(kEllipsis);
}

std::string plural(std::int64_t n, std::string_view one, std::string_view many) {
    return std::to_string(n) + " " + std::string(n == 1 ? one : many);
}

std::string whenText(std::string_view timestamp, const Style& style) {
    if (!style.human) {
        return std::string(timestamp);
    }
    std::tm utc{};
    const std::string text(timestamp);
    const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    if (rest == nullptr) {
        return text;
    }
    if (*rest == '.') {  // fractional seconds are not shown
        ++rest;
        while (*rest >= '0' && *rest <= '9') {
            ++rest;
        }
    }
    if (std::string_view(rest) != "Z") {
        return text;
    }
    const std::time_t seconds = ::timegm(&utc);
    std::tm local{};
    if (::localtime_r(&seconds, &local) == nullptr) {
        return text;
    }
    char buffer[32];
    const std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &local);
    return length == 0 ? text : std::string(buffer, length);
}

std::string_view stateInWords(identity::MembershipState state) {
    switch (state) {
        case identity::MembershipState::possible:
            return "possible";
        case identity::MembershipState::highConf:
            return "high confidence";
        case identity::MembershipState::confirmed:
            return "confirmed";
    }
    return "unknown";
}

std::string_view decidedByInWords(identity::DecidedBy decidedBy) {
    switch (decidedBy) {
        case identity::DecidedBy::automatic:
            return "automatically";
        case identity::DecidedBy::user:
            return "by you";
        case identity::DecidedBy::agentAndUser:
            return "suggested and confirmed by you";
    }
    return "unknown";
}

std::string reasonInWords(std::string_view because) {
    if (because == identity::kSeparatedByUser) {
        return "separated by you";
    }
    if (because == "user_directed") {
        return "linked by you";
    }
    std::string words = printable(because);
    std::replace(words.begin(), words.end(), '_', ' ');
    return words;
}

Table::Table(std::vector<std::string> header, std::vector<bool> shrinkable)
    : header_(std::move(header)), shrinkable_(std::move(shrinkable)) {
    shrinkable_.resize(header_.size(), false);
}

void Table::add(std::vector<std::string> row) {
    row.resize(header_.size());
    rows_.push_back(std::move(row));
}

std::vector<std::size_t> Table::widths(const Style& style, std::string_view indent) const {
    std::vector<std::size_t> widths(header_.size(), 0);
    const auto measure = [&](const std::vector<std::string>& row) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], displayWidth(row[i]));
        }
    };
    measure(header_);
    for (const auto& row : rows_) {
        measure(row);
    }
    if (!style.human || style.width == 0) {
        return widths;
    }
    std::size_t total = displayWidth(indent);
    for (const auto width : widths) {
        total += width + kColumnGap;
    }
    total -= kColumnGap;
    // Take one character at a time from the widest shrinkable column.
    while (total > style.width) {
        std::size_t widest = widths.size();
        for (std::size_t i = 0; i < widths.size(); ++i) {
            if (shrinkable_[i] && widths[i] > kMinimumColumn &&
                (widest == widths.size() || widths[i] > widths[widest])) {
                widest = i;
            }
        }
        if (widest == widths.size()) {
            break;  // nothing left to give; the terminal wraps
        }
        --widths[widest];
        --total;
    }
    return widths;
}

void Table::printRow(std::ostream& out, const Style& style, std::string_view indent,
                     const std::vector<std::string>& row,
                     const std::vector<std::size_t>& widths) const {
    std::string line(indent);
    for (std::size_t i = 0; i < row.size(); ++i) {
        const std::string cell =
            style.human && style.width > 0 ? truncated(row[i], widths[i]) : row[i];
        line += cell;
        if (i + 1 < row.size()) {
            line.append(widths[i] - displayWidth(cell) + kColumnGap, ' ');
        }
    }
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
    out << line << '\n';
}

void Table::print(std::ostream& out, const Style& style, std::string_view indent) const {
    const auto columns = widths(style, indent);
    printRow(out, style, indent, header_, columns);
    for (const auto& row : rows_) {
        printRow(out, style, indent, row, columns);
    }
}

void Table::printRows(std::ostream& out, const Style& style, std::string_view indent,
                      std::size_t first, std::size_t count) const {
    const auto columns = widths(style, indent);
    for (std::size_t i = first; i < first + count && i < rows_.size(); ++i) {
        printRow(out, style, indent, rows_[i], columns);
    }
}

}  // namespace orvik::app

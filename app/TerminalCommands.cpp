#include "app/TerminalCommands.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <utility>
#include <vector>

#include "app/StoreAccess.h"
#include "codec/RecordCodec.h"

namespace orvik::app {

using codec::Json;
using codec::toJson;

namespace {

using identity::IdentityRepository;
using TableRow = std::vector<std::string>;

// The text with C0 and C1 control characters replaced: line breaks and tabs by a
// space, the others by "?".
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

std::string printableOr(const std::optional<std::string>& text, std::string_view absent = "-") {
    return text ? printable(*text) : std::string(absent);
}

// Characters on screen, counting each UTF-8 sequence as one.
std::size_t displayWidth(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

std::vector<std::size_t> columnWidths(const std::vector<TableRow>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()), 0);
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], displayWidth(row[i]));
        }
    }
    return widths;
}

// One row with its cells padded to widths and two spaces between columns; the
// last cell is not padded, so that lines carry no trailing blanks.
void printRow(std::ostream& out, std::string_view indent, const TableRow& row,
              const std::vector<std::size_t>& widths) {
    std::string line(indent);
    for (std::size_t i = 0; i < row.size(); ++i) {
        line += row[i];
        if (i + 1 < row.size()) {
            line.append(widths[i] - displayWidth(row[i]) + 2, ' ');
        }
    }
    out << line << '\n';
}

void printTable(std::ostream& out, const TableRow& header, const std::vector<TableRow>& rows) {
    std::vector<TableRow> all{header};
    all.insert(all.end(), rows.begin(), rows.end());
    const auto widths = columnWidths(all);
    for (const auto& row : all) {
        printRow(out, "", row, widths);
    }
}

std::string joined(const std::vector<std::string>& items, std::string_view separator) {
    std::string text;
    for (const auto& item : items) {
        if (!text.empty()) {
            text += separator;
        }
        text += printable(item);
    }
    return text.empty() ? "-" : text;
}

std::string plural(std::size_t n, std::string_view one, std::string_view many) {
    return std::to_string(n) + " " + std::string(n == 1 ? one : many);
}

std::string score(double value) {
    char text[16];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

void printJson(std::ostream& out, const Json& value) {
    out << value.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

TableRow identityCells(const identity::SourceIdentityRow& row) {
    return {printable(row.sourceType), printable(row.handleNormalized),
            printableOr(row.displayName, "(no name)"), row.id};
}

}  // namespace

void showCandidates(IdentityRepository& repository, std::int64_t limit, bool json,
                    std::ostream& out) {
    const auto candidates = repository.exactKeyCandidates(limit);
    if (json) {
        printJson(out, toJson(candidates));
        return;
    }
    if (candidates.empty()) {
        out << "No exact-key candidates.\n";
        return;
    }
    out << plural(candidates.size(), "exact-key candidate", "exact-key candidates") << ":\n";

    // Every identity line of every candidate shares one set of column widths.
    std::vector<TableRow> identities;
    for (const auto& candidate : candidates) {
        identities.push_back(identityCells(candidate.sourceIdentityA));
        identities.push_back(identityCells(candidate.sourceIdentityB));
    }
    const auto widths = columnWidths(identities);
    const std::size_t numberWidth = std::to_string(candidates.size()).size();
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const auto& candidate = candidates[i];
        std::string number = std::to_string(i + 1) + ".";
        number.insert(0, numberWidth + 1 - number.size(), ' ');
        out << '\n'
            << number << " " << score(candidate.score) << "  " << printable(candidate.because)
            << '\n';
        const std::string indent(numberWidth + 3, ' ');
        printRow(out, indent, identities[2 * i], widths);
        printRow(out, indent, identities[2 * i + 1], widths);
        if (candidate.existingPersonID) {
            out << indent << "already with person " << printable(*candidate.existingPersonID)
                << '\n';
        }
    }
}

void showHistory(IdentityRepository& repository, const std::string& personID, bool json,
                 std::ostream& out) {
    const auto person = repository.person(personID);
    if (!person) {
        throw CommandError("no person " + personID);
    }
    const auto entries = repository.identityHistory(personID);
    if (json) {
        printJson(out, toJson(entries));
        return;
    }
    out << "Identity history of " << printableOr(person->displayName, personID);
    if (person->displayName) {
        out << " (" << personID << ")";
    }
    out << ": " << plural(entries.size(), "correction", "corrections") << '\n';
    if (person->mergedIntoPersonID) {
        out << "This person was merged into " << printable(*person->mergedIntoPersonID) << ".\n";
    }
    if (entries.empty()) {
        return;
    }
    std::vector<TableRow> rows;
    for (const auto& entry : entries) {
        rows.push_back({
            printable(entry.occurredAt),
            std::string(identity::rawValue(entry.kind)),
            printableOr(entry.because),
            joined(entry.providers, ","),
            entry.reversedAt ? "reversed " + printable(*entry.reversedAt) : "in effect",
            joined(entry.mergeEventIDs, ","),
        });
    }
    out << '\n';
    printTable(out, {"WHEN", "KIND", "REASON", "PROVIDERS", "STATE", "MERGE EVENTS"}, rows);
}

void showSearch(IdentityRepository& repository, const std::string& query, std::int64_t limit,
                bool people, bool json, std::ostream& out) {
    const std::string quoted = "\"" + printable(query) + "\"";
    if (people) {
        const auto found = repository.searchUserStatedPeople(query, limit, {});
        if (json) {
            printJson(out, toJson(found));
            return;
        }
        if (found.empty()) {
            out << "No user-stated people match " << quoted << ".\n";
            return;
        }
        std::vector<TableRow> rows;
        for (const auto& person : found) {
            rows.push_back({person.id, printable(person.displayName), printable(person.createdAt)});
        }
        printTable(out, {"PERSON", "NAME", "CREATED"}, rows);
        return;
    }

    const auto found = repository.searchSourceIdentities(query, limit, {});
    if (json) {
        printJson(out, toJson(found));
        return;
    }
    if (found.empty()) {
        out << "No source identities match " << quoted << ".\n";
        return;
    }
    std::vector<TableRow> rows;
    for (const auto& row : found) {
        rows.push_back({row.id, printable(row.sourceType), printable(row.handleNormalized),
                        printableOr(row.displayName), printable(row.lastSeenAt)});
    }
    printTable(out, {"IDENTITY", "SOURCE", "HANDLE", "NAME", "LAST SEEN"}, rows);
}

void showReadback(IdentityRepository& repository, bool json, std::ostream& out) {
    const auto counts = repository.identityCorrectionsReadback();
    if (json) {
        // The library's own text, byte for byte.
        out << identity::encodeJSON(counts) << '\n';
        return;
    }
    const auto count = [](std::int64_t n) { return std::to_string(n); };
    std::vector<TableRow> rows;
    rows.push_back({"Source identities", count(counts.sourceIdentityTotal)});
    for (const auto& [type, n] : counts.sourceIdentityByType) {
        rows.push_back({"  " + printable(type), count(n)});
    }
    rows.push_back({"Exact-key candidate pairs", counts.exactKeyCandidatePairs
                                                     ? count(*counts.exactKeyCandidatePairs)
                                                     : std::string("unavailable")});
    rows.push_back({"Active memberships", count(counts.activeMemberships)});
    for (const auto& [state, n] : counts.membershipStates) {
        rows.push_back({"  " + printable(state), count(n)});
    }
    rows.push_back({"Merge events", count(counts.mergeEvents)});
    rows.push_back({"Absorbed persons", count(counts.absorbedPersons)});
    rows.push_back({"Unavailable sections", counts.unavailableSections.empty()
                                                ? std::string("none")
                                                : joined(counts.unavailableSections, ", ")});
    const auto widths = columnWidths(rows);
    for (const auto& row : rows) {
        printRow(out, "", row, widths);
    }
}

}  // namespace orvik::app

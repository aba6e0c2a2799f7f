#include "app/TerminalCommands.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <ostream>
#include <set>
#include <utility>

#include "app/ProviderNames.h"
#include "app/StoreAccess.h"
#include "codec/RecordCodec.h"
#include "identity/IdentityCorrectionView.h"
#include "identity/IdentityHistoryView.h"

namespace orvik::app {

using codec::Json;
using codec::toJson;

namespace {

using identity::IdentityRepository;

// How many candidates `candidates` counts before it says "or more".
constexpr std::int64_t kCandidateCountCap = 1000;
// The readback counts candidate pairs up to this many by design.
constexpr std::int64_t kReadbackCandidateCap = 50;

void printJson(std::ostream& out, const Json& value) {
    out << value.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

std::string score(double value) {
    char text[16];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

std::string command(const Terminal& terminal, const std::string& what) {
    return std::string("`") + kProgramName + " " + what + " " + terminal.storeArguments + "`";
}

// --- The texts the screens show, for the same records.

std::string cardQuestion(const identity::IdentityCandidate& candidate) {
    return identity::candidateQuestion(candidate, providerName);
}

std::string historyLine(const identity::IdentityHistoryEntry& entry) {
    return identity::IdentityHistoryEntrySummary::line(entry, providerName);
}

// --- Names for ids.

// "Dana Lee (p-1)", or the id alone for a person without a name or not found.
std::string personLabel(IdentityRepository& repository, const std::string& personID) {
    const auto person = repository.person(personID);
    if (person && person->displayName && !person->displayName->empty()) {
        return printable(*person->displayName) + " (" + personID + ")";
    }
    return personID;
}

// "Dana Lee <dana@example.org> on Gmail".
std::string identityLabel(const identity::SourceIdentityRow& row) {
    std::string label = row.displayName ? printable(*row.displayName) + " <" : "<";
    return label + printable(row.handleNormalized) + "> on " + providerName(row.sourceType);
}

std::vector<std::string> identityCells(const identity::SourceIdentityRow& row) {
    return {providerName(row.sourceType), printable(row.handleNormalized),
            printableOr(row.displayName, "(no name)"), row.id};
}

identity::SourceIdentityRow requireIdentity(IdentityRepository& repository, const std::string& id) {
    auto row = repository.sourceIdentity(id);
    if (!row) {
        throw CommandError("no source identity " + id);
    }
    return *row;
}

// The person id itself, or the live person of an identity id.
std::string requirePerson(IdentityRepository& repository, const std::string& id) {
    if (repository.person(id)) {
        return id;
    }
    if (repository.sourceIdentity(id)) {
        if (const auto resolved = repository.resolveCanonicalPerson(id)) {
            return resolved->personID;
        }
        throw CommandError("the identity " + id + " belongs to no person");
    }
    throw CommandError("no person or source identity " + id);
}

// --- Candidates by number or id.

identity::IdentityCandidate findCandidate(Terminal& terminal, const std::string& which) {
    const bool number =
        !which.empty() && std::all_of(which.begin(), which.end(),
                                      [](unsigned char c) { return c >= '0' && c <= '9'; });
    if (number) {
        if (!terminal.state.file()) {
            throw CommandError(
                "candidate numbers need a place to remember the last listing (set "
                "XDG_STATE_HOME or HOME); give the candidate's id instead");
        }
        const auto& listing = terminal.state.listing();
        if (listing.empty()) {
            throw CommandError("no candidates were listed for this store yet; run " +
                               command(terminal, "candidates") + " first");
        }
        const auto n = which.size() > 9 ? 0 : std::stoul(which);
        if (n < 1 || n > listing.size()) {
            throw CommandError("there is no candidate " + which + " in the last listing (1 to " +
                               std::to_string(listing.size()) + ")");
        }
        return listing[n - 1];
    }
    if (which.find('|') == std::string::npos) {
        throw UsageError("'" + printable(which) +
                         "' is not a candidate: give its number in the last listing or its id "
                         "(IDENTITY|IDENTITY)");
    }
    for (const auto& candidate : terminal.state.listing()) {
        if (candidate.id() == which) {
            return candidate;
        }
    }
    for (const auto& candidate : terminal.repository.exactKeyCandidates(kCandidateCountCap)) {
        if (candidate.id() == which) {
            return candidate;
        }
    }
    const auto bar = which.find('|');
    throw CommandError(
        "no candidate " + printable(which) + "; to join any two identities use " +
        command(terminal, "link " + which.substr(0, bar) + " " + which.substr(bar + 1)));
}

// --- Reporting a correction.

CliCorrection correction(CliCorrection::Kind kind, std::string summary,
                         std::vector<std::string> mergeEventIDs,
                         std::optional<identity::OwnerAliasMutation> mutation,
                         std::vector<std::string> sides) {
    CliCorrection made;
    made.kind = kind;
    made.summary = std::move(summary);
    made.mergeEventIDs = std::move(mergeEventIDs);
    made.mutation = std::move(mutation);
    made.sides = std::move(sides);
    return made;
}

void rememberAndHint(Terminal& terminal, CliCorrection correction) {
    const bool undoable = correction.kind != CliCorrection::Kind::reject &&
                          correction.kind != CliCorrection::Kind::different;
    const auto firstEvent =
        correction.mergeEventIDs.empty() ? std::string() : correction.mergeEventIDs.front();
    const bool remembered = terminal.state.rememberCorrection(std::move(correction));
    if (terminal.json || !undoable) {
        return;
    }
    if (remembered) {
        terminal.out << "To undo: " << command(terminal, "undo") << '\n';
    } else if (!firstEvent.empty()) {
        terminal.out << "To undo: " << command(terminal, "undo " + firstEvent) << '\n';
    }
}

void describeMergeEvents(Terminal& terminal, const std::vector<std::string>& ids) {
    if (ids.empty()) {
        terminal.out << "Nothing changed: they were already one person.\n";
        return;
    }
    terminal.out << "  "
                 << plural(static_cast<std::int64_t>(ids.size()), "merge event", "merge events")
                 << ": ";
    for (std::size_t i = 0; i < ids.size(); ++i) {
        terminal.out << (i == 0 ? "" : ", ") << ids[i];
    }
    terminal.out << '\n';
}

std::string joinedLabels(const std::vector<std::string>& labels) {
    std::string text;
    for (std::size_t i = 0; i < labels.size(); ++i) {
        text += i == 0 ? "" : (i + 1 == labels.size() ? " and " : ", ");
        text += labels[i];
    }
    return text;
}

}  // namespace

std::string providerName(const std::string& sourceType) {
    // The screens' names; an unknown type's words as they can be shown here.
    return providerDisplayName(printable(sourceType));
}

// --- Reads.

void showCandidates(Terminal& terminal, std::int64_t limit) {
    auto& out = terminal.out;
    if (terminal.json) {
        auto candidates = terminal.repository.exactKeyCandidates(limit);
        printJson(out, toJson(candidates));
        terminal.state.rememberListing(std::move(candidates));
        return;
    }
    // One more than shown or counted tells whether there are more.
    const std::int64_t counted = std::max(limit, kCandidateCountCap);
    auto all = terminal.repository.exactKeyCandidates(counted + 1);
    const bool more = static_cast<std::int64_t>(all.size()) > counted;
    const std::string total =
        more ? std::to_string(counted) + " or more" : std::to_string(all.size());
    if (all.empty()) {
        out << "No candidates: no two identities share a handle without sharing a person.\n";
        terminal.state.rememberListing({});
        return;
    }
    all.resize(std::min<std::size_t>(all.size(), static_cast<std::size_t>(limit)));
    out << "Showing " << all.size() << " of " << total << " candidates, most likely first.\n";

    Table identities({"SOURCE", "HANDLE", "NAME", "ID"}, {false, true, true, false});
    for (const auto& candidate : all) {
        identities.add(identityCells(candidate.sourceIdentityA));
        identities.add(identityCells(candidate.sourceIdentityB));
    }
    const std::size_t numberWidth = std::to_string(all.size()).size();
    const std::string indent(numberWidth + 2, ' ');
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto& candidate = all[i];
        std::string number = std::to_string(i + 1) + ".";
        number.insert(0, numberWidth + 1 - number.size(), ' ');
        out << '\n' << number << ' ' << printable(cardQuestion(candidate)) << '\n';
        out << indent << "because " << printable(candidate.because) << " (score "
            << score(candidate.score) << ")\n";
        identities.printRows(out, terminal.style, indent, 2 * i, 2);
        if (candidate.existingPersonID) {
            out << indent << "one of them is already "
                << personLabel(terminal.repository, *candidate.existingPersonID) << '\n';
        }
    }
    out << "\nSame person: " << command(terminal, "confirm N")
        << "; different people: " << command(terminal, "reject N") << ".\n";
    if (!terminal.state.rememberListing(std::move(all))) {
        out << "(The listing could not be remembered: confirm and reject need the candidate "
               "id, A|B.)\n";
    }
}

void showHistory(Terminal& terminal, const std::string& personID) {
    auto& repository = terminal.repository;
    const auto person = repository.person(personID);
    if (!person) {
        throw CommandError("no person " + personID);
    }
    const auto entries = repository.identityHistory(personID);
    if (terminal.json) {
        printJson(terminal.out, toJson(entries));
        return;
    }
    auto& out = terminal.out;
    out << "Identity history of " << personLabel(repository, personID) << ": "
        << plural(static_cast<std::int64_t>(entries.size()), "correction", "corrections") << '\n';
    if (person->mergedIntoPersonID) {
        out << "This person was merged into "
            << personLabel(repository, *person->mergedIntoPersonID) << ".\n";
    }
    if (entries.empty()) {
        return;
    }
    Table table({"WHEN", "WHAT", "STATE", "EVENT"}, {false, true, false, false});
    for (const auto& entry : entries) {
        table.add({whenText(entry.occurredAt, terminal.style), printable(historyLine(entry)),
                   entry.reversedAt ? "undone " + whenText(*entry.reversedAt, terminal.style)
                                    : "in effect",
                   entry.mergeEventID});
    }
    out << '\n';
    table.print(out, terminal.style);
    out << "\nUndo one with " << command(terminal, "undo EVENT") << ".\n";
}

void showSearch(Terminal& terminal, const std::string& query, std::int64_t limit, bool people) {
    auto& out = terminal.out;
    const std::string quoted = "\"" + printable(query) + "\"";
    if (people) {
        const auto found = terminal.repository.searchUserStatedPeople(query, limit, {});
        if (terminal.json) {
            printJson(out, toJson(found));
            return;
        }
        if (found.empty()) {
            out << "No people you named match " << quoted << ".\n";
            return;
        }
        Table table({"PERSON", "NAME", "CREATED"}, {false, true, false});
        for (const auto& person : found) {
            table.add({person.id, printable(person.displayName),
                       whenText(person.createdAt, terminal.style)});
        }
        table.print(out, terminal.style);
        return;
    }

    const auto found = terminal.repository.searchSourceIdentities(query, limit, {});
    if (terminal.json) {
        printJson(out, toJson(found));
        return;
    }
    if (found.empty()) {
        out << "No source identities match " << quoted << ".\n";
        return;
    }
    Table table({"IDENTITY", "SOURCE", "HANDLE", "NAME", "LAST SEEN"},
                {false, false, true, true, false});
    for (const auto& row : found) {
        table.add({row.id, providerName(row.sourceType), printable(row.handleNormalized),
                   printableOr(row.displayName), whenText(row.lastSeenAt, terminal.style)});
    }
    table.print(out, terminal.style);
}

void showReadback(Terminal& terminal) {
    const auto counts = terminal.repository.identityCorrectionsReadback();
    if (terminal.json) {
        // The library's own text, byte for byte.
        terminal.out << identity::encodeJSON(counts) << '\n';
        return;
    }
    const auto count = [](std::int64_t n) { return std::to_string(n); };
    Table table({"WHAT", "COUNT"});
    table.add({"Source identities", count(counts.sourceIdentityTotal)});
    for (const auto& [type, n] : counts.sourceIdentityByType) {
        table.add({"  " + providerName(type), count(n)});
    }
    std::string pairs = "unavailable";
    if (counts.exactKeyCandidatePairs) {
        pairs = *counts.exactKeyCandidatePairs >= kReadbackCandidateCap
                    ? count(kReadbackCandidateCap) + " or more"
                    : count(*counts.exactKeyCandidatePairs);
    }
    table.add({"Candidate pairs", pairs});
    table.add({"Active memberships", count(counts.activeMemberships)});
    for (const auto& [state, n] : counts.membershipStates) {
        const auto parsed = identity::parseMembershipState(state);
        table.add(
            {"  " + (parsed ? std::string(stateInWords(*parsed)) : printable(state)), count(n)});
    }
    table.add({"Merge events", count(counts.mergeEvents)});
    table.add({"Absorbed persons", count(counts.absorbedPersons)});
    std::vector<std::string> unavailable;
    for (const auto& section : counts.unavailableSections) {
        unavailable.push_back(reasonInWords(section));
    }
    table.add({"Unavailable sections", unavailable.empty() ? "none" : joinedLabels(unavailable)});
    table.print(terminal.out, terminal.style);
}

void showPerson(Terminal& terminal, const std::string& id) {
    auto& repository = terminal.repository;
    const std::string personID = requirePerson(repository, id);
    const auto person = repository.person(personID);
    if (!person) {
        throw CommandError("no person " + personID);
    }
    const auto memberships = repository.activeMemberships(personID);
    const auto history = repository.identityHistory(personID);
    if (terminal.json) {
        Json out = Json::object();
        out["person"] = toJson(*person);
        out["activeMemberships"] = toJson(memberships);
        out["identityHistory"] = toJson(history);
        printJson(terminal.out, out);
        return;
    }
    auto& out = terminal.out;
    out << printableOr(person->displayName, "(no name)") << "  " << personID << '\n';
    if (personID != id) {
        out << "  the person of " << id << '\n';
    }
    out << "  created " << whenText(person->createdAt, terminal.style);
    if (person->createdFrom) {
        out << " (" << reasonInWords(*person->createdFrom) << ")";
    }
    out << '\n';
    if (person->mergedIntoPersonID) {
        out << "  merged into " << personLabel(repository, *person->mergedIntoPersonID) << "; see "
            << command(terminal, "person " + *person->mergedIntoPersonID) << '\n';
    }

    out << '\n'
        << plural(static_cast<std::int64_t>(memberships.size()), "identity", "identities") << '\n';
    if (!memberships.empty()) {
        Table table({"SOURCE", "HANDLE", "NAME", "STATE", "REASON", "ID"},
                    {false, true, true, false, true, false});
        for (const auto& membership : memberships) {
            const auto row = repository.sourceIdentity(membership.sourceIdentityID);
            auto cells =
                row ? identityCells(*row)
                    : std::vector<std::string>{"?", "?", "(gone)", membership.sourceIdentityID};
            table.add({cells[0], cells[1], cells[2],
                       std::string(stateInWords(membership.state)) + ", " +
                           std::string(decidedByInWords(membership.decidedBy)),
                       membership.because ? reasonInWords(*membership.because) : "-", cells[3]});
        }
        table.print(out, terminal.style, "  ");
    }

    out << '\n'
        << plural(static_cast<std::int64_t>(history.size()), "correction", "corrections") << '\n';
    if (!history.empty()) {
        Table table({"WHEN", "WHAT", "STATE", "EVENT"}, {false, true, false, false});
        for (const auto& entry : history) {
            table.add({whenText(entry.occurredAt, terminal.style), printable(historyLine(entry)),
                       entry.reversedAt ? "undone" : "in effect", entry.mergeEventID});
        }
        table.print(out, terminal.style, "  ");
    }
}

// --- Corrections.

void confirmCandidate(Terminal& terminal, const std::string& which) {
    const auto candidate = findCandidate(terminal, which);
    const auto result = terminal.repository.confirmCandidate(
        candidate, identity::SubjectLineage::person, terminal.subjectID);
    const std::string question = printable(cardQuestion(candidate));
    if (terminal.json) {
        printJson(terminal.out, toJson(result));
    } else {
        terminal.out << "Confirmed: " << question << '\n'
                     << "  " << identityLabel(candidate.sourceIdentityA) << " and "
                     << identityLabel(candidate.sourceIdentityB)
                     << " are one person: " << personLabel(terminal.repository, result.personID)
                     << '\n';
        describeMergeEvents(terminal, result.mergeEventIDs);
    }
    rememberAndHint(terminal,
                    correction(CliCorrection::Kind::confirm, "the confirmation " + question,
                               result.mergeEventIDs, std::nullopt, {}));
}

void rejectCandidate(Terminal& terminal, const std::string& which) {
    const auto candidate = findCandidate(terminal, which);
    terminal.repository.rejectCandidate(candidate, identity::SubjectLineage::person,
                                        terminal.subjectID);
    const std::string question = printable(cardQuestion(candidate));
    const auto& a = candidate.sourceIdentityA.id;
    const auto& b = candidate.sourceIdentityB.id;
    if (terminal.json) {
        printJson(terminal.out, Json(nullptr));
    } else {
        terminal.out << "Rejected: " << question << '\n'
                     << "  " << identityLabel(candidate.sourceIdentityA) << " and "
                     << identityLabel(candidate.sourceIdentityB)
                     << " are recorded as different people and will not be suggested again.\n"
                     << "To join them after all: " << command(terminal, "link " + a + " " + b)
                     << '\n';
    }
    rememberAndHint(terminal, correction(CliCorrection::Kind::reject, "the rejection " + question,
                                         {}, std::nullopt, {a, b}));
}

void linkTargets(Terminal& terminal, const std::vector<std::string>& ids) {
    auto& repository = terminal.repository;
    std::vector<identity::ManualLinkTarget> targets;
    std::vector<std::string> labels;
    for (const auto& id : ids) {
        if (auto row = repository.sourceIdentity(id)) {
            labels.push_back(identityLabel(*row));
            targets.push_back(identity::ManualLinkTarget::identity(std::move(*row)));
        } else if (repository.person(id)) {
            labels.push_back(personLabel(repository, id));
            targets.push_back(identity::ManualLinkTarget::person(id));
        } else {
            throw CommandError("no source identity or person " + id);
        }
    }
    const auto result =
        repository.confirmManualLink(targets, identity::SubjectLineage::person, terminal.subjectID);
    const std::string summary = "the link of " + joinedLabels(labels);
    if (terminal.json) {
        printJson(terminal.out, toJson(result));
    } else {
        terminal.out << "Linked " << joinedLabels(labels) << '\n'
                     << "  They are one person now: " << personLabel(repository, result.personID)
                     << '\n';
        describeMergeEvents(terminal, result.mergeEventIDs);
    }
    rememberAndHint(terminal, correction(CliCorrection::Kind::link, summary, result.mergeEventIDs,
                                         std::nullopt, {}));
}

void separateIdentity(Terminal& terminal, const std::string& identityID) {
    auto& repository = terminal.repository;
    const auto row = requireIdentity(repository, identityID);
    const auto before = repository.resolveCanonicalPerson(identityID);
    const auto result = repository.separateIdentity(identityID, terminal.subjectID);
    const std::string label = identityLabel(row);
    if (terminal.json) {
        printJson(terminal.out, toJson(result));
    } else {
        terminal.out << "Separated " << label;
        if (before) {
            terminal.out << " from " << personLabel(repository, before->personID);
        }
        terminal.out << '\n'
                     << "  It is a person of its own now: "
                     << personLabel(repository, result.personID) << '\n';
        describeMergeEvents(terminal, result.mergeEventIDs);
    }
    rememberAndHint(terminal,
                    correction(CliCorrection::Kind::separate, "the separation of " + label,
                               result.mergeEventIDs, std::nullopt, {}));
}

void markDifferent(Terminal& terminal, const std::string& a, const std::string& b) {
    auto& repository = terminal.repository;
    const auto personA = requirePerson(repository, a);
    const auto personB = requirePerson(repository, b);
    const auto labelA = personLabel(repository, personA);
    const auto labelB = personLabel(repository, personB);
    const schema::MarkDifferentRequest request{
        .reason = "marked different by the user",
        .presetValue = 3000,
        .personIDA = personA,
        .personIDB = personB,
        .subjectID = terminal.subjectID,
        .subjectLineage = identity::SubjectLineage::person,
    };
    const auto response = repository.markDifferent(request);
    if (terminal.json) {
        printJson(terminal.out, toJson(response));
        return;
    }
    if (response.refused) {
        throw CommandError("cannot mark " + labelA + " and " + labelB +
                           " as different: " + response.message.value_or("refused"));
    }
    terminal.out << "Marked " << labelA << " and " << labelB << " as different people.\n"
                 << "To join them after all: "
                 << command(terminal, "link " + personA + " " + personB) << '\n';
    rememberAndHint(terminal, correction(CliCorrection::Kind::different,
                                         "marking " + labelA + " and " + labelB + " different", {},
                                         std::nullopt, {personA, personB}));
}

void declareOwn(Terminal& terminal, const std::vector<std::string>& handles) {
    auto& repository = terminal.repository;
    std::vector<std::string> ids;
    std::vector<std::string> labels;
    for (const auto& handle : handles) {
        if (auto row = repository.sourceIdentity(handle)) {
            ids.push_back(row->id);
            labels.push_back(identityLabel(*row));
            continue;
        }
        // A handle: every identity with exactly that handle, on any source.
        bool found = false;
        for (const auto& row : repository.searchSourceIdentities(handle, 1000, {})) {
            if (row.handleNormalized == handle &&
                std::find(ids.begin(), ids.end(), row.id) == ids.end()) {
                ids.push_back(row.id);
                labels.push_back(identityLabel(row));
                found = true;
            }
        }
        if (!found) {
            throw CommandError("no source identity has the id or handle " + printable(handle));
        }
    }
    const auto outcome = repository.batchDeclareOwnerAlias(ids, terminal.subjectID);
    if (terminal.json) {
        printJson(terminal.out, toJson(outcome));
    } else {
        terminal.out << "Declared as yours: " << joinedLabels(labels) << '\n';
        for (std::size_t i = 0; i < outcome.perIdentity.size() && i < labels.size(); ++i) {
            const auto& result = outcome.perIdentity[i];
            terminal.out << "  " << labels[i] << ": "
                         << (result.wasNewAlias ? "now one of your handles"
                                                : "was already one of your handles");
            if (result.excludedPersonID) {
                terminal.out << "; no longer counted as "
                             << personLabel(repository, *result.excludedPersonID);
            }
            terminal.out << '\n';
        }
        if (outcome.mutation.empty()) {
            terminal.out << "Nothing changed.\n";
        }
    }
    if (outcome.mutation.empty()) {
        return;
    }
    rememberAndHint(terminal, correction(CliCorrection::Kind::me,
                                         "declaring " + joinedLabels(labels) + " as yours", {},
                                         outcome.mutation, {}));
}

void undoCorrection(Terminal& terminal, const std::optional<std::string>& entry) {
    auto& repository = terminal.repository;
    const auto& last = terminal.state.lastCorrection();
    std::vector<std::string> mergeEventIDs;
    std::string summary;

    if (entry) {
        const auto event = repository.mergeEvent(*entry);
        if (!event) {
            throw CommandError("no merge event " + *entry + "; " +
                               command(terminal, "history --person ID") + " lists them");
        }
        mergeEventIDs = {*entry};
        summary = "the correction of " + event->createdAt;
        // The whole correction the event belongs to, as the history shows it.
        for (const auto& item : repository.identityHistory(event->survivingPersonID)) {
            if (std::find(item.mergeEventIDs.begin(), item.mergeEventIDs.end(), *entry) !=
                item.mergeEventIDs.end()) {
                mergeEventIDs = item.mergeEventIDs;
                summary =
                    "\"" + historyLine(item) + "\" of " + whenText(item.occurredAt, terminal.style);
                break;
            }
        }
    } else {
        if (!last) {
            throw CommandError(
                "nothing to undo: no correction of this store was made from the "
                "command line (or it was undone already); " +
                command(terminal, "history --person ID") + " lists corrections to undo by EVENT");
        }
        summary = last->summary;
        switch (last->kind) {
            case CliCorrection::Kind::reject:
            case CliCorrection::Kind::different: {
                const auto& sides = last->sides;
                throw CommandError(
                    summary + " cannot be undone; to join them: " +
                    command(terminal, "link " + (sides.empty() ? std::string("A") : sides[0]) +
                                          " " + (sides.size() < 2 ? std::string("B") : sides[1])));
            }
            case CliCorrection::Kind::me: {
                repository.undoOwnerAliasMutation(
                    last->mutation.value_or(identity::OwnerAliasMutation{}));
                terminal.state.forgetCorrection();
                if (terminal.json) {
                    printJson(terminal.out, Json(nullptr));
                } else {
                    terminal.out << "Undid " << summary << ".\n";
                }
                return;
            }
            case CliCorrection::Kind::confirm:
            case CliCorrection::Kind::link:
            case CliCorrection::Kind::separate:
                mergeEventIDs = last->mergeEventIDs;
                break;
        }
        if (mergeEventIDs.empty()) {
            terminal.state.forgetCorrection();
            throw CommandError("nothing to undo: " + summary + " changed nothing");
        }
    }

    const auto results = repository.undoConfirmation(mergeEventIDs);
    if (last && last->mergeEventIDs == mergeEventIDs) {
        terminal.state.forgetCorrection();
    }
    if (terminal.json) {
        printJson(terminal.out, toJson(results));
        return;
    }
    terminal.out << "Undid " << summary << '\n';
    for (const auto& result : results) {
        terminal.out << "  reversed " << result.mergeEventID;
        if (result.restoredPersonID) {
            terminal.out << ", brought back " << personLabel(repository, *result.restoredPersonID);
        }
        if (result.restoredMembershipCount > 0) {
            terminal.out << ", restored "
                         << plural(result.restoredMembershipCount, "membership", "memberships");
        }
        terminal.out << '\n';
    }
}

}  // namespace orvik::app

#include "ui/IdentityCorrectionController.h"

#include <mutex>
#include <set>
#include <stdexcept>

#include <QJSEngine>
#include <QtConcurrent/QtConcurrentRun>

#include <QCoro/QCoroFuture>
#include <QCoro/QCoroQml>

#include "identity/IdentityHistoryErrorCopy.h"
#include "ui/QmlCallbacks.h"
#include "ui/QmlRecords.h"

namespace orvik::ui {

namespace id = orvik::identity;
namespace Copy = identity::IdentityHistoryErrorCopy;
using identity::SubjectLineage;

void registerQCoroQmlTypes() {
    static std::once_flag once;
    std::call_once(once, [] { QCoro::Qml::registerTypes(); });
}

namespace {

// The name the proposer gets when the scope has none.
constexpr std::string_view kUnnamedPerson = "this person";

// A user-directed candidate: the controller's own pair, score 1.0.
id::IdentityCandidate userDirected(id::SourceIdentityRow a, id::SourceIdentityRow b,
                                   std::optional<std::string> existingPersonID) {
    return id::IdentityCandidate{std::move(a), std::move(b), std::move(existingPersonID), 1.0,
                                 "user_directed"};
}

QVariant optionalText(const std::optional<std::string>& text) {
    return text ? QVariant(QString::fromStdString(*text)) : qmlNull();
}

template <typename T>
QVariantList listToQml(const std::vector<T>& items) {
    return toQml(codec::toJson(items)).toList();
}

template <typename T>
QVariantMap mapToQml(const std::map<std::string, T>& items) {
    QVariantMap out;
    for (const auto& [key, value] : items) {
        out.insert(QString::fromStdString(key), recordToQml(value));
    }
    return out;
}

}  // namespace

IdentityCorrectionController::IdentityCorrectionController(QObject* parent) : QObject(parent) {
    registerQCoroQmlTypes();
}

IdentityCorrectionController::~IdentityCorrectionController() = default;

// ---------------------------------------------------------------------------
// Construction

void IdentityCorrectionController::setRepository(
    std::shared_ptr<IdentityCorrectionRepository> repository) {
    repository_ = std::move(repository);
}

void IdentityCorrectionController::setStore(IdentityStore* store) {
    if (store_ == store) {
        return;
    }
    store_ = store;
    Q_EMIT storeChanged();
}

void IdentityCorrectionController::setSubjectID(const QString& subjectID) {
    if (subjectID_ == subjectID.toStdString()) {
        return;
    }
    subjectID_ = subjectID.toStdString();
    Q_EMIT subjectIDChanged();
}

void IdentityCorrectionController::setUndoOfferStore(IdentityCorrectionUndoOfferStore* store) {
    if (offerStore_ == store) {
        return;
    }
    offerStore_ = store;
    Q_EMIT undoOfferStoreChanged();
    if (store != nullptr) {
        setCurrentUndoOffer(store->currentOffer());
    }
}

void IdentityCorrectionController::setCandidateProposer(CandidateProposer proposer) {
    proposer_ = std::move(proposer);
    Q_EMIT candidateProposerChanged();
}

namespace {

// The coroutines behind the proposer and lookup adapters. Free functions taking
// everything by value: a coroutine lambda's captures would die with the lambda.

QCoro::Task<id::IdentityCandidateSuggestionResult> proposeOnPool(
    std::shared_ptr<id::IdentityCandidateProposing> proposer, std::string name,
    std::vector<id::IdentityCandidateContext> contexts) {
    // The proposer may take its time: it runs on a pool thread, never here.
    auto future =
        QtConcurrent::run([proposer, name = std::move(name), contexts = std::move(contexts)] {
            return proposer->proposeCandidates(name, contexts);
        });
    co_return co_await future;
}

QCoro::Task<id::IdentityCandidateSuggestionResult> proposeThroughQml(
    QPointer<QObject> controller, QPointer<QObject> target, std::string name,
    std::vector<id::IdentityCandidateContext> contexts) {
    QJSEngine* engine = controller ? qjsEngine(controller.data()) : nullptr;
    if (engine == nullptr || target.isNull()) {
        co_return id::IdentityCandidateSuggestionResult::unavailable();
    }
    // A proposer cannot fail: whatever goes wrong on the script side means it
    // could not answer.
    try {
        const QJSValue self = engine->newQObject(target.data());
        QJSEngine::setObjectOwnership(target.data(), QJSEngine::CppOwnership);
        const QJSValue method = self.property(QString::fromLatin1("proposeCandidates"));
        QJSValueList args;
        args.append(QJSValue(QString::fromStdString(name)));
        args.append(engine->toScriptValue(toQml(codec::toJson(contexts))));
        const QJSValue answer = co_await callAndSettle(engine, method, std::move(args), self);
        co_return recordFromQml<id::IdentityCandidateSuggestionResult>(answer, "proposal");
    } catch (const std::exception&) {
        co_return id::IdentityCandidateSuggestionResult::unavailable();
    }
}

QCoro::Task<std::optional<id::PersonNoteContext>> lookUpThroughQml(QPointer<QObject> controller,
                                                                   QJSValue lookup,
                                                                   std::string personID) {
    QJSEngine* engine = controller ? qjsEngine(controller.data()) : nullptr;
    QJSValueList args;
    args.append(QJSValue(QString::fromStdString(personID)));
    const QJSValue answer = co_await callAndSettle(engine, lookup, std::move(args));
    co_return recordFromQml<std::optional<id::PersonNoteContext>>(answer, "personNoteContext");
}

}  // namespace

void IdentityCorrectionController::setCandidateProposer(
    std::shared_ptr<id::IdentityCandidateProposing> proposer) {
    if (!proposer) {
        setCandidateProposer(CandidateProposer{});
        return;
    }
    setCandidateProposer(
        [proposer](std::string name, std::vector<id::IdentityCandidateContext> contexts) {
            return proposeOnPool(proposer, std::move(name), std::move(contexts));
        });
}

void IdentityCorrectionController::setPersonNoteContextLookup(PersonNoteContextLookup lookup) {
    noteLookup_ = std::move(lookup);
}

void IdentityCorrectionController::setCandidateProposerFromQml(const QVariant& proposer) {
    qmlProposer_ = proposer;
    QObject* object = proposer.value<QObject*>();
    if (object == nullptr) {
        setCandidateProposer(CandidateProposer{});
        return;
    }
    setCandidateProposer([controller = QPointer<QObject>(this), target = QPointer<QObject>(object)](
                             std::string name, std::vector<id::IdentityCandidateContext> contexts) {
        return proposeThroughQml(controller, target, std::move(name), std::move(contexts));
    });
}

void IdentityCorrectionController::setPersonNoteContextLookupFromQml(const QJSValue& lookup) {
    qmlLookup_ = lookup;
    Q_EMIT personNoteContextLookupChanged();
    if (!lookup.isCallable()) {
        noteLookup_ = {};
        return;
    }
    noteLookup_ = [controller = QPointer<QObject>(this), lookup](std::string personID) {
        return lookUpThroughQml(controller, lookup, std::move(personID));
    };
}

IdentityCorrectionRepository& IdentityCorrectionController::repo() const {
    if (repository_) {
        return *repository_;
    }
    if (store_ && store_->repository()) {
        return *store_->repository();
    }
    throw std::runtime_error("the identity store is not open");
}

// ---------------------------------------------------------------------------
// Published state

void IdentityCorrectionController::recordError(const std::exception& error) {
    lastError_ = Copy::diagnosticText(error);
    lastErrorCopy_ = Copy::memberText(error);
    Q_EMIT lastErrorChanged();
}

void IdentityCorrectionController::recordError(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        recordError(e);
    } catch (...) {
        recordError(std::runtime_error("unknown error"));
    }
}

void IdentityCorrectionController::clearError() {
    if (!lastError_ && !lastErrorCopy_) {
        return;
    }
    lastError_.reset();
    lastErrorCopy_.reset();
    Q_EMIT lastErrorChanged();
}

void IdentityCorrectionController::setCandidates(std::vector<id::IdentityCandidate> candidates) {
    candidates_ = std::move(candidates);
    Q_EMIT candidatesChanged();
}

void IdentityCorrectionController::removeCandidate(const std::string& candidateID) {
    std::erase_if(candidates_, [&](const auto& c) { return c.id() == candidateID; });
    Q_EMIT candidatesChanged();
}

void IdentityCorrectionController::setSearchResults(std::vector<id::SourceIdentityRow> rows,
                                                    std::vector<id::LinkablePersonRow> people) {
    manualSearchResults_ = std::move(rows);
    manualPersonResults_ = std::move(people);
    Q_EMIT manualSearchResultsChanged();
    Q_EMIT manualPersonResultsChanged();
}

void IdentityCorrectionController::setSuggestions(
    std::map<std::string, id::IdentityCandidateProposal> proposals, bool noMatch,
    bool unavailable) {
    candidateProposals_ = std::move(proposals);
    suggestionsNoMatch_ = noMatch;
    suggestionsUnavailable_ = unavailable;
    Q_EMIT candidateSuggestionsChanged();
}

void IdentityCorrectionController::invalidateDerivedState() {
    setSearchResults({}, {});
    setSuggestions({}, false, false);
    candidateContexts_.clear();
    personNoteContexts_.clear();
    Q_EMIT candidateContextsChanged();
    Q_EMIT personNoteContextsChanged();
}

void IdentityCorrectionController::setCurrentUndoOffer(std::optional<UndoOffer> offer) {
    if (offer_ == offer) {
        return;
    }
    offer_ = std::move(offer);
    Q_EMIT currentUndoOfferChanged();
}

bool IdentityCorrectionController::isScopedWithoutAnchor() const {
    return scopedPersonID_ && scopedPersonAnchor_.empty() && !scopedPersonIsLive_;
}

std::vector<id::ManualLinkTarget> IdentityCorrectionController::scopedLinkTargets() const {
    std::vector<id::ManualLinkTarget> targets;
    if (!scopedPersonID_) {
        return targets;
    }
    for (const auto& anchor : scopedPersonAnchor_) {
        targets.push_back(id::ManualLinkTarget::identity(anchor));
    }
    if (targets.empty() && scopedPersonIsLive_) {
        targets.push_back(id::ManualLinkTarget::person(*scopedPersonID_));
    }
    return targets;
}

const UndoableConfirmation* IdentityCorrectionController::lastConfirmation() const {
    return offer_ ? offer_->confirmation() : nullptr;
}

const UndoableOwnerAlias* IdentityCorrectionController::lastOwnerAliasDeclaration() const {
    return offer_ ? offer_->ownerAlias() : nullptr;
}

// ---------------------------------------------------------------------------
// Undo offers

void IdentityCorrectionController::recordUndoOffer(UndoOffer offer) {
    if (offerStore_) {
        offerStore_->setCurrentOffer(offer);
    }
    setCurrentUndoOffer(std::move(offer));
}

std::optional<UndoOffer> IdentityCorrectionController::claimUndoOffer(
    const std::string& operationID) {
    if (offerStore_) {
        auto claimed = offerStore_->claim(operationID);
        setCurrentUndoOffer(offerStore_->currentOffer());
        return claimed;
    }
    if (!offer_ || offer_->id() != operationID) {
        return std::nullopt;
    }
    auto claimed = offer_;
    setCurrentUndoOffer(std::nullopt);
    return claimed;
}

void IdentityCorrectionController::restoreClaimedUndoOffer(UndoOffer offer) {
    if (offerStore_) {
        offerStore_->restoreClaimed(std::move(offer));
        setCurrentUndoOffer(offerStore_->currentOffer());
        return;
    }
    if (!offer_) {
        setCurrentUndoOffer(std::move(offer));
    }
}

// ---------------------------------------------------------------------------
// Operations. Each keeps its arguments by value and checks that the controller
// still exists after every wait.

QCoro::Task<> IdentityCorrectionController::reloadAsync(std::int64_t limit) {
    QPointer self(this);
    try {
        auto candidates = co_await repo().exactKeyCandidates(limit);
        if (!self) {
            co_return;
        }
        setCandidates(std::move(candidates));
        clearError();
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
    }
}

QCoro::Task<> IdentityCorrectionController::loadScopedToPersonAsync(
    std::string personID, std::optional<std::string> displayName) {
    QPointer self(this);
    scopeBeforeAbsorbingLink_.reset();
    const std::int64_t generation = ++scopeLoadGeneration_;
    ++searchGeneration_;
    invalidateDerivedState();

    std::vector<id::SourceIdentityRow> anchors;
    bool live = false;
    std::exception_ptr failure;
    try {
        auto& repository = repo();
        const auto memberships = co_await repository.activeMemberships(personID);
        for (const auto& membership : memberships) {
            if (!self) {
                co_return;
            }
            if (auto row = co_await repo().sourceIdentity(membership.sourceIdentityID)) {
                anchors.push_back(std::move(*row));
            }
        }
        if (!self) {
            co_return;
        }
        const auto person = co_await repo().person(personID);
        live = person && !person->mergedIntoPersonID;
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self || generation != scopeLoadGeneration_) {
        co_return;  // a later scope load owns the screen now
    }
    scopedPersonID_ = personID;
    scopedPersonDisplayName_ = displayName;
    scopedPersonIsLive_ = failure ? false : live;
    if (failure) {
        // The anchors keep their previous value on a failed load.
        Q_EMIT scopeChanged();
        recordError(failure);
        co_return;
    }
    scopedPersonAnchor_ = std::move(anchors);
    Q_EMIT scopeChanged();
    clearError();
    if (lastQuery_) {
        co_await manualSearchAsync(*lastQuery_);
    }
}

QCoro::Task<> IdentityCorrectionController::manualSearchAsync(std::string query) {
    QPointer self(this);
    lastQuery_ = query;
    const std::int64_t generation = ++searchGeneration_;
    invalidateDerivedState();

    std::vector<std::string> anchorIDs;
    for (const auto& anchor : scopedPersonAnchor_) {
        anchorIDs.push_back(anchor.id);
    }
    std::vector<std::string> personExclusion;
    if (scopedPersonID_) {
        personExclusion.push_back(*scopedPersonID_);
    }
    std::vector<id::SourceIdentityRow> rows;
    std::vector<id::LinkablePersonRow> people;
    std::exception_ptr failure;
    try {
        rows = co_await repo().searchSourceIdentities(query, 50, anchorIDs);
        if (!self) {
            co_return;
        }
        people = co_await repo().searchUserStatedPeople(query, 50, personExclusion);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self || generation != searchGeneration_) {
        co_return;
    }
    if (failure) {
        recordError(failure);
        rows.clear();
        people.clear();
        setSearchResults({}, {});
    } else {
        setSearchResults(rows, people);
        clearError();
    }
    co_await loadContexts(std::move(rows), generation);
    if (!self) {
        co_return;
    }
    co_await loadNoteContexts(std::move(people), generation);
}

QCoro::Task<> IdentityCorrectionController::loadContexts(std::vector<id::SourceIdentityRow> rows,
                                                         std::int64_t generation) {
    QPointer self(this);
    std::vector<std::string> anchorIDs;
    for (const auto& anchor : scopedPersonAnchor_) {
        anchorIDs.push_back(anchor.id);
    }
    std::map<std::string, id::IdentityCandidateContext> contexts;
    for (const auto& row : rows) {
        try {
            auto context = co_await repo().candidateContext(row.id, anchorIDs);
            if (!self || generation != searchGeneration_) {
                co_return;
            }
            if (context) {
                contexts.insert_or_assign(row.id, std::move(*context));
            }
        } catch (const std::exception&) {
            // One missing context is skipped; the others still show.
            if (!self || generation != searchGeneration_) {
                co_return;
            }
        }
    }
    if (self && generation == searchGeneration_) {
        candidateContexts_ = std::move(contexts);
        Q_EMIT candidateContextsChanged();
    }
}

QCoro::Task<> IdentityCorrectionController::loadNoteContexts(
    std::vector<id::LinkablePersonRow> people, std::int64_t generation) {
    if (!noteLookup_) {
        co_return;
    }
    QPointer self(this);
    const auto lookup = noteLookup_;
    std::map<std::string, id::PersonNoteContext> contexts;
    for (const auto& person : people) {
        try {
            auto context = co_await lookup(person.id);
            if (!self || generation != searchGeneration_) {
                co_return;
            }
            if (context) {
                contexts.insert_or_assign(person.id, std::move(*context));
            }
        } catch (const std::exception&) {
            if (!self || generation != searchGeneration_) {
                co_return;
            }
        }
    }
    if (self && generation == searchGeneration_) {
        personNoteContexts_ = std::move(contexts);
        Q_EMIT personNoteContextsChanged();
    }
}

QCoro::Task<> IdentityCorrectionController::loadCandidateContextsAsync() {
    co_await loadContexts(manualSearchResults_, searchGeneration_);
}

QCoro::Task<> IdentityCorrectionController::suggestCandidatesAsync() {
    if (!proposer_) {
        co_return;
    }
    QPointer self(this);
    std::vector<id::IdentityCandidateContext> contexts;
    for (const auto& [key, context] : candidateContexts_) {
        contexts.push_back(context);
    }
    if (contexts.empty()) {
        setSuggestions({}, true, false);
        co_return;
    }
    const std::int64_t generation = searchGeneration_;
    setSuggestions({}, false, false);
    const auto proposer = proposer_;
    std::string personName = scopedPersonDisplayName_ ? *scopedPersonDisplayName_ : std::string();
    if (!scopedPersonDisplayName_) {
        personName = kUnnamedPerson;
    }
    const auto result = co_await proposer(std::move(personName), std::move(contexts));
    if (!self || generation != searchGeneration_) {
        co_return;
    }
    using Result = id::IdentityCandidateSuggestionResult;
    if (std::holds_alternative<Result::NoMatchFound>(result.value)) {
        setSuggestions({}, true, false);
    } else if (std::holds_alternative<Result::Unavailable>(result.value)) {
        setSuggestions({}, false, true);
    } else {
        std::map<std::string, id::IdentityCandidateProposal> proposals;
        for (const auto& proposal :
             std::get<std::vector<id::IdentityCandidateProposal>>(result.value)) {
            if (!proposals.emplace(proposal.sourceIdentityID, proposal).second) {
                // Naming one identity twice is not an answer the screen can show.
                setSuggestions({}, false, true);
                co_return;
            }
        }
        setSuggestions(std::move(proposals), false, false);
    }
}

QCoro::Task<> IdentityCorrectionController::confirmAsync(id::IdentityCandidate candidate) {
    QPointer self(this);
    try {
        const auto result =
            co_await repo().confirmCandidate(candidate, SubjectLineage::person, subjectID_);
        if (!self) {
            co_return;
        }
        removeCandidate(candidate.id());
        if (!result.mergeEventIDs.empty()) {
            recordUndoOffer(
                UndoOffer{UndoableConfirmation{newOperationID(), candidate, result.mergeEventIDs}});
        }
        clearError();
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
    }
}

QCoro::Task<> IdentityCorrectionController::rejectAsync(id::IdentityCandidate candidate) {
    QPointer self(this);
    try {
        co_await repo().rejectCandidate(candidate, SubjectLineage::person, subjectID_);
        if (!self) {
            co_return;
        }
        removeCandidate(candidate.id());
        clearError();
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
    }
}

QCoro::Task<> IdentityCorrectionController::confirmManualLinkAsync(id::SourceIdentityRow a,
                                                                   id::SourceIdentityRow b) {
    QPointer self(this);
    try {
        const auto result =
            co_await repo().confirmManualLink(a, b, SubjectLineage::person, subjectID_);
        if (!self) {
            co_return;
        }
        auto candidate = userDirected(std::move(a), std::move(b), std::nullopt);
        removeCandidate(candidate.id());
        if (!result.mergeEventIDs.empty()) {
            recordUndoOffer(UndoOffer{UndoableConfirmation{newOperationID(), std::move(candidate),
                                                           result.mergeEventIDs}});
        }
        clearError();
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
    }
}

QCoro::Task<> IdentityCorrectionController::batchConfirmManualLinkAsync(
    std::vector<id::SourceIdentityRow> rows) {
    std::vector<id::ManualLinkTarget> targets;
    for (auto& row : rows) {
        targets.push_back(id::ManualLinkTarget::identity(std::move(row)));
    }
    co_await confirmManualLinkAsync(std::move(targets));
}

QCoro::Task<> IdentityCorrectionController::confirmManualLinkAsync(
    std::vector<id::ManualLinkTarget> targets) {
    if (targets.size() < 2) {
        co_return;
    }
    QPointer self(this);
    id::IdentityConfirmResult result;
    try {
        result = co_await repo().confirmManualLink(targets, SubjectLineage::person, subjectID_);
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
        co_return;
    }
    if (!self) {
        co_return;
    }
    if (!result.mergeEventIDs.empty()) {
        recordUndoOffer(
            UndoOffer{UndoableConfirmation{newOperationID(), std::nullopt, result.mergeEventIDs}});
    }
    clearError();

    // Re-scoping: when the link absorbed the scoped person, follow it to the
    // survivor and remember the scope it replaced, for undo.
    const auto previousID = scopedPersonID_;
    const auto previousName = scopedPersonDisplayName_;
    if (!previousID || !previousName || result.personID == *previousID) {
        co_return;
    }
    std::optional<id::PersonRow> person;
    try {
        person = co_await repo().person(*previousID);
    } catch (const std::exception&) {
        co_return;
    }
    if (!self || !person || !person->mergedIntoPersonID) {
        co_return;
    }
    co_await loadScopedToPersonAsync(result.personID, previousName);
    if (self) {
        scopeBeforeAbsorbingLink_ = std::pair(*previousID, *previousName);
    }
}

QCoro::Task<> IdentityCorrectionController::markDifferentFromScopeAsync(
    std::vector<id::SourceIdentityRow> rows) {
    if (scopedPersonAnchor_.empty() || rows.empty()) {
        co_return;
    }
    QPointer self(this);
    const id::SourceIdentityRow reference = scopedPersonAnchor_.front();
    std::set<std::string> anchorIDs;
    for (const auto& anchor : scopedPersonAnchor_) {
        anchorIDs.insert(anchor.id);
    }
    const auto scopedID = scopedPersonID_;
    bool separated = false;
    try {
        for (auto& row : rows) {
            if (row.id == reference.id) {
                continue;
            }
            if (anchorIDs.contains(row.id)) {
                co_await repo().separateIdentity(row.id, subjectID_);
                separated = true;
            } else {
                co_await repo().rejectCandidate(userDirected(reference, row, scopedID),
                                                SubjectLineage::person, subjectID_);
            }
            if (!self) {
                co_return;
            }
        }
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
        co_return;
    }
    if (!self) {
        co_return;
    }
    clearError();
    if (separated && scopedPersonID_ && scopedPersonDisplayName_) {
        co_await loadScopedToPersonAsync(*scopedPersonID_, scopedPersonDisplayName_);
    }
}

QCoro::Task<> IdentityCorrectionController::declareOwnerAliasAsync(id::SourceIdentityRow row) {
    std::vector<id::SourceIdentityRow> rows;
    rows.push_back(std::move(row));
    co_await batchDeclareOwnerAliasAsync(std::move(rows));
}

QCoro::Task<> IdentityCorrectionController::batchDeclareOwnerAliasAsync(
    std::vector<id::SourceIdentityRow> rows) {
    if (rows.empty()) {
        co_return;
    }
    QPointer self(this);
    std::vector<std::string> ids;
    for (const auto& row : rows) {
        ids.push_back(row.id);
    }
    try {
        auto outcome = co_await repo().batchDeclareOwnerAlias(ids, subjectID_);
        if (!self) {
            co_return;
        }
        if (!outcome.mutation.empty()) {
            recordUndoOffer(
                UndoOffer{UndoableOwnerAlias{newOperationID(), std::move(outcome.mutation)}});
        }
        clearError();
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
    }
}

QCoro::Task<> IdentityCorrectionController::undoLastConfirmationAsync() {
    const auto* last = lastConfirmation();
    if (last == nullptr) {
        co_return;
    }
    auto claimed = claimUndoOffer(last->operationID);
    if (!claimed) {
        co_return;  // another screen took it, or a newer offer replaced it
    }
    QPointer self(this);
    const UndoableConfirmation offer = *claimed->confirmation();
    try {
        co_await repo().undoConfirmation(offer.mergeEventIDs);
    } catch (const std::exception& error) {
        if (self) {
            restoreClaimedUndoOffer(UndoOffer{offer});
            recordError(error);
        }
        co_return;
    }
    if (!self) {
        co_return;
    }
    setCurrentUndoOffer(offerStore_ ? offerStore_->currentOffer() : std::nullopt);
    if (offer.candidate) {
        // Appended even when the list already holds it again (after a reload).
        candidates_.push_back(*offer.candidate);
        Q_EMIT candidatesChanged();
    }
    clearError();
    if (const auto previous = scopeBeforeAbsorbingLink_) {
        co_await loadScopedToPersonAsync(previous->first, previous->second);
    }
}

QCoro::Task<> IdentityCorrectionController::undoLastOwnerAliasDeclarationAsync() {
    const auto* last = lastOwnerAliasDeclaration();
    if (last == nullptr) {
        co_return;
    }
    auto claimed = claimUndoOffer(last->operationID);
    if (!claimed) {
        co_return;
    }
    QPointer self(this);
    const UndoableOwnerAlias offer = *claimed->ownerAlias();
    try {
        co_await repo().undoOwnerAliasMutation(offer.mutation);
    } catch (const std::exception& error) {
        if (self) {
            restoreClaimedUndoOffer(UndoOffer{offer});
            recordError(error);
        }
        co_return;
    }
    if (!self) {
        co_return;
    }
    setCurrentUndoOffer(offerStore_ ? offerStore_->currentOffer() : std::nullopt);
    clearError();
}

std::optional<id::ManualLinkSurvivorPrediction>
IdentityCorrectionController::predictedManualLinkSurvivor(
    const std::vector<id::ManualLinkTarget>& targets) {
    try {
        return repo().predictManualLinkSurvivor(targets);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::vector<id::ManualLinkTarget> IdentityCorrectionController::manualLinkPreviewSurvivorTargets(
    const std::vector<id::ManualLinkTarget>& targets) {
    if (targets.empty()) {
        return {};
    }
    const bool hasPerson = std::any_of(targets.begin(), targets.end(), [](const auto& target) {
        return std::holds_alternative<id::ManualLinkTarget::Person>(target.value);
    });
    if (hasPerson) {
        if (auto prediction = predictedManualLinkSurvivor(targets)) {
            return prediction->survivorTargets;
        }
    }
    return {targets.front()};
}

// ---------------------------------------------------------------------------
// QML

template <typename Decode, typename Run>
QCoro::QmlTask IdentityCorrectionController::fromQml(Decode decode, Run run) {
    try {
        return run(decode());
    } catch (const codec::BadRequest& error) {
        recordError(error);
        return []() -> QCoro::Task<> { co_return; }();
    }
}

QCoro::QmlTask IdentityCorrectionController::reload(int limit) {
    return reloadAsync(limit);
}

QCoro::QmlTask IdentityCorrectionController::loadScopedToPerson(const QString& personID,
                                                                const QJSValue& displayName) {
    return fromQml(
        [&] { return recordFromQml<std::optional<std::string>>(displayName, "displayName"); },
        [&](std::optional<std::string> name) {
            return loadScopedToPersonAsync(personID.toStdString(), std::move(name));
        });
}

QCoro::QmlTask IdentityCorrectionController::manualSearch(const QString& query) {
    return manualSearchAsync(query.toStdString());
}

QCoro::QmlTask IdentityCorrectionController::loadCandidateContexts() {
    return loadCandidateContextsAsync();
}

QCoro::QmlTask IdentityCorrectionController::suggestCandidates() {
    return suggestCandidatesAsync();
}

QCoro::QmlTask IdentityCorrectionController::confirm(const QJSValue& candidate) {
    return fromQml([&] { return recordFromQml<id::IdentityCandidate>(candidate, "candidate"); },
                   [&](id::IdentityCandidate c) { return confirmAsync(std::move(c)); });
}

QCoro::QmlTask IdentityCorrectionController::reject(const QJSValue& candidate) {
    return fromQml([&] { return recordFromQml<id::IdentityCandidate>(candidate, "candidate"); },
                   [&](id::IdentityCandidate c) { return rejectAsync(std::move(c)); });
}

QCoro::QmlTask IdentityCorrectionController::confirmManualLink(const QJSValue& a,
                                                               const QJSValue& b) {
    return fromQml(
        [&] {
            return std::pair(recordFromQml<id::SourceIdentityRow>(a, "a"),
                             recordFromQml<id::SourceIdentityRow>(b, "b"));
        },
        [&](std::pair<id::SourceIdentityRow, id::SourceIdentityRow> rows) {
            return confirmManualLinkAsync(std::move(rows.first), std::move(rows.second));
        });
}

QCoro::QmlTask IdentityCorrectionController::confirmManualLink(const QJSValue& targets) {
    return fromQml(
        [&] { return recordFromQml<std::vector<id::ManualLinkTarget>>(targets, "targets"); },
        [&](std::vector<id::ManualLinkTarget> t) { return confirmManualLinkAsync(std::move(t)); });
}

QCoro::QmlTask IdentityCorrectionController::batchConfirmManualLink(const QJSValue& rows) {
    return fromQml([&] { return recordFromQml<std::vector<id::SourceIdentityRow>>(rows, "rows"); },
                   [&](std::vector<id::SourceIdentityRow> r) {
                       return batchConfirmManualLinkAsync(std::move(r));
                   });
}

QCoro::QmlTask IdentityCorrectionController::markDifferentFromScope(const QJSValue& rows) {
    return fromQml([&] { return recordFromQml<std::vector<id::SourceIdentityRow>>(rows, "rows"); },
                   [&](std::vector<id::SourceIdentityRow> r) {
                       return markDifferentFromScopeAsync(std::move(r));
                   });
}

QCoro::QmlTask IdentityCorrectionController::declareOwnerAlias(const QJSValue& row) {
    return fromQml([&] { return recordFromQml<id::SourceIdentityRow>(row, "row"); },
                   [&](id::SourceIdentityRow r) { return declareOwnerAliasAsync(std::move(r)); });
}

QCoro::QmlTask IdentityCorrectionController::batchDeclareOwnerAlias(const QJSValue& rows) {
    return fromQml([&] { return recordFromQml<std::vector<id::SourceIdentityRow>>(rows, "rows"); },
                   [&](std::vector<id::SourceIdentityRow> r) {
                       return batchDeclareOwnerAliasAsync(std::move(r));
                   });
}

QCoro::QmlTask IdentityCorrectionController::undoLastConfirmation() {
    return undoLastConfirmationAsync();
}

QCoro::QmlTask IdentityCorrectionController::undoLastOwnerAliasDeclaration() {
    return undoLastOwnerAliasDeclarationAsync();
}

QVariant IdentityCorrectionController::predictedManualLinkSurvivor(const QJSValue& targets) {
    try {
        const auto decoded = recordFromQml<std::vector<id::ManualLinkTarget>>(targets, "targets");
        return recordToQml(predictedManualLinkSurvivor(decoded));
    } catch (const codec::BadRequest& error) {
        recordError(error);
        return qmlNull();
    }
}

QVariantList IdentityCorrectionController::manualLinkPreviewSurvivorTargets(
    const QJSValue& targets) {
    try {
        const auto decoded = recordFromQml<std::vector<id::ManualLinkTarget>>(targets, "targets");
        return listToQml(manualLinkPreviewSurvivorTargets(decoded));
    } catch (const codec::BadRequest& error) {
        recordError(error);
        return {};
    }
}

QVariantList IdentityCorrectionController::candidatesForQml() const {
    return listToQml(candidates_);
}
QVariant IdentityCorrectionController::lastErrorForQml() const {
    return optionalText(lastError_);
}
QVariant IdentityCorrectionController::lastErrorCopyForQml() const {
    return optionalText(lastErrorCopy_);
}
QVariantList IdentityCorrectionController::manualSearchResultsForQml() const {
    return listToQml(manualSearchResults_);
}
QVariantList IdentityCorrectionController::manualPersonResultsForQml() const {
    return listToQml(manualPersonResults_);
}
QVariantList IdentityCorrectionController::scopedPersonAnchorForQml() const {
    return listToQml(scopedPersonAnchor_);
}
QVariant IdentityCorrectionController::scopedPersonDisplayNameForQml() const {
    return optionalText(scopedPersonDisplayName_);
}
QVariant IdentityCorrectionController::scopedPersonIDForQml() const {
    return optionalText(scopedPersonID_);
}
QVariantMap IdentityCorrectionController::candidateContextsForQml() const {
    return mapToQml(candidateContexts_);
}
QVariantMap IdentityCorrectionController::personNoteContextsForQml() const {
    return mapToQml(personNoteContexts_);
}
QVariantMap IdentityCorrectionController::candidateProposalsForQml() const {
    return mapToQml(candidateProposals_);
}
QVariantList IdentityCorrectionController::scopedLinkTargetsForQml() const {
    return listToQml(scopedLinkTargets());
}

}  // namespace orvik::ui

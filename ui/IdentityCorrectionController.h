// IdentityCorrectionController: the view-model of the correction screens (the
// candidate list and the manual-link screen).
//
// Lives on the main thread and takes no locks. Every operation waits for the
// repository without blocking the main thread; operations may overlap, and two
// generation counters decide which load results may still be published:
// scopeLoadGeneration guards the scope load, searchGeneration the manual search,
// the context loads and the suggestions (every scope load and every search
// increases it). A stale result is dropped without touching the error state.
//
// Nothing is ever thrown to the caller: a failure is recorded in lastError (the
// diagnostic form: case name, and for notFound, invalidArgs and excluded the
// message in straight double quotes inside parentheses) and lastErrorCopy (the
// user text, null when the error has none); a success clears both. Malformed
// records from QML are recorded the same way, and nothing is written.
//
// Records cross into QML as their exec JSON forms (plain JavaScript objects).
// Every asynchronous operation returns a QCoro QmlTask whose then() runs once the
// operation has finished and published.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QtQml/qqmlregistration.h>
#include <QJSValue>
#include <QObject>
#include <QPointer>
#include <QVariant>

#include <QCoro/QCoroQmlTask>
#include <QCoro/QCoroTask>

#include "identity/IdentityCorrectionView.h"
#include "identity/IdentityModels.h"
#include "ui/CorrectionRepository.h"
#include "ui/IdentityCorrectionUndoOfferStore.h"
#include "ui/IdentityStore.h"

namespace orvik::ui {

class IdentityCorrectionController : public QObject {
    Q_OBJECT
    QML_ELEMENT

    // --- Set once, before use.
    // The store whose repository the controller uses.
    Q_PROPERTY(orvik::ui::IdentityStore* repository READ store WRITE setStore NOTIFY storeChanged)
    // The subject on whose behalf corrections are made (subject lineage "person").
    Q_PROPERTY(QString subjectID READ subjectID WRITE setSubjectID NOTIFY subjectIDChanged)
    // The shared holder of the current undo offer; optional.
    Q_PROPERTY(orvik::ui::IdentityCorrectionUndoOfferStore* undoOfferStore READ undoOfferStore WRITE
                   setUndoOfferStore NOTIFY undoOfferStoreChanged)
    // A QML object with proposeCandidates(personName, contexts) answering (or
    // promising) {"proposed": [...]}, {"noMatchFound": true} or {"unavailable": true}.
    Q_PROPERTY(QVariant candidateProposer READ candidateProposerForQml WRITE
                   setCandidateProposerFromQml NOTIFY candidateProposerChanged)
    // A function from a person id to a PersonNoteContext object, null, or a
    // promise of either.
    Q_PROPERTY(QJSValue personNoteContextLookup READ personNoteContextLookupForQml WRITE
                   setPersonNoteContextLookupFromQml NOTIFY personNoteContextLookupChanged)

    // --- Published, in the order of the view-model.
    // Exact-key candidates to review (IdentityCandidate objects).
    Q_PROPERTY(QVariantList candidates READ candidatesForQml NOTIFY candidatesChanged)
    // The undo offer as this controller last saw it, or null.
    Q_PROPERTY(QVariant currentUndoOffer READ currentUndoOfferForQml NOTIFY currentUndoOfferChanged)
    // Diagnostic text of the last failure, or null.
    Q_PROPERTY(QVariant lastError READ lastErrorForQml NOTIFY lastErrorChanged)
    // User-facing text of the last failure, or null when it has none.
    Q_PROPERTY(QVariant lastErrorCopy READ lastErrorCopyForQml NOTIFY lastErrorChanged)
    // Identities found by the manual search (SourceIdentityRow objects).
    Q_PROPERTY(QVariantList manualSearchResults READ manualSearchResultsForQml NOTIFY
                   manualSearchResultsChanged)
    // User-stated people found by the manual search (LinkablePersonRow objects).
    Q_PROPERTY(QVariantList manualPersonResults READ manualPersonResultsForQml NOTIFY
                   manualPersonResultsChanged)
    // The identities that belong to the scoped person.
    Q_PROPERTY(QVariantList scopedPersonAnchor READ scopedPersonAnchorForQml NOTIFY scopeChanged)
    // The scoped person's display name, or null.
    Q_PROPERTY(
        QVariant scopedPersonDisplayName READ scopedPersonDisplayNameForQml NOTIFY scopeChanged)
    // The scoped person, or null.
    Q_PROPERTY(QVariant scopedPersonID READ scopedPersonIDForQml NOTIFY scopeChanged)
    // The scoped person exists and has not been absorbed.
    Q_PROPERTY(bool scopedPersonIsLive READ scopedPersonIsLive NOTIFY scopeChanged)
    // Context of each manual search result, keyed by source identity id.
    Q_PROPERTY(
        QVariantMap candidateContexts READ candidateContextsForQml NOTIFY candidateContextsChanged)
    // Notes context of each person result, keyed by person id.
    Q_PROPERTY(QVariantMap personNoteContexts READ personNoteContextsForQml NOTIFY
                   personNoteContextsChanged)
    // The proposer's suggestions, keyed by source identity id.
    Q_PROPERTY(QVariantMap candidateProposals READ candidateProposalsForQml NOTIFY
                   candidateSuggestionsChanged)
    // The proposer found nothing.
    Q_PROPERTY(bool candidateSuggestionsNoMatch READ candidateSuggestionsNoMatch NOTIFY
                   candidateSuggestionsChanged)
    // The proposer could not answer.
    Q_PROPERTY(bool candidateSuggestionsUnavailable READ candidateSuggestionsUnavailable NOTIFY
                   candidateSuggestionsChanged)

    // --- Derived.
    // A proposer was given.
    Q_PROPERTY(bool canSuggestCandidates READ canSuggestCandidates NOTIFY candidateProposerChanged)
    // A scope is set, without anchors, and its person is not live.
    Q_PROPERTY(bool isScopedWithoutAnchor READ isScopedWithoutAnchor NOTIFY scopeChanged)
    // The scope as manual-link targets: the anchors as identity targets, else the
    // live person as a person target, else empty.
    Q_PROPERTY(QVariantList scopedLinkTargets READ scopedLinkTargetsForQml NOTIFY scopeChanged)
    // currentUndoOffer's payload when it is a confirmation, else null.
    Q_PROPERTY(QVariant lastConfirmation READ lastConfirmationForQml NOTIFY currentUndoOfferChanged)
    // currentUndoOffer's payload when it is an owner-alias declaration, else null.
    Q_PROPERTY(QVariant lastOwnerAliasDeclaration READ lastOwnerAliasDeclarationForQml NOTIFY
                   currentUndoOfferChanged)

  public:
    using CandidateProposer =
        std::function<QCoro::Task<identity::IdentityCandidateSuggestionResult>(
            std::string personName, std::vector<identity::IdentityCandidateContext> contexts)>;
    using PersonNoteContextLookup =
        std::function<QCoro::Task<std::optional<identity::PersonNoteContext>>(std::string)>;

    explicit IdentityCorrectionController(QObject* parent = nullptr);
    ~IdentityCorrectionController() override;

    // --- C++ construction (instead of the QML properties).
    void setRepository(std::shared_ptr<IdentityCorrectionRepository> repository);
    void setCandidateProposer(CandidateProposer proposer);
    // Runs the proposer on a thread of its own, never on the main thread.
    void setCandidateProposer(std::shared_ptr<identity::IdentityCandidateProposing> proposer);
    void setPersonNoteContextLookup(PersonNoteContextLookup lookup);

    [[nodiscard]] IdentityStore* store() const { return store_; }
    void setStore(IdentityStore* store);
    [[nodiscard]] QString subjectID() const { return QString::fromStdString(subjectID_); }
    void setSubjectID(const QString& subjectID);
    [[nodiscard]] IdentityCorrectionUndoOfferStore* undoOfferStore() const { return offerStore_; }
    // Also takes the store's current offer into currentUndoOffer.
    void setUndoOfferStore(IdentityCorrectionUndoOfferStore* store);

    // --- Published state, C++ form.
    [[nodiscard]] const std::vector<identity::IdentityCandidate>& candidates() const {
        return candidates_;
    }
    [[nodiscard]] const std::optional<UndoOffer>& currentUndoOffer() const { return offer_; }
    [[nodiscard]] const std::optional<std::string>& lastError() const { return lastError_; }
    [[nodiscard]] const std::optional<std::string>& lastErrorCopy() const { return lastErrorCopy_; }
    [[nodiscard]] const std::vector<identity::SourceIdentityRow>& manualSearchResults() const {
        return manualSearchResults_;
    }
    [[nodiscard]] const std::vector<identity::LinkablePersonRow>& manualPersonResults() const {
        return manualPersonResults_;
    }
    [[nodiscard]] const std::vector<identity::SourceIdentityRow>& scopedPersonAnchor() const {
        return scopedPersonAnchor_;
    }
    [[nodiscard]] const std::optional<std::string>& scopedPersonDisplayName() const {
        return scopedPersonDisplayName_;
    }
    [[nodiscard]] const std::optional<std::string>& scopedPersonID() const {
        return scopedPersonID_;
    }
    [[nodiscard]] bool scopedPersonIsLive() const { return scopedPersonIsLive_; }
    [[nodiscard]] const std::map<std::string, identity::IdentityCandidateContext>&
    candidateContexts() const {
        return candidateContexts_;
    }
    [[nodiscard]] const std::map<std::string, identity::PersonNoteContext>& personNoteContexts()
        const {
        return personNoteContexts_;
    }
    [[nodiscard]] const std::map<std::string, identity::IdentityCandidateProposal>&
    candidateProposals() const {
        return candidateProposals_;
    }
    [[nodiscard]] bool candidateSuggestionsNoMatch() const { return suggestionsNoMatch_; }
    [[nodiscard]] bool candidateSuggestionsUnavailable() const { return suggestionsUnavailable_; }
    [[nodiscard]] bool canSuggestCandidates() const { return static_cast<bool>(proposer_); }
    [[nodiscard]] bool isScopedWithoutAnchor() const;
    [[nodiscard]] std::vector<identity::ManualLinkTarget> scopedLinkTargets() const;
    [[nodiscard]] const UndoableConfirmation* lastConfirmation() const;
    [[nodiscard]] const UndoableOwnerAlias* lastOwnerAliasDeclaration() const;
    // The scope that was in force before a manual link absorbed the scoped person.
    [[nodiscard]] const std::optional<std::pair<std::string, std::string>>&
    scopeBeforeAbsorbingLink() const {
        return scopeBeforeAbsorbingLink_;
    }

    // --- Operations, C++ form (the QML invokables of the same name without
    // "Async" run these). Each completes once it has published.
    QCoro::Task<> reloadAsync(std::int64_t limit);
    QCoro::Task<> loadScopedToPersonAsync(std::string personID,
                                          std::optional<std::string> displayName);
    QCoro::Task<> manualSearchAsync(std::string query);
    QCoro::Task<> loadCandidateContextsAsync();
    QCoro::Task<> suggestCandidatesAsync();
    QCoro::Task<> confirmAsync(identity::IdentityCandidate candidate);
    QCoro::Task<> rejectAsync(identity::IdentityCandidate candidate);
    QCoro::Task<> confirmManualLinkAsync(identity::SourceIdentityRow a,
                                         identity::SourceIdentityRow b);
    QCoro::Task<> batchConfirmManualLinkAsync(std::vector<identity::SourceIdentityRow> rows);
    QCoro::Task<> confirmManualLinkAsync(std::vector<identity::ManualLinkTarget> targets);
    QCoro::Task<> markDifferentFromScopeAsync(std::vector<identity::SourceIdentityRow> rows);
    QCoro::Task<> declareOwnerAliasAsync(identity::SourceIdentityRow row);
    QCoro::Task<> batchDeclareOwnerAliasAsync(std::vector<identity::SourceIdentityRow> rows);
    QCoro::Task<> undoLastConfirmationAsync();
    QCoro::Task<> undoLastOwnerAliasDeclarationAsync();
    // The repository's prediction; absent when it fails (nothing is recorded).
    // Waits for the repository's worker: the one synchronous read.
    std::optional<identity::ManualLinkSurvivorPrediction> predictedManualLinkSurvivor(
        const std::vector<identity::ManualLinkTarget>& targets);
    // The targets the screen shows as surviving: the prediction's survivor
    // targets when a person target is among them and a prediction exists, else
    // the first target alone (empty for no targets).
    std::vector<identity::ManualLinkTarget> manualLinkPreviewSurvivorTargets(
        const std::vector<identity::ManualLinkTarget>& targets);

    // --- QML invokables.
    Q_INVOKABLE QCoro::QmlTask reload(int limit);
    Q_INVOKABLE QCoro::QmlTask loadScopedToPerson(const QString& personID,
                                                  const QJSValue& displayName);
    Q_INVOKABLE QCoro::QmlTask manualSearch(const QString& query);
    Q_INVOKABLE QCoro::QmlTask loadCandidateContexts();
    Q_INVOKABLE QCoro::QmlTask suggestCandidates();
    Q_INVOKABLE QCoro::QmlTask confirm(const QJSValue& candidate);
    Q_INVOKABLE QCoro::QmlTask reject(const QJSValue& candidate);
    Q_INVOKABLE QCoro::QmlTask confirmManualLink(const QJSValue& a, const QJSValue& b);
    Q_INVOKABLE QCoro::QmlTask confirmManualLink(const QJSValue& targets);
    Q_INVOKABLE QCoro::QmlTask batchConfirmManualLink(const QJSValue& rows);
    Q_INVOKABLE QCoro::QmlTask markDifferentFromScope(const QJSValue& rows);
    Q_INVOKABLE QCoro::QmlTask declareOwnerAlias(const QJSValue& row);
    Q_INVOKABLE QCoro::QmlTask batchDeclareOwnerAlias(const QJSValue& rows);
    Q_INVOKABLE QCoro::QmlTask undoLastConfirmation();
    Q_INVOKABLE QCoro::QmlTask undoLastOwnerAliasDeclaration();
    Q_INVOKABLE QVariant predictedManualLinkSurvivor(const QJSValue& targets);
    Q_INVOKABLE QVariantList manualLinkPreviewSurvivorTargets(const QJSValue& targets);

    // QML property accessors.
    [[nodiscard]] QVariant candidateProposerForQml() const { return qmlProposer_; }
    void setCandidateProposerFromQml(const QVariant& proposer);
    [[nodiscard]] QJSValue personNoteContextLookupForQml() const { return qmlLookup_; }
    void setPersonNoteContextLookupFromQml(const QJSValue& lookup);
    [[nodiscard]] QVariantList candidatesForQml() const;
    [[nodiscard]] QVariant currentUndoOfferForQml() const { return offerToQml(offer_); }
    [[nodiscard]] QVariant lastErrorForQml() const;
    [[nodiscard]] QVariant lastErrorCopyForQml() const;
    [[nodiscard]] QVariantList manualSearchResultsForQml() const;
    [[nodiscard]] QVariantList manualPersonResultsForQml() const;
    [[nodiscard]] QVariantList scopedPersonAnchorForQml() const;
    [[nodiscard]] QVariant scopedPersonDisplayNameForQml() const;
    [[nodiscard]] QVariant scopedPersonIDForQml() const;
    [[nodiscard]] QVariantMap candidateContextsForQml() const;
    [[nodiscard]] QVariantMap personNoteContextsForQml() const;
    [[nodiscard]] QVariantMap candidateProposalsForQml() const;
    [[nodiscard]] QVariantList scopedLinkTargetsForQml() const;
    [[nodiscard]] QVariant lastConfirmationForQml() const { return confirmationToQml(offer_); }
    [[nodiscard]] QVariant lastOwnerAliasDeclarationForQml() const {
        return ownerAliasToQml(offer_);
    }

  Q_SIGNALS:
    void storeChanged();
    void subjectIDChanged();
    void undoOfferStoreChanged();
    void candidateProposerChanged();
    void personNoteContextLookupChanged();
    void candidatesChanged();
    void currentUndoOfferChanged();
    void lastErrorChanged();
    void manualSearchResultsChanged();
    void manualPersonResultsChanged();
    void scopeChanged();
    void candidateContextsChanged();
    void personNoteContextsChanged();
    void candidateSuggestionsChanged();

  private:
    // The repository: the one set from C++, else the store's once it is ready.
    // Throws when there is none yet.
    IdentityCorrectionRepository& repo() const;

    void recordError(const std::exception& error);
    void recordError(std::exception_ptr error);
    void clearError();
    void invalidateDerivedState();
    void setCandidates(std::vector<identity::IdentityCandidate> candidates);
    void removeCandidate(const std::string& candidateID);
    void setSearchResults(std::vector<identity::SourceIdentityRow> rows,
                          std::vector<identity::LinkablePersonRow> people);
    void setSuggestions(std::map<std::string, identity::IdentityCandidateProposal> proposals,
                        bool noMatch, bool unavailable);
    void setCurrentUndoOffer(std::optional<UndoOffer> offer);

    QCoro::Task<> loadContexts(std::vector<identity::SourceIdentityRow> rows,
                               std::int64_t generation);
    QCoro::Task<> loadNoteContexts(std::vector<identity::LinkablePersonRow> people,
                                   std::int64_t generation);
    void recordUndoOffer(UndoOffer offer);
    std::optional<UndoOffer> claimUndoOffer(const std::string& operationID);
    void restoreClaimedUndoOffer(UndoOffer offer);
    // Runs a QML-facing operation: decodes its input first; a malformed input is
    // recorded and nothing runs.
    template <typename Decode, typename Run>
    QCoro::QmlTask fromQml(Decode decode, Run run);

    std::shared_ptr<IdentityCorrectionRepository> repository_;
    QPointer<IdentityStore> store_;
    std::string subjectID_;
    QPointer<IdentityCorrectionUndoOfferStore> offerStore_;
    CandidateProposer proposer_;
    PersonNoteContextLookup noteLookup_;
    QVariant qmlProposer_;
    QJSValue qmlLookup_;

    std::vector<identity::IdentityCandidate> candidates_;
    std::optional<UndoOffer> offer_;
    std::optional<std::string> lastError_;
    std::optional<std::string> lastErrorCopy_;
    std::vector<identity::SourceIdentityRow> manualSearchResults_;
    std::vector<identity::LinkablePersonRow> manualPersonResults_;
    std::vector<identity::SourceIdentityRow> scopedPersonAnchor_;
    std::optional<std::string> scopedPersonDisplayName_;
    std::optional<std::string> scopedPersonID_;
    bool scopedPersonIsLive_ = false;
    std::map<std::string, identity::IdentityCandidateContext> candidateContexts_;
    std::map<std::string, identity::PersonNoteContext> personNoteContexts_;
    std::map<std::string, identity::IdentityCandidateProposal> candidateProposals_;
    bool suggestionsNoMatch_ = false;
    bool suggestionsUnavailable_ = false;

    std::int64_t searchGeneration_ = 0;
    std::int64_t scopeLoadGeneration_ = 0;
    std::optional<std::pair<std::string, std::string>> scopeBeforeAbsorbingLink_;
    std::optional<std::string> lastQuery_;
};

// Registers QCoro's QML types (QmlTask) once; the module's types call it.
void registerQCoroQmlTypes();

}  // namespace orvik::ui

// The one pending undo offer that the correction controllers share, and the
// records of an offer.
//
// An offer is recorded after an undoable correction and replaces any earlier one.
// Taking it up first claims it (which removes it), so that two screens cannot
// undo the same correction twice; a failed undo restores it unless a newer offer
// was recorded meanwhile. Main thread only; no locks.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <QtQml/qqmlregistration.h>
#include <QObject>
#include <QVariant>

#include "codec/RecordCodec.h"
#include "identity/IdentityModels.h"

namespace orvik::ui {

// A confirmation that wrote merge events: undone with undoConfirmation.
struct UndoableConfirmation {
    // Made by the controller when the offer is recorded: a lower-case UUID
    // without braces (not the repository's operation identifier).
    std::string operationID;
    // Put back into the candidate list on undo; absent for a link of targets.
    std::optional<identity::IdentityCandidate> candidate;
    std::vector<std::string> mergeEventIDs;

    bool operator==(const UndoableConfirmation&) const = default;
};

// An owner-alias declaration that inserted something: undone with
// undoOwnerAliasMutation.
struct UndoableOwnerAlias {
    std::string operationID;
    identity::OwnerAliasMutation mutation;

    bool operator==(const UndoableOwnerAlias&) const = default;
};

struct UndoOffer {
    std::variant<UndoableConfirmation, UndoableOwnerAlias> value;

    // The payload's operationID.
    [[nodiscard]] const std::string& id() const;
    [[nodiscard]] const UndoableConfirmation* confirmation() const {
        return std::get_if<UndoableConfirmation>(&value);
    }
    [[nodiscard]] const UndoableOwnerAlias* ownerAlias() const {
        return std::get_if<UndoableOwnerAlias>(&value);
    }
    bool operator==(const UndoOffer&) const = default;
};

// A fresh random operation identifier: lower-case UUID without braces.
[[nodiscard]] std::string newOperationID();

// The QML forms: {"kind": "confirmation", "operationID", "candidate",
// "mergeEventIDs"} or {"kind": "ownerAlias", "operationID", "mutation"}; null for
// no offer. The payloads alone lack "kind".
[[nodiscard]] QVariant offerToQml(const std::optional<UndoOffer>& offer);
[[nodiscard]] QVariant confirmationToQml(const std::optional<UndoOffer>& offer);
[[nodiscard]] QVariant ownerAliasToQml(const std::optional<UndoOffer>& offer);

class IdentityCorrectionUndoOfferStore : public QObject {
    Q_OBJECT
    QML_ELEMENT

    // The one current offer, or null. Changed only by the controllers.
    Q_PROPERTY(QVariant currentOffer READ currentOfferForQml NOTIFY currentOfferChanged)
    // The current offer's payload when it is a confirmation, else null.
    Q_PROPERTY(QVariant lastConfirmation READ lastConfirmationForQml NOTIFY currentOfferChanged)
    // The current offer's payload when it is an owner-alias declaration, else null.
    Q_PROPERTY(QVariant lastOwnerAliasDeclaration READ lastOwnerAliasDeclarationForQml NOTIFY
                   currentOfferChanged)

  public:
    explicit IdentityCorrectionUndoOfferStore(QObject* parent = nullptr);

    [[nodiscard]] const std::optional<UndoOffer>& currentOffer() const noexcept { return offer_; }
    [[nodiscard]] const UndoableConfirmation* lastConfirmation() const;
    [[nodiscard]] const UndoableOwnerAlias* lastOwnerAliasDeclaration() const;

    // Replaces the current offer (for the controllers).
    void setCurrentOffer(std::optional<UndoOffer> offer);
    // The current offer when its id is operationID, which is then removed; else
    // absent and nothing changes.
    std::optional<UndoOffer> claim(const std::string& operationID);
    // Puts a claimed offer back when there is no current offer (true); a newer
    // offer is never replaced (false).
    bool restoreClaimed(UndoOffer offer);

    [[nodiscard]] QVariant currentOfferForQml() const { return offerToQml(offer_); }
    [[nodiscard]] QVariant lastConfirmationForQml() const { return confirmationToQml(offer_); }
    [[nodiscard]] QVariant lastOwnerAliasDeclarationForQml() const {
        return ownerAliasToQml(offer_);
    }

  Q_SIGNALS:
    void currentOfferChanged();

  private:
    std::optional<UndoOffer> offer_;
};

}  // namespace orvik::ui

namespace orvik::codec {

template <>
struct RecordFields<ui::UndoableConfirmation> {
    using R = ui::UndoableConfirmation;
    static constexpr auto fields = std::tuple{
        field("operationID", &R::operationID),
        field("candidate", &R::candidate),
        field("mergeEventIDs", &R::mergeEventIDs),
    };
};

template <>
struct RecordFields<ui::UndoableOwnerAlias> {
    using R = ui::UndoableOwnerAlias;
    static constexpr auto fields = std::tuple{
        field("operationID", &R::operationID),
        field("mutation", &R::mutation),
    };
};

}  // namespace orvik::codec

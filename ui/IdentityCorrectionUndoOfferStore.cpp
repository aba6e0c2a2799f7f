#include "ui/IdentityCorrectionUndoOfferStore.h"

#include <QUuid>

#include "ui/QmlRecords.h"

namespace orvik::ui {

const std::string& UndoOffer::id() const {
    return std::visit([](const auto& payload) -> const std::string& { return payload.operationID; },
                      value);
}

std::string newOperationID() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toLower().toStdString();
}

QVariant offerToQml(const std::optional<UndoOffer>& offer) {
    if (!offer) {
        return qmlNull();
    }
    codec::Json out = codec::Json::object();
    if (const auto* confirmation = offer->confirmation()) {
        out["kind"] = "confirmation";
        out.update(codec::toJson(*confirmation));
    } else {
        out["kind"] = "ownerAlias";
        out.update(codec::toJson(*offer->ownerAlias()));
    }
    return toQml(out);
}

QVariant confirmationToQml(const std::optional<UndoOffer>& offer) {
    const auto* confirmation = offer ? offer->confirmation() : nullptr;
    return confirmation ? recordToQml(*confirmation) : qmlNull();
}

QVariant ownerAliasToQml(const std::optional<UndoOffer>& offer) {
    const auto* alias = offer ? offer->ownerAlias() : nullptr;
    return alias ? recordToQml(*alias) : qmlNull();
}

IdentityCorrectionUndoOfferStore::IdentityCorrectionUndoOfferStore(QObject* parent)
    : QObject(parent) {}

const UndoableConfirmation* IdentityCorrectionUndoOfferStore::lastConfirmation() const {
    return offer_ ? offer_->confirmation() : nullptr;
}

const UndoableOwnerAlias* IdentityCorrectionUndoOfferStore::lastOwnerAliasDeclaration() const {
    return offer_ ? offer_->ownerAlias() : nullptr;
}

void IdentityCorrectionUndoOfferStore::setCurrentOffer(std::optional<UndoOffer> offer) {
    if (offer_ == offer) {
        return;
    }
    offer_ = std::move(offer);
    Q_EMIT currentOfferChanged();
}

std::optional<UndoOffer> IdentityCorrectionUndoOfferStore::claim(const std::string& operationID) {
    if (!offer_ || offer_->id() != operationID) {
        return std::nullopt;
    }
    auto claimed = std::exchange(offer_, std::nullopt);
    Q_EMIT currentOfferChanged();
    return claimed;
}

bool IdentityCorrectionUndoOfferStore::restoreClaimed(UndoOffer offer) {
    if (offer_) {
        return false;
    }
    offer_ = std::move(offer);
    Q_EMIT currentOfferChanged();
    return true;
}

}  // namespace orvik::ui

#include "identity/IdentityHistoryErrorCopy.h"

#include "identity/IdentityModels.h"
#include "store/Database.h"

namespace orvik::identity::IdentityHistoryErrorCopy {

std::optional<std::string> memberText(const std::exception& error) {
    const auto* storeError = dynamic_cast<const IdentityStoreError*>(&error);
    if (storeError == nullptr) {
        return std::nullopt;
    }
    using Case = IdentityStoreError::Case;
    switch (storeError->errorCase()) {
        case Case::notFound:
            return std::string(notFound);
        case Case::excluded:
            return storeError->message().value_or(std::string());
        case Case::alreadyReversed:
            return std::string(alreadyReversed);
        case Case::corruptRestoreMap:
            return std::string(corruptRestoreMap);
        case Case::supersededByLaterCorrection:
            return std::string(supersededByLaterCorrection);
        case Case::ownerIdentityUnmergeable:
            return std::string(ownerIdentityUnmergeable);
        case Case::restoreSnapshotIncomplete:
            return std::string(restoreSnapshotIncomplete);
        case Case::cannotSeparateSoleIdentity:
            return std::string(cannotSeparateSoleIdentity);
        case Case::blockedDifferent:
            return std::string(blockedDifferent);
        case Case::invalidArgs:
        case Case::invalidKeyLength:
        case Case::cannotOpenStore:
            return std::nullopt;
    }
    return std::nullopt;
}

std::string text(const std::exception& error) {
    return memberText(error).value_or(std::string(generic));
}

std::string diagnosticText(const std::exception& error) {
    if (const auto* storeError = dynamic_cast<const IdentityStoreError*>(&error)) {
        std::string out(caseName(storeError->errorCase()));
        if (storeError->message()) {
            out += "(\"" + *storeError->message() + "\")";
        }
        return out;
    }
    if (const auto* database = dynamic_cast<const store::DatabaseError*>(&error)) {
        return database->sqliteMessage();
    }
    return error.what();
}

}  // namespace orvik::identity::IdentityHistoryErrorCopy

// What orvik-identity remembers between runs, per store: the candidates of the
// last `candidates` listing (so that `confirm 3` means the third one shown) and the
// last correction made from the command line (so that a bare `undo` can reverse
// it).
//
// The state lives in $XDG_STATE_HOME/orvik-identity/ (by default
// ~/.local/state/orvik-identity/), one JSON file per store, named after the
// store's absolute path; never next to the store, which may be read-only or
// shared. A missing or unreadable file is an empty state. Writes replace the file
// atomically; when there is no place for the state (no XDG_STATE_HOME and no HOME)
// or it cannot be written, remembering is skipped and the commands that need it
// say so.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "identity/IdentityModels.h"

namespace orvik::app {

// The last correction made from the command line, with what its undo needs.
struct CliCorrection {
    enum class Kind { confirm, link, separate, reject, different, me };
    Kind kind = Kind::confirm;
    // What was done, as printed when it was done.
    std::string summary;
    // The merge events to undo (confirm, link, separate).
    std::vector<std::string> mergeEventIDs;
    // What the declaration inserted (me).
    std::optional<identity::OwnerAliasMutation> mutation;
    // The two sides (reject, different), to say how to join them again.
    std::vector<std::string> sides;
};

class CliState {
  public:
    // The state of the store at storePath (made absolute here).
    [[nodiscard]] static CliState forStore(const std::filesystem::path& storePath);

    // The candidates of the last listing, in the order shown (number 1 first).
    [[nodiscard]] const std::vector<identity::IdentityCandidate>& listing() const noexcept {
        return listing_;
    }
    [[nodiscard]] const std::optional<CliCorrection>& lastCorrection() const noexcept {
        return lastCorrection_;
    }
    // Where the state is kept; absent when there is no place for it.
    [[nodiscard]] const std::optional<std::filesystem::path>& file() const noexcept {
        return file_;
    }

    // Each saves at once; false when the state could not be written.
    bool rememberListing(std::vector<identity::IdentityCandidate> candidates);
    bool rememberCorrection(CliCorrection correction);
    bool forgetCorrection();

  private:
    bool save() const;

    std::string store_;
    std::optional<std::filesystem::path> file_;
    std::vector<identity::IdentityCandidate> listing_;
    std::optional<CliCorrection> lastCorrection_;
};

}  // namespace orvik::app

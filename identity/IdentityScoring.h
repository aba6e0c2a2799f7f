// Scoring of candidate pairs: turns the evidence that two source identities are
// one person into a score in [0, 1], a decision whether the pair is worth showing,
// and a short human-readable reason.
//
// Pure computation: no storage, no state, no failure; callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace orvik::identity {

// The evidence for one pair of identities.
struct IdentityFeatures {
    // Both identities carry the same normalised handle (the "contact key").
    bool exactHandleMatch = false;
    // Conversation threads in which both identities take part.
    std::int64_t sharedThreadCount = 0;
    // Similarity of the two display names, expected in [0, 1]; absent when not
    // measured. The library never measures it itself.
    std::optional<double> nameSimilarity;

    bool operator==(const IdentityFeatures&) const = default;
};

enum class IdentityScoreDecision { worthSurfacing, tooWeak };

class IdentityScoring {
  public:
    IdentityScoring() = delete;

    // The least score that is worth surfacing.
    static constexpr double surfaceThreshold = 0.55;

    // Handle match 0.85, plus 0.1 times min(threads, 10) / 10, plus 0.05 times the
    // similarity clamped to [0, 1], summed in exactly that order so that results
    // agree to the last bit; the total is then clamped to [0, 1]. Thread counts are
    // not clamped from below: a negative count lowers the score. A similarity that
    // is not a number adds nothing.
    [[nodiscard]] static double score(const IdentityFeatures& features) noexcept;

    // worthSurfacing when score >= surfaceThreshold (0.55 itself included); a score
    // that is not a number is tooWeak.
    [[nodiscard]] static IdentityScoreDecision decide(double score) noexcept;

    // "same contact key", "<n> shared thread(s)" (n >= 1, the true count) and
    // "matching name" (similarity >= 0.8), joined by "; " in that order; "weak
    // signal" when none applies.
    [[nodiscard]] static std::string because(const IdentityFeatures& features);
};

}  // namespace orvik::identity

#include "identity/IdentityScoring.h"

#include <algorithm>
#include <vector>

namespace orvik::identity {

namespace {

constexpr double kHandleWeight = 0.85;
constexpr double kThreadCap = 10.0;
constexpr double kThreadWeight = 0.1;
constexpr double kNameWeight = 0.05;
constexpr double kNameReasonThreshold = 0.8;

}  // namespace

double IdentityScoring::score(const IdentityFeatures& features) noexcept {
    const double handleTerm = features.exactHandleMatch ? kHandleWeight : 0.0;
    const double threads = std::min(static_cast<double>(features.sharedThreadCount), kThreadCap);
    const double threadTerm = threads / kThreadCap * kThreadWeight;
    const double base = handleTerm + threadTerm;

    double total = base;
    if (features.nameSimilarity) {
        const double similarity = *features.nameSimilarity;
        // Written as "> 0.0" rather than "< 0.0 ? 0.0" so that NaN adds nothing.
        const double nameTerm =
            similarity >= 1.0 ? kNameWeight : (similarity > 0.0 ? similarity : 0.0) * kNameWeight;
        total = nameTerm + base;
    }
    total = std::min(total, 1.0);
    return total < 0.0 ? 0.0 : total;
}

IdentityScoreDecision IdentityScoring::decide(double score) noexcept {
    return score >= surfaceThreshold ? IdentityScoreDecision::worthSurfacing
                                     : IdentityScoreDecision::tooWeak;
}

std::string IdentityScoring::because(const IdentityFeatures& features) {
    std::vector<std::string> reasons;
    if (features.exactHandleMatch) {
        reasons.emplace_back("same contact key");
    }
    if (features.sharedThreadCount >= 1) {
        reasons.push_back(std::to_string(features.sharedThreadCount) +
                          (features.sharedThreadCount == 1 ? " shared thread" : " shared threads"));
    }
    if (features.nameSimilarity && *features.nameSimilarity >= kNameReasonThreshold) {
        reasons.emplace_back("matching name");
    }
    if (reasons.empty()) {
        return "weak signal";
    }
    std::string text = reasons.front();
    for (std::size_t i = 1; i < reasons.size(); ++i) {
        text += "; ";
        text += reasons[i];
    }
    return text;
}

}  // namespace orvik::identity

#include "identity/IdentityScoring.h"

#include <algorithm>
#include <string_view>

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
    // The reasons joined by "; ", written straight into the one text returned.
    std::string text;
    const auto reason = [&text](std::string_view part) {
        if (!text.empty()) {
            text += "; ";
        }
        text += part;
    };
    if (features.exactHandleMatch) {
        reason("same contact key");
    }
    if (features.sharedThreadCount >= 1) {
        reason(std::to_string(features.sharedThreadCount));
        text += features.sharedThreadCount == 1 ? " shared thread" : " shared threads";
    }
    if (features.nameSimilarity && *features.nameSimilarity >= kNameReasonThreshold) {
        reason("matching name");
    }
    if (text.empty()) {
        return "weak signal";
    }
    return text;
}

}  // namespace orvik::identity

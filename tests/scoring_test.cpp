#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "identity/IdentityScoring.h"

namespace orvik::identity {
namespace {

constexpr auto kWorth = IdentityScoreDecision::worthSurfacing;
constexpr auto kWeak = IdentityScoreDecision::tooWeak;

struct Example {
    IdentityFeatures features;
    double score;
    IdentityScoreDecision decision;
    const char* because;
};

IdentityFeatures features(bool handle, std::int64_t threads, std::optional<double> name = {}) {
    return {.exactHandleMatch = handle, .sharedThreadCount = threads, .nameSimilarity = name};
}

// Scores are compared with EXPECT_EQ on purpose: the order of the additions is
// fixed so that every implementation agrees to the last bit.
TEST(IdentityScoring, ScoresDecisionsAndReasons) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Example examples[] = {
        {features(true, 0), 0.85, kWorth, "same contact key"},
        {features(true, 1), 0.86, kWorth, "same contact key; 1 shared thread"},
        {features(true, 3), 0.88, kWorth, "same contact key; 3 shared threads"},
        {features(true, 10), 0.95, kWorth, "same contact key; 10 shared threads"},
        // Capped at 10 for the score; the reason keeps the true count.
        {features(true, 25), 0.95, kWorth, "same contact key; 25 shared threads"},
        {features(true, 10, 1.0), 1.0, kWorth,
         "same contact key; 10 shared threads; matching name"},
        {features(true, 10, 0.5), 0.975, kWorth, "same contact key; 10 shared threads"},
        {features(false, 10, 1.0), 0.15000000000000002, kWeak, "10 shared threads; matching name"},
        {features(false, 0), 0.0, kWeak, "weak signal"},
        {features(false, 2, 0.8), 0.06000000000000001, kWeak, "2 shared threads; matching name"},
        {features(false, 0, 0.79), 0.03950000000000001, kWeak, "weak signal"},
        // Similarity above 1 adds 0.05 and no more; negative or NaN adds nothing.
        {features(true, 0, 1.7), 0.9, kWorth, "same contact key; matching name"},
        {features(true, 0, -0.4), 0.85, kWorth, "same contact key"},
        {features(true, 0, nan), 0.85, kWorth, "same contact key"},
        // Negative thread counts lower the score but never below 0 and add no reason.
        {features(true, -30), 0.5499999999999999, kWeak, "same contact key"},
        {features(false, -30), 0.0, kWeak, "weak signal"},
    };
    for (const auto& example : examples) {
        const auto& f = example.features;
        SCOPED_TRACE(testing::Message() << f.exactHandleMatch << ", " << f.sharedThreadCount << ", "
                                        << f.nameSimilarity.value_or(-99));
        const double score = IdentityScoring::score(f);
        EXPECT_EQ(score, example.score);
        EXPECT_EQ(IdentityScoring::decide(score), example.decision);
        EXPECT_EQ(IdentityScoring::because(f), example.because);
    }
}

TEST(IdentityScoring, ThresholdIsInclusiveAndNaNIsTooWeak) {
    EXPECT_EQ(IdentityScoring::decide(0.55), kWorth);
    EXPECT_EQ(IdentityScoring::decide(std::nextafter(0.55, 0.0)), kWeak);
    EXPECT_EQ(IdentityScoring::decide(std::numeric_limits<double>::quiet_NaN()), kWeak);
}

}  // namespace
}  // namespace orvik::identity

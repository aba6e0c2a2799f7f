#include "identity/InternetDateTime.h"

#include <memory>
#include <regex>
#include <string>

#include <unicode/gregocal.h>
#include <unicode/timezone.h>

namespace orvik::identity {

std::optional<Instant> parseInternetDateTime(std::string_view text) noexcept {
    try {
        static const std::regex kForm(
            R"(^(\d{4})-(\d{2})-(\d{2})T(\d{2}):(\d{2}):(\d{2})(\.\d+)?(Z|([+-])(\d{2}):(\d{2}))$)");
        std::match_results<std::string_view::const_iterator> m;
        if (!std::regex_match(text.begin(), text.end(), m, kForm)) {
            return std::nullopt;
        }
        const auto number = [&](int i) { return std::stoi(m[i].str()); };
        UErrorCode status = U_ZERO_ERROR;
        icu::GregorianCalendar calendar(*icu::TimeZone::getGMT(), status);
        if (U_FAILURE(status)) {
            return std::nullopt;
        }
        // Strict: 2026-02-30 or 25:00 fail instead of rolling over.
        calendar.setLenient(false);
        calendar.clear();
        calendar.set(number(1), number(2) - 1, number(3), number(4), number(5), number(6));
        const UDate utc = calendar.getTime(status);
        if (U_FAILURE(status)) {
            return std::nullopt;
        }
        std::int64_t millis = static_cast<std::int64_t>(utc);
        if (m[7].matched) {
            const std::string fraction = m[7].str().substr(1) + "00";
            millis += std::stoi(fraction.substr(0, 3));
        }
        if (m[9].matched) {
            const int hours = number(10);
            const int minutes = number(11);
            if (hours > 23 || minutes > 59) {
                return std::nullopt;
            }
            const std::int64_t offset = (hours * 60 + minutes) * 60 * 1000;
            millis += m[9].str() == "+" ? -offset : offset;
        }
        return Instant(std::chrono::milliseconds(millis));
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace orvik::identity

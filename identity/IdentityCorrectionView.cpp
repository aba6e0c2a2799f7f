#include "identity/IdentityCorrectionView.h"

#include <array>
#include <cmath>
#include <memory>

#include <unicode/dtptngen.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/reldatefmt.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

namespace orvik::identity {

namespace {

icu::Locale localeFor(const std::string& tag) {
    if (tag.empty()) {
        return icu::Locale::getDefault();
    }
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale locale = icu::Locale::forLanguageTag(tag, status);
    return U_FAILURE(status) ? icu::Locale::getDefault() : locale;
}

std::unique_ptr<icu::TimeZone> zoneFor(const std::string& name) {
    if (name.empty()) {
        return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault());
    }
    return std::unique_ptr<icu::TimeZone>(
        icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(name)));
}

UDate toUDate(Instant instant) {
    return static_cast<UDate>(instant.time_since_epoch().count());
}

std::string toUtf8(const icu::UnicodeString& text) {
    std::string out;
    text.toUTF8String(out);
    return out;
}

std::string plural(std::int64_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

std::string candidateQuestion(const IdentityCandidate& candidate,
                              const ProviderDisplayName& providerDisplayName) {
    const auto label = [&](const SourceIdentityRow& row) {
        return IdentityHandlePresentation::partyLabel(row.displayName, row.handleNormalized,
                                                      row.sourceType, providerDisplayName);
    };
    const std::string a = label(candidate.sourceIdentityA);
    const std::string b = label(candidate.sourceIdentityB);
    return a == b ? "Also " + a + "?" : a + " = " + b + "?";
}

std::optional<std::string> relativeTimePhrase(const std::string& timestamp, Instant now,
                                              const std::string& locale,
                                              const std::string& timeZone) {
    const auto date = parseInternetDateTime(timestamp);
    if (!date) {
        return std::nullopt;
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::Locale icuLocale = localeFor(locale);
    icu::GregorianCalendar calendar(zoneFor(timeZone).release(), icuLocale, status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    // Count from the earlier instant to the later one, unit by unit, the way a
    // calendar splits a span into years, months, weeks, days and so on.
    const bool past = *date <= now;
    const UDate from = toUDate(past ? *date : now);
    const UDate to = toUDate(past ? now : *date);
    calendar.setTime(from, status);
    struct Unit {
        UCalendarDateFields field;
        URelativeDateTimeUnit unit;
    };
    constexpr std::array kUnits{
        Unit{UCAL_YEAR, UDAT_REL_UNIT_YEAR},         Unit{UCAL_MONTH, UDAT_REL_UNIT_MONTH},
        Unit{UCAL_WEEK_OF_YEAR, UDAT_REL_UNIT_WEEK}, Unit{UCAL_DATE, UDAT_REL_UNIT_DAY},
        Unit{UCAL_HOUR_OF_DAY, UDAT_REL_UNIT_HOUR},  Unit{UCAL_MINUTE, UDAT_REL_UNIT_MINUTE},
        Unit{UCAL_SECOND, UDAT_REL_UNIT_SECOND},
    };
    double amount = 0;
    URelativeDateTimeUnit unit = UDAT_REL_UNIT_SECOND;
    for (const auto& candidate : kUnits) {
        const std::int32_t difference = calendar.fieldDifference(to, candidate.field, status);
        if (U_FAILURE(status)) {
            return std::nullopt;
        }
        if (difference != 0) {
            amount = difference;
            unit = candidate.unit;
            break;
        }
    }
    icu::RelativeDateTimeFormatter formatter(icuLocale, nullptr, UDAT_STYLE_SHORT,
                                             UDISPCTX_CAPITALIZATION_NONE, status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    icu::UnicodeString out;
    // A negative offset is in the past; -0.0 keeps "0 sec. ago" in the past too.
    formatter.formatNumeric(past ? -amount : amount, unit, out, status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    return toUtf8(out);
}

std::optional<std::string> shortDate(const std::string& timestamp, Instant now,
                                     const std::string& timeZone, const std::string& locale) {
    const auto date = parseInternetDateTime(timestamp);
    if (!date) {
        return std::nullopt;
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::Locale icuLocale = localeFor(locale);
    const auto zone = zoneFor(timeZone);
    icu::GregorianCalendar calendar(*zone, status);
    calendar.setTime(toUDate(*date), status);
    const std::int32_t year = calendar.get(UCAL_YEAR, status);
    calendar.setTime(toUDate(now), status);
    const std::int32_t nowYear = calendar.get(UCAL_YEAR, status);
    std::unique_ptr<icu::DateTimePatternGenerator> generator(
        icu::DateTimePatternGenerator::createInstance(icuLocale, status));
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    const icu::UnicodeString pattern =
        generator->getBestPattern(year == nowYear ? u"MMMd" : u"yMMMd", status);
    icu::SimpleDateFormat format(pattern, icuLocale, status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    format.setTimeZone(*zone);
    icu::UnicodeString out;
    format.format(toUDate(*date), out);
    return toUtf8(out);
}

namespace IdentityCandidateContextSummary {

std::string line(const IdentityCandidateContext& context, Instant now,
                 const ProviderDisplayName& providerDisplayName, const std::string& locale) {
    std::string out = providerDisplayName(context.provider);
    out += kDisplaySeparator;
    out += plural(context.conversationCount, "conversation", "conversations");
    if (auto relative = relativeTimePhrase(context.lastSeenAt, now, locale)) {
        out += kDisplaySeparator;
        out += "last seen " + *relative;
    }
    if (context.sharedThreadCount >= 1) {
        out += kDisplaySeparator;
        out += std::to_string(context.sharedThreadCount) + " shared";
    }
    if (context.exactHandleMatch) {
        out += kDisplaySeparator;
        out += "exact handle";
    }
    return out;
}

}  // namespace IdentityCandidateContextSummary

namespace PersonNoteContextSummary {

std::string line(const PersonNoteContext& context, Instant now, const std::string& timeZone,
                 const std::string& locale) {
    std::string out = "You told Orvik about them";
    if (context.noteCount < 1) {
        return out;
    }
    out += kDisplaySeparator;
    out += plural(context.noteCount, "note", "notes");
    std::optional<std::string> datePart;
    if (context.lastNoteAt) {
        if (auto date = shortDate(*context.lastNoteAt, now, timeZone, locale)) {
            datePart = "latest " + *date;
        }
    }
    std::optional<std::string> last = datePart;
    if (context.latestNoteExcerpt && !context.latestNoteExcerpt->empty()) {
        const std::string quoted = "\"" + *context.latestNoteExcerpt + "\"";
        last = datePart ? *datePart + ": " + quoted : quoted;
    }
    if (last) {
        out += kDisplaySeparator;
        out += *last;
    }
    return out;
}

}  // namespace PersonNoteContextSummary

}  // namespace orvik::identity

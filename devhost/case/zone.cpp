/* Time zones of evidence. */
#include "case.h"

#include <cstring>

#include "../base/text.h"
#include "../machine/registry.h"

static constexpr wchar_t ZONE_KEY[] = L"SYSTEM\\CurrentControlSet\\Control\\TimeZoneInformation";
/* The string of record 24 with minutes that local time is behind UTC. */
static constexpr int BIAS_STRING = 1;

/* bias: minutes that local time is behind UTC. */
static std::string offset_text(LONG bias)
{
    const LONG ahead = bias > 0 ? bias : -bias;

    return bias == 0
               ? "UTC"
               : text_format("UTC%c%02ld:%02ld", bias > 0 ? '-' : '+', ahead / 60, ahead % 60);
}

static replay_zone fixed_zone(LONG bias, const std::string &source)
{
    replay_zone zone;

    zone.rules.Bias = bias;
    zone.name = offset_text(bias);
    zone.source = source;
    return zone;
}

/* text: "UTC", "+09:00", "-3:30", or a name that this Windows knows, "Tokyo Standard Time". Result:
 * whether it is one. */
static bool zone_parse(const std::string &text, replay_zone *zone)
{
    *zone = replay_zone();
    if (text_lower(text) == "utc")
        return true;
    if (!machine_time_zone(text_wide(text), &zone->rules))
        return false;
    zone->name = text.find_first_of("+-") == 0 ? offset_text(zone->rules.Bias) : text;
    return true;
}

static bool has_rules_of(const replay_zone &zone, const std::string &name)
{
    TIME_ZONE_INFORMATION known;

    return machine_time_zone(text_wide(name), &known) && known.Bias == zone.rules.Bias &&
           known.StandardBias == zone.rules.StandardBias &&
           known.DaylightBias == zone.rules.DaylightBias &&
           memcmp(&known.StandardDate, &zone.rules.StandardDate, sizeof(SYSTEMTIME)) == 0 &&
           memcmp(&known.DaylightDate, &zone.rules.DaylightDate, sizeof(SYSTEMTIME)) == 0;
}

void zone_put(json_lines &writer, const replay_zone &zone)
{
    const std::string offset = offset_text(zone.rules.Bias);

    if (has_rules_of(zone, zone.name)) {
        json_member(writer, "time_zone", zone.name);
        return;
    }
    if (zone.rules.DaylightDate.wMonth == 0) {
        json_member(writer, "time_zone", offset == "UTC" ? offset : offset.substr(3));
        return;
    }
    /* Windows changes the rules of its zones: those of the machine may be older or newer ones. */
    const json_scope rules(writer, "time_zone");

    json_member(writer, "bias", zone.rules.Bias);
    json_member(writer, "standard_bias", zone.rules.StandardBias);
    json_member(writer, "daylight_bias", zone.rules.DaylightBias);
    json_member(writer, "standard_start", text_hex(text_bytes(zone.rules.StandardDate)));
    json_member(writer, "daylight_start", text_hex(text_bytes(zone.rules.DaylightDate)));
}

std::string zone_of_this_computer(void)
{
    TIME_ZONE_INFORMATION rules = {};
    const DWORD season = GetTimeZoneInformation(&rules);
    const LONG bias = rules.Bias + (season == TIME_ZONE_ID_DAYLIGHT   ? rules.DaylightBias
                                    : season == TIME_ZONE_ID_STANDARD ? rules.StandardBias
                                                                      : 0);

    return offset_text(bias) + " (" + text_narrow(rules.StandardName) + ")";
}

/* size: 0 for any. Result: NULL when there is none. */
static const evidence_value *find_value(const evidence_registry &registry, const wchar_t *name,
                                        DWORD type, size_t size = 0)
{
    for (const evidence_value &one : registry.values)
        if (_wcsicmp(one.key.c_str(), ZONE_KEY) == 0 && _wcsicmp(one.name.c_str(), name) == 0 &&
            one.type == type && (size == 0 || one.data.size() == size))
            return &one;
    return nullptr;
}

template <typename Value>
static bool read_value(const evidence_registry &registry, const wchar_t *name, DWORD type,
                       Value *value)
{
    const evidence_value *found = find_value(registry, name, type, sizeof(*value));

    if (found != nullptr)
        memcpy(value, found->data.data(), sizeof(*value));
    return found != nullptr;
}

/* The rules themselves are in the registry, so no table of this Windows is needed. */
static bool of_registry(const evidence_registry &registry, replay_zone *zone)
{
    TIME_ZONE_INFORMATION rules = {};
    DWORD fixed = 0;

    if (!read_value(registry, L"Bias", REG_DWORD, &rules.Bias) || rules.Bias > MACHINE_BIAS_MOST ||
        rules.Bias < -MACHINE_BIAS_MOST)
        return false;
    (void)read_value(registry, L"DynamicDaylightTimeDisabled", REG_DWORD, &fixed);
    if (fixed == 0 && read_value(registry, L"StandardStart", REG_BINARY, &rules.StandardDate) &&
        read_value(registry, L"DaylightStart", REG_BINARY, &rules.DaylightDate)) {
        (void)read_value(registry, L"StandardBias", REG_DWORD, &rules.StandardBias);
        (void)read_value(registry, L"DaylightBias", REG_DWORD, &rules.DaylightBias);
    } else {
        rules.StandardDate = rules.DaylightDate = {};
    }
    const evidence_value *name = find_value(registry, L"TimeZoneKeyName", REG_SZ);

    *zone = fixed_zone(rules.Bias, "the registry export");
    zone->rules = rules;
    if (name != nullptr && !name->text().empty())
        zone->name = name->text();
    return true;
}

static bool of_log(const replay_evidence &evidence, replay_zone *zone)
{
    for (size_t i = evidence.boot->end; i > 0; i--) {
        const event_record &event = evidence.log.events[i - 1];
        wchar_t *end = nullptr;

        if (!event.is(RECORD_TIME_ZONE) || event.strings.count() <= BIAS_STRING)
            continue;
        const std::wstring text = event.strings.at(BIAS_STRING);
        const long bias = wcstol(text.c_str(), &end, 10);

        if (text.empty() || *end != L'\0' || bias > MACHINE_BIAS_MOST || bias < -MACHINE_BIAS_MOST)
            continue;
        *zone = fixed_zone(bias, text_format("record %u", event.number));
        return true;
    }
    return false;
}

replay_zone zone_of(const std::string &option, const replay_evidence &evidence)
{
    replay_zone zone;

    if (!option.empty()) {
        if (!zone_parse(option, &zone))
            throw devhost_error(EXIT_BAD_CALL, "--time-zone " + option +
                                                   ": unknown time zone, expected UTC, an offset "
                                                   "such as +09:00, or a name of Windows such as "
                                                   "\"Tokyo Standard Time\"");
        zone.source = "--time-zone";
    } else if (!of_registry(evidence.registry, &zone)) {
        (void)of_log(evidence, &zone);
    }
    return zone;
}

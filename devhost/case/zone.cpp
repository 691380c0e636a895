/* Time zones of evidence. */
#include "zone.h"

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

static bool is_offset(const std::string &text)
{
    return !text.empty() && (text[0] == '+' || text[0] == '-');
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
    zone->name = is_offset(text) ? offset_text(zone->rules.Bias) : text;
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

static std::string date_hex(const SYSTEMTIME &date)
{
    return text_hex(std::string(reinterpret_cast<const char *>(&date), sizeof(date)));
}

void zone_put(json_lines &writer, const replay_zone &zone)
{
    const std::string offset = offset_text(zone.rules.Bias);

    writer.Key("time_zone");
    if (has_rules_of(zone, zone.name)) {
        json_put(writer, zone.name);
        return;
    }
    if (zone.rules.DaylightDate.wMonth == 0) {
        json_put(writer, offset == "UTC" ? offset : offset.substr(3));
        return;
    }
    /* Windows changes the rules of its zones: those of the machine may be older or newer ones. */
    writer.StartObject();
    json_member(writer, "bias", static_cast<int64_t>(zone.rules.Bias));
    json_member(writer, "standard_bias", static_cast<int64_t>(zone.rules.StandardBias));
    json_member(writer, "daylight_bias", static_cast<int64_t>(zone.rules.DaylightBias));
    json_member(writer, "standard_start", date_hex(zone.rules.StandardDate));
    json_member(writer, "daylight_start", date_hex(zone.rules.DaylightDate));
    writer.EndObject();
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

template <typename Value>
static bool read_value(const evidence_registry &registry, const wchar_t *name, DWORD type,
                       Value *value)
{
    for (const evidence_value &one : registry.values)
        if (_wcsicmp(one.key.c_str(), ZONE_KEY) == 0 && _wcsicmp(one.name.c_str(), name) == 0 &&
            one.type == type && one.data.size() == sizeof(*value)) {
            memcpy(value, one.data.data(), sizeof(*value));
            return true;
        }
    return false;
}

static std::string key_name(const evidence_registry &registry)
{
    for (const evidence_value &one : registry.values)
        if (_wcsicmp(one.key.c_str(), ZONE_KEY) == 0 &&
            _wcsicmp(one.name.c_str(), L"TimeZoneKeyName") == 0 && one.type == REG_SZ) {
            const std::wstring text(reinterpret_cast<const wchar_t *>(one.data.data()),
                                    one.data.size() / sizeof(wchar_t));

            return text_narrow(text.substr(0, text.find(L'\0')));
        }
    return "";
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
    zone->rules = rules;
    zone->name = key_name(registry);
    if (zone->name.empty())
        zone->name = offset_text(rules.Bias);
    zone->source = "the registry export";
    return true;
}

static bool of_log(const evidence_log &log, const evidence_run &boot, replay_zone *zone)
{
    for (size_t i = boot.end; i > 0; i--) {
        const event_record &event = log.events[i - 1];
        wchar_t *end = nullptr;

        if (!evidence_is_time_zone(event) || event.strings.count() <= BIAS_STRING)
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

replay_zone zone_of(const std::string &option, const evidence_registry &registry,
                    const evidence_log &log, const evidence_run &boot)
{
    replay_zone zone;

    if (!option.empty()) {
        if (!zone_parse(option, &zone))
            throw devhost_error(EXIT_BAD_CALL, "--time-zone " + option +
                                                   ": unknown time zone, expected UTC, an offset "
                                                   "such as +09:00, or a name of Windows such as "
                                                   "\"Tokyo Standard Time\"");
        zone.source = "--time-zone";
    } else if (!of_registry(registry, &zone)) {
        (void)of_log(log, boot, &zone);
    }
    return zone;
}

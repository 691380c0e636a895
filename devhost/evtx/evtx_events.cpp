/* Definitions as in the manifests of Windows 7 to 11. */
#include "evtx_template.h"

#include "../base/system_events.h"
#include "evtx_values.h"

static constexpr int32_t NO = EVTX_NO_QUALIFIERS;
static constexpr uint64_t CLASSIC_KEYWORDS = 0x0080000000000000ull;
static constexpr uint64_t KERNEL_KEYWORDS = 0x8000000000000000ull;
static constexpr uint64_t POWER_KEYWORDS = 0x8000400000000002ull;
static constexpr uint64_t WINLOGON_KEYWORDS = 0x2000200000000000ull;

static const evtx_provider s_general = {SOURCE_KERNEL_GENERAL,
                                        L"{a68ca8b7-004f-d7b6-a698-07e2de0f1f5d}", nullptr};
static const evtx_provider s_power = {SOURCE_KERNEL_POWER,
                                      L"{331c3b3a-2005-44c2-ac5e-77220c37d6b4}", nullptr};
static const evtx_provider s_winlogon = {SOURCE_WINLOGON, L"{dbe9b383-7cf3-4331-91cc-a3cb16a3b538}",
                                         nullptr};
static const evtx_provider s_bug_check = {L"Microsoft-Windows-WER-SystemErrorReporting",
                                          L"{abce23e7-de45-4366-8631-84fa6c525952}",
                                          SOURCE_BUG_CHECK};
static const evtx_provider s_services = {SOURCE_SERVICES, L"{555908d1-a6d7-4695-8e1e-26931d2012f4}",
                                         SOURCE_SERVICES};
static const evtx_provider s_event_log = {SOURCE_EVENT_LOG, nullptr, nullptr};

/* Fields of record 41 up to the version that has all of them. */
static std::vector<evtx_field> power_fields(size_t count, uint8_t sleep_type)
{
    const std::vector<evtx_field> all = {
        {L"BugcheckCode",                EVTX_UINT32 },
        {L"BugcheckParameter1",          EVTX_SIZE   },
        {L"BugcheckParameter2",          EVTX_SIZE   },
        {L"BugcheckParameter3",          EVTX_SIZE   },
        {L"BugcheckParameter4",          EVTX_SIZE   },
        {L"SleepInProgress",             sleep_type  },
        {L"PowerButtonTimestamp",        EVTX_UINT64 },
        {L"BootAppStatus",               EVTX_UINT32 },
        {L"Checkpoint",                  EVTX_UINT8  },
        {L"ConnectedStandbyInProgress",  EVTX_BOOLEAN},
        {L"SystemSleepTransitionsToOn",  EVTX_UINT32 },
        {L"CsEntryScenarioInstanceId",   EVTX_UINT8  },
        {L"BugcheckInfoFromEFI",         EVTX_BOOLEAN},
        {L"CheckpointStatus",            EVTX_UINT8  },
        {L"CsEntryScenarioInstanceIdV2", EVTX_UINT64 },
    };

    return {all.begin(), all.begin() + static_cast<ptrdiff_t>(count)};
}

/* Fields of classic records that a manifest names. */
static std::vector<evtx_field> parameters(size_t count)
{
    static const wchar_t *const names[] = {L"param1", L"param2", L"param3"};
    std::vector<evtx_field> fields;

    for (size_t i = 0; i < count; i++)
        fields.push_back({names[i], EVTX_STRING});
    return fields;
}

static const std::vector<evtx_event> &events(void)
{
    static const std::vector<evtx_field> clocks = {
        {L"NewTime",     EVTX_FILETIME},
        {L"OldTime",     EVTX_FILETIME},
        {L"Reason",      EVTX_UINT32  },
        {L"ProcessName", EVTX_STRING  },
        {L"ProcessID",   EVTX_UINT32  }
    };
    static const std::vector<evtx_field> starts = {
        {L"MajorVersion",   EVTX_UINT32  },
        {L"MinorVersion",   EVTX_UINT32  },
        {L"BuildVersion",   EVTX_UINT32  },
        {L"QfeVersion",     EVTX_UINT32  },
        {L"ServiceVersion", EVTX_UINT16  },
        {L"BootMode",       EVTX_UINT32  },
        {L"StartTime",      EVTX_FILETIME}
    };
    static const std::vector<evtx_field> stops = {
        {L"StopTime", EVTX_FILETIME}
    };
    static const std::vector<evtx_field> early(clocks.begin(), clocks.begin() + 3);
    static const std::vector<evtx_field> logons = {
        {L"TSId",    EVTX_UINT32},
        {L"UserSid", EVTX_SID   }
    };
    /* clang-format off */
    /* provider, id, qualifiers, level, version, task, keywords, fields */
    static const std::vector<evtx_event> all = {
        {&s_general,   12,   NO,     4, 0, 1,    KERNEL_KEYWORDS | 0x80, starts},
        {&s_general,   13,   NO,     4, 0, 2,    KERNEL_KEYWORDS | 0x80, stops},
        {&s_general,   1,    NO,     4, 1, 5,    KERNEL_KEYWORDS | 0x10, early},
        {&s_general,   1,    NO,     4, 2, 5,    KERNEL_KEYWORDS | 0x10, clocks},
        {&s_power,     41,   NO,     1, 2, 63,   KERNEL_KEYWORDS | 2, power_fields(7, EVTX_BOOLEAN)},
        {&s_power,     41,   NO,     1, 3, 63,   POWER_KEYWORDS, power_fields(8, EVTX_UINT32)},
        {&s_power,     41,   NO,     1, 4, 63,   POWER_KEYWORDS, power_fields(12, EVTX_UINT32)},
        {&s_power,     41,   NO,     1, 6, 63,   POWER_KEYWORDS, power_fields(14, EVTX_UINT32)},
        {&s_power,     41,   NO,     1, 7, 63,   POWER_KEYWORDS, power_fields(15, EVTX_UINT32)},
        {&s_winlogon,  7001, NO,     4, 0, 1101, WINLOGON_KEYWORDS, logons},
        {&s_winlogon,  7002, NO,     4, 0, 1102, WINLOGON_KEYWORDS, logons},
        {&s_bug_check, 1001, 0x4000, 2, 0, 0,    CLASSIC_KEYWORDS, parameters(3)},
        {&s_services,  7036, 0x4000, 4, 0, 0,    KERNEL_KEYWORDS | CLASSIC_KEYWORDS, parameters(2)},
        {&s_services,  7001, 0xC000, 2, 0, 0,    KERNEL_KEYWORDS | CLASSIC_KEYWORDS, parameters(3)},
        {&s_event_log, 6005, 0x8000, 4, 0, 0,    CLASSIC_KEYWORDS, {}},
        {&s_event_log, 6006, 0x8000, 4, 0, 0,    CLASSIC_KEYWORDS, {}},
        {&s_event_log, 6008, 0x8000, 2, 0, 0,    CLASSIC_KEYWORDS, {}},
    };
    /* clang-format on */

    return all;
}

const evtx_event *evtx_find_event(const event_record &event)
{
    for (const evtx_event &known : events()) {
        const wchar_t *source =
            known.provider->source != nullptr ? known.provider->source : known.provider->name;
        const uint32_t qualifiers =
            known.qualifiers != EVTX_NO_QUALIFIERS ? static_cast<uint32_t>(known.qualifiers) : 0;

        if (event.source == source && event.id == (qualifiers << 16 | known.id) &&
            (known.fields.empty() || known.fields.size() == event.strings.count()))
            return &known;
    }
    return nullptr;
}

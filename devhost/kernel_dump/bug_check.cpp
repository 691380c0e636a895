/* The table of bug checks. */
#include "bug_check.h"

#include <cinttypes>
#include <cstdio>

#include "kernel_dump.h"
#include "kernel_dump_internal.h"

/* Meanings that several have. */
static constexpr bug_check_meanings AT_RAISED_IRQL = {
    "address that was accessed", "IRQL at that time", "0: read, 1: write, 2 or 8: execute",
    "address of the instruction"};
static constexpr bug_check_meanings PAGE_FAULT = {"address that was accessed",
                                                  "0: read, 1: write, 2 or 8: execute",
                                                  "address of the instruction"};

/* clang-format off */
static const bug_check s_bug_checks[] = {
    {0x01, "APC_INDEX_MISMATCH"},
    {0x02, "DEVICE_QUEUE_NOT_BUSY"},
    {0x03, "INVALID_AFFINITY_SET"},
    {0x04, "INVALID_DATA_ACCESS_TRAP"},
    {0x05, "INVALID_PROCESS_ATTACH_ATTEMPT"},
    {0x06, "INVALID_PROCESS_DETACH_ATTEMPT"},
    {0x07, "INVALID_SOFTWARE_INTERRUPT"},
    {0x08, "IRQL_NOT_DISPATCH_LEVEL"},
    {0x09, "IRQL_NOT_GREATER_OR_EQUAL"},
    {0x0a, "IRQL_NOT_LESS_OR_EQUAL", AT_RAISED_IRQL, 4},
    {0x0b, "NO_EXCEPTION_HANDLING_SUPPORT"},
    {0x0c, "MAXIMUM_WAIT_OBJECTS_EXCEEDED"},
    {0x0d, "MUTEX_LEVEL_NUMBER_VIOLATION"},
    {0x0e, "NO_USER_MODE_CONTEXT"},
    {0x0f, "SPIN_LOCK_ALREADY_OWNED"},
    {0x10, "SPIN_LOCK_NOT_OWNED"},
    {0x11, "THREAD_NOT_MUTEX_OWNER"},
    {0x12, "TRAP_CAUSE_UNKNOWN"},
    {0x18, "REFERENCE_BY_POINTER"},
    {0x19, "BAD_POOL_HEADER", {"kind of corruption", "address of the pool header"}},
    {0x1a, "MEMORY_MANAGEMENT", {"kind of corruption"}},
    {0x1c, "PFN_REFERENCE_COUNT"},
    {0x1d, "PFN_SHARE_COUNT"},
    {0x1e, "KMODE_EXCEPTION_NOT_HANDLED",
     {"exception code", "address of the instruction", "parameter 0 of the exception",
      "parameter 1 of the exception"}, 2},
    {0x20, "KERNEL_APC_PENDING_DURING_EXIT"},
    {0x21, "QUOTA_UNDERFLOW"},
    {0x22, "FILE_SYSTEM"},
    {0x23, "FAT_FILE_SYSTEM"},
    {0x24, "NTFS_FILE_SYSTEM", {"source file and line", "exception record", "context record"}},
    {0x25, "NPFS_FILE_SYSTEM"},
    {0x26, "CDFS_FILE_SYSTEM"},
    {0x27, "RDR_FILE_SYSTEM"},
    {0x2a, "INCONSISTENT_IRP"},
    {0x2b, "PANIC_STACK_SWITCH"},
    {0x2c, "PORT_DRIVER_INTERNAL"},
    {0x2d, "SCSI_DISK_DRIVER_INTERNAL"},
    {0x2e, "DATA_BUS_ERROR"},
    {0x34, "CACHE_MANAGER"},
    {0x35, "NO_MORE_IRP_STACK_LOCATIONS"},
    {0x36, "DEVICE_REFERENCE_COUNT_NOT_ZERO"},
    {0x38, "SERIAL_DRIVER_INTERNAL"},
    {0x39, "SYSTEM_EXIT_OWNED_MUTEX"},
    {0x3b, "SYSTEM_SERVICE_EXCEPTION",
     {"exception code", "address of the instruction", "address of the context record"}, 2},
    {0x3d, "INTERRUPT_EXCEPTION_NOT_HANDLED",
     {"address of the exception record", "address of the context record"}},
    {0x3f, "NO_MORE_SYSTEM_PTES"},
    {0x41, "MUST_SUCCEED_POOL_EMPTY"},
    {0x44, "MULTIPLE_IRP_COMPLETE_REQUESTS"},
    {0x48, "CANCEL_STATE_IN_COMPLETED_IRP"},
    {0x49, "PAGE_FAULT_WITH_INTERRUPTS_OFF"},
    {0x4a, "IRQL_GT_ZERO_AT_SYSTEM_SERVICE"},
    {0x4c, "FATAL_UNHANDLED_HARD_ERROR"},
    {0x4d, "NO_PAGES_AVAILABLE"},
    {0x4e, "PFN_LIST_CORRUPT"},
    {0x50, "PAGE_FAULT_IN_NONPAGED_AREA",
     {"address that was accessed", "0: read, 1: write, 2 or 8: execute",
      "address of the instruction", "kind of page fault"}, 3},
    {0x51, "REGISTRY_ERROR"},
    {0x53, "NO_BOOT_DEVICE"},
    {0x54, "MAILSLOT_FILE_SYSTEM"},
    {0x5a, "CRITICAL_SERVICE_FAILED"},
    {0x5c, "HAL_INITIALIZATION_FAILED"},
    {0x5d, "UNSUPPORTED_PROCESSOR"},
    {0x60, "PHASE0_INITIALIZATION_FAILED"},
    {0x61, "PHASE1_INITIALIZATION_FAILED"},
    {0x67, "CONFIG_INITIALIZATION_FAILED"},
    {0x69, "IO1_INITIALIZATION_FAILED"},
    {0x6b, "PROCESS1_INITIALIZATION_FAILED"},
    {0x6f, "SESSION3_INITIALIZATION_FAILED"},
    {0x73, "CONFIG_LIST_FAILED"},
    {0x74, "BAD_SYSTEM_CONFIG_INFO"},
    {0x75, "CANNOT_WRITE_CONFIGURATION"},
    {0x76, "PROCESS_HAS_LOCKED_PAGES"},
    {0x77, "KERNEL_STACK_INPAGE_ERROR"},
    {0x78, "PHASE0_EXCEPTION"},
    {0x79, "MISMATCHED_HAL"},
    {0x7a, "KERNEL_DATA_INPAGE_ERROR",
     {"kind of lock or page table entry", "error status", "depends on parameter 1",
      "address that was read in"}},
    {0x7b, "INACCESSIBLE_BOOT_DEVICE", {"address of the device's name or object"}},
    {0x7c, "BUGCODE_NDIS_DRIVER"},
    {0x7d, "INSTALL_MORE_MEMORY"},
    {0x7e, "SYSTEM_THREAD_EXCEPTION_NOT_HANDLED",
     {"exception code", "address of the instruction", "address of the exception record",
      "address of the context record"}, 2},
    {0x7f, "UNEXPECTED_KERNEL_MODE_TRAP",
     {"trap number: 0 divide error, 6 invalid opcode, 8 double fault, 0xd general protection"}},
    {0x80, "NMI_HARDWARE_FAILURE"},
    {0x81, "SPIN_LOCK_INIT_FAILURE"},
    {0x85, "SETUP_FAILURE"},
    {0x8b, "MBR_CHECKSUM_MISMATCH"},
    {0x8e, "KERNEL_MODE_EXCEPTION_NOT_HANDLED",
     {"exception code", "address of the instruction", "address of the trap frame"}, 2},
    {0x8f, "PP0_INITIALIZATION_FAILED"},
    {0x90, "PP1_INITIALIZATION_FAILED"},
    {0x92, "UP_DRIVER_ON_MP_SYSTEM"},
    {0x93, "INVALID_KERNEL_HANDLE"},
    {0x94, "KERNEL_STACK_LOCKED_AT_EXIT"},
    {0x96, "INVALID_WORK_QUEUE_ITEM"},
    {0x97, "BOUND_IMAGE_UNSUPPORTED"},
    {0x98, "END_OF_NT_EVALUATION_PERIOD"},
    {0x99, "INVALID_REGION_OR_SEGMENT"},
    {0x9a, "SYSTEM_LICENSE_VIOLATION"},
    {0x9b, "UDFS_FILE_SYSTEM"},
    {0x9c, "MACHINE_CHECK_EXCEPTION"},
    {0x9e, "USER_MODE_HEALTH_MONITOR"},
    {0x9f, "DRIVER_POWER_STATE_FAILURE",
     {"kind of violation: 3 a device blocks an IRP too long", "device object",
      "depends on parameter 1", "blocked IRP"}},
    {0xa0, "INTERNAL_POWER_ERROR"},
    {0xa1, "PCI_BUS_DRIVER_INTERNAL"},
    {0xa2, "MEMORY_IMAGE_CORRUPT"},
    {0xa3, "ACPI_DRIVER_INTERNAL"},
    {0xa4, "CNSS_FILE_SYSTEM_FILTER"},
    {0xa5, "ACPI_BIOS_ERROR"},
    {0xa7, "BAD_EXHANDLE"},
    {0xab, "SESSION_HAS_VALID_POOL_ON_EXIT"},
    {0xac, "HAL_MEMORY_ALLOCATION"},
    {0xad, "VIDEO_DRIVER_DEBUG_REPORT_REQUEST"},
    {0xb4, "VIDEO_DRIVER_INIT_FAILURE"},
    {0xb8, "ATTEMPTED_SWITCH_FROM_DPC"},
    {0xb9, "CHIPSET_DETECTED_ERROR"},
    {0xba, "SESSION_HAS_VALID_VIEWS_ON_EXIT"},
    {0xbb, "NETWORK_BOOT_INITIALIZATION_FAILED"},
    {0xbc, "NETWORK_BOOT_DUPLICATE_ADDRESS"},
    {0xbe, "ATTEMPTED_WRITE_TO_READONLY_MEMORY",
     {"address that was written", "contents of the page table entry"}},
    {0xbf, "MUTEX_ALREADY_OWNED"},
    {0xc1, "SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION"},
    {0xc2, "BAD_POOL_CALLER", {"kind of violation"}},
    {0xc4, "DRIVER_VERIFIER_DETECTED_VIOLATION", {"kind of violation"}},
    {0xc5, "DRIVER_CORRUPTED_EXPOOL", AT_RAISED_IRQL, 4},
    {0xc6, "DRIVER_CAUGHT_MODIFYING_FREED_POOL"},
    {0xc7, "TIMER_OR_DPC_INVALID"},
    {0xc8, "IRQL_UNEXPECTED_VALUE"},
    {0xc9, "DRIVER_VERIFIER_IOMANAGER_VIOLATION"},
    {0xca, "PNP_DETECTED_FATAL_ERROR"},
    {0xcb, "DRIVER_LEFT_LOCKED_PAGES_IN_PROCESS"},
    {0xcc, "PAGE_FAULT_IN_FREED_SPECIAL_POOL", PAGE_FAULT, 3},
    {0xcd, "PAGE_FAULT_BEYOND_END_OF_ALLOCATION"},
    {0xce, "DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS", PAGE_FAULT, 3},
    {0xcf, "TERMINAL_SERVER_DRIVER_MADE_INCORRECT_MEMORY_REFERENCE"},
    {0xd0, "DRIVER_CORRUPTED_MMPOOL"},
    {0xd1, "DRIVER_IRQL_NOT_LESS_OR_EQUAL", AT_RAISED_IRQL, 4},
    {0xd2, "BUGCODE_ID_DRIVER"},
    {0xd3, "DRIVER_PORTION_MUST_BE_NONPAGED"},
    {0xd4, "SYSTEM_SCAN_AT_RAISED_IRQL_CAUGHT_IMPROPER_DRIVER_UNLOAD"},
    {0xd5, "DRIVER_PAGE_FAULT_IN_FREED_SPECIAL_POOL", PAGE_FAULT, 3},
    {0xd6, "DRIVER_PAGE_FAULT_BEYOND_END_OF_ALLOCATION", PAGE_FAULT, 3},
    {0xd7, "DRIVER_UNMAPPING_INVALID_VIEW"},
    {0xd8, "DRIVER_USED_EXCESSIVE_PTES"},
    {0xd9, "LOCKED_PAGES_TRACKER_CORRUPTION"},
    {0xda, "SYSTEM_PTE_MISUSE"},
    {0xdb, "DRIVER_CORRUPTED_SYSPTES"},
    {0xdc, "DRIVER_INVALID_STACK_ACCESS"},
    {0xde, "POOL_CORRUPTION_IN_FILE_AREA"},
    {0xdf, "IMPERSONATING_WORKER_THREAD"},
    {0xe0, "ACPI_BIOS_FATAL_ERROR"},
    {0xe1, "WORKER_THREAD_RETURNED_AT_BAD_IRQL"},
    {0xe2, "MANUALLY_INITIATED_CRASH"},
    {0xe3, "RESOURCE_NOT_OWNED"},
    {0xe4, "WORKER_INVALID"},
    {0xe6, "DRIVER_VERIFIER_DMA_VIOLATION"},
    {0xe7, "INVALID_FLOATING_POINT_STATE"},
    {0xe8, "INVALID_CANCEL_OF_FILE_OPEN"},
    {0xe9, "ACTIVE_EX_WORKER_THREAD_TERMINATION"},
    {0xea, "THREAD_STUCK_IN_DEVICE_DRIVER"},
    {0xeb, "DIRTY_MAPPED_PAGES_CONGESTION"},
    {0xec, "SESSION_HAS_VALID_SPECIAL_POOL_ON_EXIT"},
    {0xed, "UNMOUNTABLE_BOOT_VOLUME"},
    {0xef, "CRITICAL_PROCESS_DIED", {"process object", "0: a process, 1: a thread ended"}},
    {0xf1, "SCSI_VERIFIER_DETECTED_VIOLATION"},
    {0xf3, "DISORDERLY_SHUTDOWN"},
    {0xf4, "CRITICAL_OBJECT_TERMINATION",
     {"3: a process, 6: a thread ended", "object that ended", "name of the process image",
      "explanatory text"}},
    {0xf5, "FLTMGR_FILE_SYSTEM"},
    {0xf6, "PCI_VERIFIER_DETECTED_VIOLATION"},
    {0xf7, "DRIVER_OVERRAN_STACK_BUFFER",
     {"security cookie on the stack", "expected security cookie",
      "complement of the expected cookie"}},
    {0xf8, "RAMDISK_BOOT_INITIALIZATION_FAILED"},
    {0xf9, "DRIVER_RETURNED_STATUS_REPARSE_FOR_VOLUME_OPEN"},
    {0xfa, "HTTP_DRIVER_CORRUPTED"},
    {0xfc, "ATTEMPTED_EXECUTE_OF_NOEXECUTE_MEMORY",
     {"address that was executed", "contents of the page table entry"}, 1},
    {0xfd, "DIRTY_NOWRITE_PAGES_CONGESTION"},
    {0xfe, "BUGCODE_USB_DRIVER"},
    {0xff, "RESERVE_QUEUE_OVERFLOW"},
    {0x100, "LOADER_BLOCK_MISMATCH"},
    {0x101, "CLOCK_WATCHDOG_TIMEOUT",
     {"clock interrupt timeout in ticks", nullptr, "address of the processor's control block",
      "number of the processor"}},
    {0x103, "MUP_FILE_SYSTEM"},
    {0x104, "AGP_INVALID_ACCESS"},
    {0x105, "AGP_GART_CORRUPTION"},
    {0x108, "THIRD_PARTY_FILE_SYSTEM_FAILURE"},
    {0x109, "CRITICAL_STRUCTURE_CORRUPTION",
     {"reserved", "reserved", "kind of the corrupted structure", "kind of the corrupted region"}},
    {0x10a, "APP_TAGGING_INITIALIZATION_FAILED"},
    {0x10c, "FSRTL_EXTRA_CREATE_PARAMETER_VIOLATION"},
    {0x10d, "WDF_VIOLATION", {"kind of violation"}},
    {0x10e, "VIDEO_MEMORY_MANAGEMENT_INTERNAL"},
    {0x10f, "RESOURCE_MANAGER_EXCEPTION_NOT_HANDLED"},
    {0x111, "RECURSIVE_NMI"},
    {0x112, "MSRPC_STATE_VIOLATION"},
    {0x113, "VIDEO_DXGKRNL_FATAL_ERROR"},
    {0x114, "VIDEO_SHADOW_DRIVER_FATAL_ERROR"},
    {0x115, "AGP_INTERNAL"},
    {0x116, "VIDEO_TDR_FAILURE",
     {"timeout recovery context", "address in the display driver",
      "error status of the last operation", "internal context"}, 2},
    {0x117, "VIDEO_TDR_TIMEOUT_DETECTED"},
    {0x119, "VIDEO_SCHEDULER_INTERNAL_ERROR"},
    {0x11a, "EM_INITIALIZATION_FAILURE"},
    {0x11b, "DRIVER_RETURNED_HOLDING_CANCEL_LOCK"},
    {0x11c, "ATTEMPTED_WRITE_TO_CM_PROTECTED_STORAGE"},
    {0x11d, "EVENT_TRACING_FATAL_ERROR"},
    {0x121, "DRIVER_VIOLATION"},
    {0x122, "WHEA_INTERNAL_ERROR"},
    {0x124, "WHEA_UNCORRECTABLE_ERROR",
     {"kind of error source: 0 machine check", "address of the error record",
      "high 32 bits of the machine check status", "low 32 bits of the machine check status"}},
    {0x127, "PAGE_NOT_ZERO"},
    {0x12b, "FAULTY_HARDWARE_CORRUPTED_PAGE"},
    {0x12c, "EXFAT_FILE_SYSTEM"},
    {0x133, "DPC_WATCHDOG_VIOLATION",
     {"0: a DPC ran too long, 1: too long at IRQL DISPATCH_LEVEL", "time in ticks",
      "time limit in ticks"}},
    {0x139, "KERNEL_SECURITY_CHECK_FAILURE",
     {"kind of corruption: 2 stack cookie, 3 list entry", "address of the trap frame",
      "address of the exception record"}},
    {0x13a, "KERNEL_MODE_HEAP_CORRUPTION"},
    {0x144, "BUGCODE_USB3_DRIVER"},
    {0x149, "REFS_FILE_SYSTEM"},
    {0x14f, "PDC_WATCHDOG_TIMEOUT"},
    {0x154, "UNEXPECTED_STORE_EXCEPTION", {"store context", "exception information"}},
    {0x15f, "CONNECTED_STANDBY_WATCHDOG_TIMEOUT_LIVEDUMP"},
    {0x162, "KERNEL_AUTO_BOOST_INVALID_LOCK_RELEASE"},
    {0x164, "WIN32K_CRITICAL_FAILURE"},
    {0x178, "INVALID_PUSH_LOCK_FLAGS"},
    {0x17e, "MICROCODE_REVISION_MISMATCH"},
    {0x18b, "SECURE_KERNEL_ERROR"},
    {0x192, "KERNEL_AUTO_BOOST_LOCK_ACQUISITION_WITH_RAISED_IRQL"},
    {0x19c, "WIN32K_POWER_WATCHDOG_TIMEOUT"},
    {0x1a0, "TTM_WATCHDOG_TIMEOUT"},
    {0x1c4, "DRIVER_VERIFIER_DETECTED_VIOLATION_LIVEDUMP"},
    {0x1c7, "STORE_DATA_STRUCTURE_CORRUPTION"},
    {0x1ca, "SYNTHETIC_WATCHDOG_TIMEOUT"},
    {0x1d3, "WFP_INVALID_OPERATION"},
    {0xbfe, "BC_BLUETOOTH_VERIFIER_FAULT"},
    {0xc0000218, "STATUS_CANNOT_LOAD_REGISTRY_FILE"},
    {0xc000021a, "WINLOGON_FATAL_ERROR"},
    {0xc0000221, "STATUS_IMAGE_CHECKSUM_MISMATCH"},
    {0xdeaddead, "MANUALLY_INITIATED_CRASH1"},
};

/* Exceptions of the processor that drivers cause. */
static const struct {
    uint32_t code;
    const char *text;
} s_exceptions[] = {
    {0x80000003, "breakpoint"},
    {0x80000004, "single step"},
    {0xc0000005, "access violation"},
    {0xc0000006, "page could not be read in"},
    {0xc000001d, "illegal instruction"},
    {0xc0000094, "integer divided by zero"},
    {0xc0000096, "privileged instruction"},
    {0xc00000fd, "stack overflow"},
    {0xc0000409, "stack buffer overrun"},
};
/* clang-format on */

const struct bug_check *bug_check_find(uint32_t code)
{
    for (const bug_check &row : s_bug_checks)
        if (row.code == code || (row.code | KERNEL_DUMP_TRIAGE_FLAG) == code)
            return &row;
    return nullptr;
}

std::string bug_check_name(uint32_t code)
{
    const bug_check *row = bug_check_find(code);

    return row != nullptr ? row->name : "";
}

std::string bug_check_title(uint32_t code)
{
    const bug_check *row = bug_check_find(code);

    return kernel_dump_hex(row != nullptr ? row->code : code) +
           (row != nullptr ? std::string(" ") + row->name : "");
}

std::string bug_check_text(uint32_t code, const uint64_t (&parameters)[4])
{
    char text[100];

    snprintf(text, sizeof text,
             "0x%08" PRIx32 " (0x%016" PRIx64 ", 0x%016" PRIx64 ", 0x%016" PRIx64 ", 0x%016" PRIx64
             ")",
             code, parameters[0], parameters[1], parameters[2], parameters[3]);
    return text;
}

bool bug_check_parse(const std::string &text, uint32_t *code, uint64_t (&parameters)[4])
{
    return sscanf(text.c_str(), "%" SCNx32 " (%" SCNx64 ", %" SCNx64 ", %" SCNx64 ", %" SCNx64 ")",
                  code, &parameters[0], &parameters[1], &parameters[2], &parameters[3]) == 5;
}

std::string bug_check_exception(uint64_t code)
{
    for (const auto &row : s_exceptions)
        if (row.code == static_cast<uint32_t>(code))
            return row.text;
    return "";
}

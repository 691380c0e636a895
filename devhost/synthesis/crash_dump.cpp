/* From call sites to the modules, addresses and stack of a dump. */
#include "history.h"

#include <algorithm>

#include "../base/text.h"
#include "../dump_writer/memory_model.h"
#include "../kernel_dump/kernel_dump.h"

static constexpr uint32_t BUILD = 19041u;

/* Each module has a range of its own, so that offsets of any file fit. */
static constexpr uint64_t FIRST_BASE = 0xFFFFF80200000000ull;
static constexpr uint64_t RANGE_BYTES = 0x100000000ull;
static constexpr uint32_t USUAL_BYTES = 0x80000u;
static constexpr uint32_t LIST_AT = 0xC2A2C0u; /* the list of modules, in the kernel */
static constexpr uint32_t KERNEL_BYTES = 0x1046000u;

/* A file name has no more, with its extension. */
static constexpr uint32_t MOST_NAME_CHARS = 250u;

static constexpr uint64_t STACK_POINTER = 0xFFFF850429890000ull;
/* Values of calls that had returned before the crash are saved below the stack pointer. */
static constexpr uint32_t STALE_VALUES = 8u;

namespace
{
/* Modules in the order of their bases; the kernel is the first. */
struct layout {
    std::vector<std::string> names = {"nt"};
    std::vector<uint64_t> bytes = {KERNEL_BYTES};
    std::vector<uint64_t> frames;

    size_t find(const std::string &name)
    {
        const auto at = std::find(names.begin(), names.end(), name);

        if (at != names.end())
            return static_cast<size_t>(at - names.begin());
        names.push_back(name);
        bytes.push_back(USUAL_BYTES);
        return names.size() - 1;
    }
    uint64_t base(size_t module) const
    {
        return FIRST_BASE + module * RANGE_BYTES;
    }
};
} // namespace

static std::string module_of(const std::string &frame)
{
    return frame.substr(0, frame.find_first_of("!+"));
}

/* A function has no address without symbols, so it gets one by its name. */
static uint64_t offset_of(const std::string &frame)
{
    const size_t plus = frame.find_last_of('+'), mark = frame.find('!');
    uint64_t offset = plus != std::string::npos ? strtoull(&frame[plus + 1], nullptr, 16) : 0;
    uint32_t hash = 0;

    for (size_t i = mark; i < std::min(plus, frame.size()); i++)
        hash = hash * 31 + static_cast<uint8_t>(frame[i]);
    return mark != std::string::npos ? offset + 0x1000 + hash % 0x70 * 0x1000ull : offset;
}

static layout layout_of(const std::vector<std::string> &frames,
                        const std::vector<std::string> &loaded)
{
    layout layout;

    for (const std::string &frame : frames) {
        const size_t module = layout.find(module_of(frame));
        const uint64_t offset = offset_of(frame);

        layout.bytes[module] = std::max(layout.bytes[module], (offset | 0xFFF) + 1);
        layout.frames.push_back(layout.base(module) + offset);
    }
    for (const std::string &name : loaded)
        (void)layout.find(name);
    return layout;
}

bool crash_dump_frames(const std::string &stack, std::vector<std::string> *frames)
{
    static const std::string heading = "Call Site\n";

    if (stack.compare(0, heading.size(), heading) != 0)
        return false;
    for (const std::string &line : text_split(stack.substr(heading.size()), '\n')) {
        const size_t mark = line.find_first_of("!+");

        if (line.empty())
            continue;
        /* A name of a file is neither longer nor empty. */
        if (mark == std::string::npos || mark == 0 ||
            text_wide(line.substr(0, mark)).size() > MOST_NAME_CHARS ||
            offset_of(line) >> 31 != 0 || line.find_first_of("\\/") < mark)
            return false;
        frames->push_back(line);
    }
    return true;
}

uint64_t crash_dump_fault(const std::vector<std::string> &frames)
{
    const layout layout = layout_of(frames, {});

    for (size_t i = 0; i < frames.size(); i++)
        if (module_of(frames[i]) != "nt")
            return layout.frames[i];
    return frames.empty() ? 0 : layout.frames[0];
}

static std::u16string utf16(const std::string &text)
{
    const std::wstring wide = text_wide(text);

    return std::u16string(wide.begin(), wide.end());
}

static void put_modules(dump_model *model, const layout &layout)
{
    model->modules.clear();
    for (size_t i = 0; i < layout.names.size(); i++)
        model->modules.push_back(
            {i == 0 ? u"\\SystemRoot\\system32\\ntoskrnl.exe"
                    : u"\\SystemRoot\\System32\\drivers\\" + utf16(layout.names[i]) + u".sys",
             layout.base(i), static_cast<uint32_t>(layout.bytes[i])});
    model->loaded_modules = layout.base(0) + LIST_AT;
}

/* Return addresses lie between other values, as arguments do. */
static void put_stack(dump_model *model, const layout &layout)
{
    model->stack.clear();
    for (size_t i = 0; i < STALE_VALUES; i++)
        model->stack.push_back(layout.base(i % layout.names.size()) + 0x1230 + i);
    for (size_t i = 1; i < layout.frames.size(); i++) {
        model->stack.push_back(i);
        model->stack.push_back(layout.frames[i]);
        model->stack.push_back(STACK_POINTER + 0x200 * i);
    }
    model->stack.push_back(0);
    model->rip = layout.frames.empty() ? layout.base(0) + 0x1000 : layout.frames[0];
    model->rsp = STACK_POINTER;
    model->stack_start = STACK_POINTER - 8ull * STALE_VALUES;
}

std::string crash_dump_bytes(const crash_dump &dump, const std::vector<std::string> &loaded)
{
    const layout layout = layout_of(dump.frames, loaded);
    dump_model model;

    put_modules(&model, layout);
    put_stack(&model, layout);
    model.bug_check = dump.code;
    std::copy(std::begin(dump.parameters), std::end(dump.parameters), model.parameters);
    model.exception = 0xC0000005;
    model.crash_time_100ns = dump.crashed_100ns;
    model.uptime_100ns = dump.uptime_100ns;
    model.build = BUILD;
    const std::vector<uint8_t> bytes =
        dump.complete ? memory_model(model).build(KERNEL_DUMP_KIND_BITMAP_KERNEL, MEMORY_SDMP)
                      : dump_build(model);

    return std::string(bytes.begin(), bytes.end());
}

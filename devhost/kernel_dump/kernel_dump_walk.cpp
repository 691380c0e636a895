/* The walk over the stack: by the unwind codes of the modules' images, and by a scan where there are
 * none. */
#include "kernel_dump_internal.h"

#include <algorithm>

static std::string lower(std::string text)
{
    for (char &c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

bool kernel_dump_image_is_named(const std::string &file, const kernel_dump_module &module)
{
    const std::string name = lower(file);

    return name == lower(module.file) ||
           (module.name == "nt" && (name == "ntoskrnl.exe" || name == "ntkrnlmp.exe"));
}

std::string kernel_dump_image_mismatch(const kernel_image &image, const kernel_dump_module &module)
{
    if (module.time_stamp != 0 && image.time_stamp != module.time_stamp)
        return "is of another build: time stamp " + kernel_dump_hex(image.time_stamp) +
               ", the dump has " + kernel_dump_hex(module.time_stamp);
    if (image.image_bytes != module.bytes)
        return "is of another build: " + std::to_string(image.image_bytes) +
               " bytes when it is loaded, the dump has " + std::to_string(module.bytes);
    return "";
}

const kernel_image *kernel_dump_image_of(const std::vector<kernel_image> &images,
                                         const kernel_dump_module &module)
{
    const auto found =
        std::find_if(images.begin(), images.end(), [&module](const kernel_image &image) {
            return kernel_dump_image_is_named(image.file, module) &&
                   kernel_dump_image_mismatch(image, module).empty();
        });

    return found != images.end() ? &*found : nullptr;
}

namespace
{
struct walker {
    const kernel_dump &dump;
    const std::vector<kernel_image> &images;
    unwind_stack stack;
    unwind_registers now;
    bool guessed; /* a frame was found by a scan */
    bool ended;   /* the last frame is the outermost one */
};
} // namespace

static unwind_stack stack_of(const kernel_dump &dump)
{
    return {dump.stack_start, dump.stack.data(), dump.stack.size()};
}

static unwind_registers registers_of(const kernel_dump &dump)
{
    unwind_registers registers;

    std::copy(std::begin(dump.general), std::end(dump.general), registers.general);
    registers.rip = dump.rip;
    registers.known = dump.has_general ? 0xFFFFu : 1u << UNWIND_RSP;
    return registers;
}

uint64_t kernel_dump_stack_value(const kernel_dump &dump, uint64_t address)
{
    uint64_t value = 0;

    (void)stack_of(dump).read(address, &value);
    return value;
}

/* A thread starts without a return address, or by an interrupt or call of a process, at the lower
 * addresses. A function of the kernel never returns there: such a return address is overwritten. */
static bool is_outermost(const unwind_registers &caller)
{
    return caller.rip == 0 || (!caller.returns && caller.rip >> 63 == 0);
}

/* Goes to the caller by unwind codes. Result: false: there are none, or they do not lead into a
 * module; the registers are those from which a scan goes on. */
static bool unwind(walker *walk)
{
    const kernel_dump_module *module = kernel_dump_module_at(walk->dump, walk->now.rip);
    const kernel_image *image =
        module != nullptr ? kernel_dump_image_of(walk->images, *module) : nullptr;
    unwind_registers caller = walk->now;

    if (image == nullptr || unwind_step(*image, module->base, walk->stack, &caller) != nullptr)
        return false;
    if (kernel_dump_module_at(walk->dump, caller.rip) != nullptr &&
        (!caller.returns || caller.general[UNWIND_RSP] > walk->now.general[UNWIND_RSP])) {
        walk->now = caller;
        return true;
    }
    /* From a stale return address unwinding leads anywhere. */
    if (!walk->guessed) {
        walk->ended = is_outermost(caller);
        walk->now = caller;
    }
    return false;
}

/* Goes to the next value that may be a return address. Result: false: there is none. */
static bool scan(walker *walk)
{
    uint64_t value;

    for (uint64_t at = walk->now.general[UNWIND_RSP]; walk->stack.read(at, &value); at += 8) {
        if (kernel_dump_module_at(walk->dump, value) == nullptr)
            continue;
        walk->now.rip = value;
        walk->now.returns = true;
        walk->now.general[UNWIND_RSP] = at + 8;
        walk->now.known = 1u << UNWIND_RSP;
        walk->guessed = true;
        return true;
    }
    return false;
}

std::vector<kernel_dump_frame> kernel_dump_walk(const kernel_dump &dump, size_t limit,
                                                const std::vector<kernel_image> &images)
{
    walker walk = {dump, images, stack_of(dump), registers_of(dump), false, false};
    enum kernel_dump_found found = KERNEL_DUMP_FOUND_RIP;
    std::vector<kernel_dump_frame> frames;

    while (frames.size() < limit) {
        frames.push_back({walk.now.rip, walk.now.general[UNWIND_RSP], found});
        found = unwind(&walk) ? KERNEL_DUMP_FOUND_UNWOUND : KERNEL_DUMP_FOUND_SCANNED;
        if (found == KERNEL_DUMP_FOUND_SCANNED && (walk.ended || !scan(&walk)))
            break;
    }
    return frames;
}

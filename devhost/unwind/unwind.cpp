/* Unwinding of one frame: the unwind codes of a function, or the rest of an epilogue. */
#include "unwind.h"

#include <cstring>

/* As many as Windows follows. */
static constexpr int CHAIN_MAX = 32;
/* An epilogue restores at most this many registers, and returns. */
static constexpr int EPILOGUE_INSTRUCTIONS_MAX = 18;
static constexpr uint32_t INSTRUCTION_BYTES = 8u;

enum unwind_flag {
    FLAG_CHAINED = 4,
};

enum unwind_operation {
    PUSH_NONVOL,
    ALLOC_LARGE,
    ALLOC_SMALL,
    SET_FPREG,
    SAVE_NONVOL,
    SAVE_NONVOL_FAR,
    EPILOG, /* version 1: an old way to save a register */
    SPARE,  /* the same */
    SAVE_XMM128,
    SAVE_XMM128_FAR,
    PUSH_MACHFRAME,
    OPERATIONS,
};

/* 16-bit slots of an operation, by enum unwind_operation. */
static const uint8_t s_slots[OPERATIONS] = {1, 2, 1, 1, 2, 3, 1, 3, 2, 3, 1};

namespace
{
struct unwind_code {
    uint8_t offset; /* in the function, after the instruction */
    uint8_t operation, info;
};

/* The unwind information of a function. */
struct unwind_info {
    uint8_t version, flags, prologue_bytes, count;
    unsigned frame_register; /* 0: none */
    uint64_t frame_offset;
    const uint8_t *codes;
    const uint8_t *chained; /* entry of the parent; NULL: none */

    unwind_code code(size_t index) const
    {
        const uint8_t *at = codes + 2 * index;

        return {at[0], static_cast<uint8_t>(at[1] & 15), static_cast<uint8_t>(at[1] >> 4)};
    }
    uint64_t value(size_t index, size_t slots) const
    {
        uint32_t value = 0;

        memcpy(&value, codes + 2 * index, 2 * slots);
        return value;
    }
    unsigned slots(const unwind_code &code) const
    {
        if (code.operation == ALLOC_LARGE && code.info != 0)
            return 3;
        return code.operation == EPILOG && version == 1 ? 2 : s_slots[code.operation];
    }
};

/* A frame that is being unwound. */
struct unwinder {
    const kernel_image &image;
    uint64_t base;
    const unwind_stack &stack;
    unwind_registers now;
    uint64_t frame;   /* address that saved registers are relative to */
    bool interrupted; /* the machine's own frame was found */
};
} // namespace

bool unwind_stack::read(uint64_t address, uint64_t *value) const
{
    if (address < start || address - start > size || size - (address - start) < 8)
        return false;
    memcpy(value, bytes + (address - start), sizeof *value);
    return true;
}

static bool load(unwinder *work, unsigned number, uint64_t address)
{
    work->now.known |= 1u << number;
    return work->stack.read(address, &work->now.general[number]);
}

static bool pop(unwinder *work, unsigned number)
{
    const uint64_t top = work->now.general[UNWIND_RSP];
    const bool read = load(work, number, top);

    work->now.general[UNWIND_RSP] += 8;
    return read;
}

static const char *return_to_caller(unwinder *work)
{
    uint64_t *rsp = &work->now.general[UNWIND_RSP];

    if (!work->stack.read(*rsp, &work->now.rip))
        return "the return address is not in the saved stack";
    *rsp += 8;
    work->now.returns = true;
    return nullptr;
}

static const char *read_info(const kernel_image &image, uint32_t rva, unwind_info *info)
{
    const uint8_t *at = kernel_image_at(image, rva, 4);

    if (at == nullptr)
        return "its unwind information lies outside the image";
    *info = {static_cast<uint8_t>(at[0] & 7),
             static_cast<uint8_t>(at[0] >> 3),
             at[1],
             at[2],
             at[3] & 15u,
             16ull * (at[3] >> 4),
             nullptr,
             nullptr};
    if (info->version != 1 && info->version != 2)
        return "its unwind information has an unknown version";
    const uint32_t codes = 2u * info->count;
    const uint32_t padded = (codes + 3) & ~3u;
    const bool chained = (info->flags & FLAG_CHAINED) != 0;

    at = kernel_image_at(image, rva, 4 + (chained ? padded + 12 : codes));
    if (at == nullptr)
        return "its unwind information lies outside the image";
    info->codes = at + 4;
    info->chained = chained ? info->codes + padded : nullptr;
    return nullptr;
}

/* Whether the prologue had set the frame register at this offset. */
static bool has_frame_register(const unwind_info &info, uint32_t position)
{
    if (info.frame_register == 0)
        return false;
    for (unsigned i = 0; i < info.count;) {
        const unwind_code code = info.code(i);

        if (code.operation >= OPERATIONS)
            return true; /* rejected later */
        if (code.operation == SET_FPREG)
            return code.offset <= position;
        i += info.slots(code);
    }
    /* The fragment of a function whose parent set it. */
    return true;
}

static const char *find_frame(unwinder *work, const unwind_info &info, uint32_t position)
{
    if (!has_frame_register(info, position))
        return nullptr;
    if ((work->now.known & (1u << info.frame_register)) == 0)
        return "its frame register is not known";
    work->frame = work->now.general[info.frame_register] - info.frame_offset;
    return nullptr;
}

static const char *pop_machine_frame(unwinder *work, bool error_code)
{
    uint64_t *rsp = &work->now.general[UNWIND_RSP];
    const uint64_t at = *rsp + (error_code ? 8 : 0);

    if (!work->stack.read(at, &work->now.rip) || !work->stack.read(at + 24, rsp))
        return "the frame of the interrupt is not in the saved stack";
    work->now.returns = false;
    work->interrupted = true;
    return nullptr;
}

static const char *undo(unwinder *work, const unwind_info &info, const unwind_code &code,
                        unsigned index)
{
    static const char s_outside[] = "a saved register is not in the saved stack";
    uint64_t *rsp = &work->now.general[UNWIND_RSP];

    switch (static_cast<enum unwind_operation>(code.operation)) {
    case PUSH_NONVOL: return pop(work, code.info) ? nullptr : s_outside;
    case ALLOC_LARGE:
        *rsp += code.info == 0 ? 8 * info.value(index + 1, 1) : info.value(index + 1, 2);
        return nullptr;
    case ALLOC_SMALL: *rsp += 8 * (code.info + 1ull); return nullptr;
    case SET_FPREG: *rsp = work->frame; return nullptr;
    case SAVE_NONVOL:
        return load(work, code.info, work->frame + 8 * info.value(index + 1, 1)) ? nullptr
                                                                                 : s_outside;
    case SAVE_NONVOL_FAR:
        return load(work, code.info, work->frame + info.value(index + 1, 2)) ? nullptr : s_outside;
    case PUSH_MACHFRAME: return pop_machine_frame(work, code.info != 0);
    /* Vector registers lead to no caller. */
    case EPILOG:
    case SPARE:
    case SAVE_XMM128:
    case SAVE_XMM128_FAR:
    case OPERATIONS: break;
    }
    return nullptr;
}

/* Undoes what the prologue did before this offset of the function. */
static const char *undo_prologue(unwinder *work, const unwind_info &info, uint32_t position)
{
    for (unsigned i = 0; i < info.count;) {
        const unwind_code code = info.code(i);

        if (code.operation >= OPERATIONS || i + info.slots(code) > info.count)
            return "its unwind codes are invalid";
        if (code.offset <= position || code.operation == EPILOG) {
            const char *fault = undo(work, info, code, i);

            if (fault != nullptr)
                return fault;
        }
        i += info.slots(code);
    }
    return nullptr;
}

/* The instruction at an offset of the image; zeros follow the end of the section. */
static void fetch(const kernel_image &image, uint32_t rva, uint8_t (&code)[INSTRUCTION_BYTES])
{
    memset(code, 0, sizeof code);
    for (uint32_t bytes = INSTRUCTION_BYTES; bytes > 0; bytes--) {
        const uint8_t *at = kernel_image_at(image, rva, bytes);

        if (at == nullptr)
            continue;
        memcpy(code, at, bytes);
        return;
    }
}

static int32_t displacement(const uint8_t *at, bool wide)
{
    int32_t value = (*at ^ 0x80) - 0x80; /* the sign is extended */

    if (wide)
        memcpy(&value, at, sizeof value);
    return value;
}

/* "add rsp, n" or "lea rsp, [frame register + n]". Result: its length; 0: another instruction. */
static uint32_t release_locals(unwinder *work, const unwind_info &info, const uint8_t *code)
{
    uint64_t *rsp = &work->now.general[UNWIND_RSP];

    if (code[0] == 0x48 && (code[1] == 0x83 || code[1] == 0x81) && code[2] == 0xC4) {
        const bool wide = code[1] == 0x81;

        *rsp += static_cast<uint64_t>(static_cast<int64_t>(displacement(code + 3, wide)));
        return wide ? 7 : 4;
    }
    const unsigned mode = code[2] >> 6, from = (code[2] & 7u) + (code[0] & 1u) * 8u;

    if ((code[0] & 0xFE) != 0x48 || code[1] != 0x8D || (code[2] >> 3 & 7) != UNWIND_RSP ||
        (code[2] & 7) == 4 || mode % 3 == 0 || info.frame_register == 0 ||
        from != info.frame_register)
        return 0;
    *rsp = work->now.general[from] +
           static_cast<uint64_t>(static_cast<int64_t>(displacement(code + 3, mode == 2)));
    return mode == 2 ? 7 : 4;
}

/* Whether a jump leads to another function, at its first instruction and without the frame. A part of
 * a function that lies elsewhere begins with the frame: it has a parent, or no prologue. */
static bool leaves_function(const unwinder &work, uint32_t target)
{
    kernel_image_function function;
    unwind_info info;

    if (!kernel_image_function_at(work.image, target, &function))
        return true;
    return target == function.begin && read_info(work.image, function.unwind, &info) == nullptr &&
           info.chained == nullptr && (info.count == 0 || info.prologue_bytes != 0);
}

/* Whether the instruction leaves the function. */
static bool is_return(const unwinder &work, uint32_t rva, const uint8_t *code)
{
    const bool long_form = (code[0] & 0xF8) == 0x48;
    const uint8_t *jump = code + (long_form ? 1 : 0);

    if (code[0] == 0xC3 || code[0] == 0xC2 || (code[0] == 0xF3 && code[1] == 0xC3))
        return true;
    if (code[0] == 0xEB || code[0] == 0xE9) {
        const bool wide = code[0] == 0xE9;
        const uint32_t next = rva + (wide ? 5 : 2);

        return leaves_function(work, next + static_cast<uint32_t>(displacement(code + 1, wide)));
    }
    /* Through a pointer: of the image, or, with the long form, of a register. */
    return jump[0] == 0xFF && (jump[1] == 0x25 || (long_form && (jump[1] & 0xF8) == 0xE0));
}

/* Executes the rest of an epilogue. Result: false, and nothing executed, when Rip is in none. */
static bool run_epilogue(unwinder *work, const unwind_info &info, const char **fault)
{
    unwinder trial = *work;
    uint32_t rva = static_cast<uint32_t>(work->now.rip - work->base);
    uint8_t code[INSTRUCTION_BYTES];
    bool read = true;

    fetch(work->image, rva, code);
    rva += release_locals(&trial, info, code);
    for (int i = 0; i < EPILOGUE_INSTRUCTIONS_MAX; i++) {
        fetch(work->image, rva, code);
        const uint32_t prefix = (code[0] & 0xF0) == 0x40;

        if ((code[prefix] & 0xF8) == 0x58) {
            const unsigned high = prefix != 0 && (code[0] & 1) != 0 ? 8 : 0;

            read = pop(&trial, (code[prefix] & 7u) + high) && read;
            rva += prefix + 1;
            continue;
        }
        if (!is_return(*work, rva, code))
            return false;
        *fault = read ? return_to_caller(&trial) : "a saved register is not in the saved stack";
        if (code[0] == 0xC2) /* with the arguments */
            trial.now.general[UNWIND_RSP] += code[1] + 256u * code[2];
        work->now = trial.now;
        return true;
    }
    return false;
}

/* Whether Rip is in an epilogue that the unwind information lists; version 2 lists all. */
static bool is_listed_epilogue(const kernel_image_function &function, const unwind_info &info,
                               uint32_t rva)
{
    const unwind_code first = info.code(0);
    const auto within = [&](uint32_t from_end) {
        return from_end != 0 && rva - (function.end - from_end) < first.offset;
    };

    if ((first.info & 1) != 0 && within(first.offset))
        return true;
    for (unsigned i = 1; i < info.count && info.code(i).operation == EPILOG; i++)
        if (within(info.code(i).offset + 256u * info.code(i).info))
            return true;
    return false;
}

static bool may_be_epilogue(const kernel_image_function &function, const unwind_info &info,
                            uint32_t rva)
{
    if (info.count == 0 || rva - function.begin < info.prologue_bytes)
        return false;
    return info.version == 1 || info.code(0).operation != EPILOG ||
           is_listed_epilogue(function, info, rva);
}

/* Undoes the prologues of the function and of the parents that it is a part of. */
static const char *undo_function(unwinder *work, kernel_image_function function, unwind_info info,
                                 uint32_t rva)
{
    work->frame = work->now.general[UNWIND_RSP];
    for (int i = 0; i < CHAIN_MAX; i++) {
        /* For a parent after its part the difference wraps: its prologue is complete. */
        const uint32_t position = rva - function.begin;
        const char *fault = find_frame(work, info, position);

        if (fault == nullptr)
            fault = undo_prologue(work, info, position);
        if (fault != nullptr)
            return fault;
        if (info.chained == nullptr)
            return work->interrupted ? nullptr : return_to_caller(work);
        function = kernel_image_entry(info.chained);
        fault = read_info(work->image, function.unwind, &info);
        if (fault != nullptr)
            return fault;
    }
    return "its unwind information is chained too often";
}

static const char *step(unwinder *work)
{
    const uint32_t rva = static_cast<uint32_t>(work->now.rip - work->base);
    const bool returns = work->now.returns;
    kernel_image_function function;
    unwind_info info;
    const char *fault = nullptr;

    if (work->image.function_count == 0)
        return "the image has no function table";
    /* A call may be the last instruction of its function. */
    if (!kernel_image_function_at(work->image, returns ? rva - 1 : rva, &function))
        return returns ? "a function without unwind information calls nothing"
                       : return_to_caller(work);
    if ((function.unwind & 1) != 0) {
        const uint8_t *entry = kernel_image_at(work->image, function.unwind & ~1u, 12);

        if (entry == nullptr)
            return "its unwind information lies outside the image";
        function = kernel_image_entry(entry);
    }
    fault = read_info(work->image, function.unwind, &info);
    if (fault != nullptr)
        return fault;
    /* No epilogue calls. */
    if (!returns && may_be_epilogue(function, info, rva) && run_epilogue(work, info, &fault))
        return fault;
    return undo_function(work, function, info, rva);
}

const char *unwind_step(const kernel_image &image, uint64_t base, const unwind_stack &stack,
                        unwind_registers *registers)
{
    unwinder work = {image, base, stack, *registers, 0, false};
    const char *fault = step(&work);

    if (fault == nullptr)
        *registers = work.now;
    return fault;
}

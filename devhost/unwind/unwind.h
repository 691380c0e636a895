/*
 * Unwinds one frame of an x64 stack by the unwind codes of the image that the frame executes.
 *
 * Neither the image nor the stack is trusted: a step fails instead of reading outside of them, and its
 * work is bounded. Calls nothing of Windows. Thread: any; there is no state.
 */
#ifndef DEVHOST_UNWIND_H
#define DEVHOST_UNWIND_H

#include "kernel_image.h"

static constexpr unsigned UNWIND_RSP = 4u;

struct unwind_registers {
    uint64_t general[16] = {}; /* by their number in instructions: Rsp is UNWIND_RSP */
    uint64_t rip = 0;
    uint32_t known = 0; /* bit n: general[n] is known */
    /* Rip is a return address: the call before it counts. Else it was interrupted there. */
    bool returns = false;
};

/* The saved part of a stack. Borrowed. */
struct unwind_stack {
    uint64_t start; /* address of the first byte; the end does not wrap */
    const uint8_t *bytes;
    uint64_t size;

    /* Reads 8 bytes. Result: false: they were not saved. */
    bool read(uint64_t address, uint64_t *value) const;
};

/*
 * Replaces the registers of a frame by those of its caller.
 *
 * base        Where the image is loaded; Rip lies inside.
 * registers   Rsp is known. Unchanged on failure.
 *
 * Result      NULL, or why the frame cannot be unwound: half a sentence.
 */
[[nodiscard]] const char *unwind_step(const kernel_image &image, uint64_t base,
                                      const unwind_stack &stack, unwind_registers *registers);

#endif

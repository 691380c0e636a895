/* A library whose functions have frames of every form that unwind codes describe. No test calls them
 * but by their addresses. The compiler's own functions, which every library contains, add to them. */
#include <cstddef>

/* Directives cannot write two entries of one function, version 2, and the frame of an interrupt with an
 * error code, so their tables are written out. */
asm(R"(
    .macro exported name
    .globl \name
\name:
    .section .drectve
    .ascii " -export:\name"
    .text
    .endm
    .macro function name
    .def \name; .scl 2; .type 32; .endef
    .seh_proc \name
    exported \name
    .endm
    .macro push_saved register
    pushq %\register
    .seh_pushreg %\register
    .endm
    .macro allocate bytes
    subq $\bytes, %rsp
    .seh_stackalloc \bytes
    .endm
    .macro save instruction, register, bytes
    \instruction %\register, \bytes(%rsp)
    .ifc \instruction, movaps
    .seh_savexmm %\register, \bytes
    .else
    .seh_savereg %\register, \bytes
    .endif
    .endm

    .text
    exported unwind_leaf
    leal 1(%rcx), %eax
    ret

    function unwind_saves
    push_saved rbp
    push_saved r12
    allocate 0x98
    leaq 0x40(%rsp), %rbp
    .seh_setframe %rbp, 0x40
    save movq, rbx, 0x50
    save movq, r14, 0x58
    save movaps, xmm6, 0x60
    .seh_endprologue
    subq $0x20, %rsp
    nop
    movaps 0x20(%rbp), %xmm6
    movq 0x18(%rbp), %r14
    movq 0x10(%rbp), %rbx
    leaq 0x58(%rbp), %rsp
    popq %r12
    popq %rbp
    ret
    .seh_endproc

    function unwind_large
    push_saved rdi
    allocate 0x90000
    save movq, rsi, 0x80010
    save movaps, xmm7, 0x80020
    .seh_endprologue
    nop
    movaps 0x80020(%rsp), %xmm7
    movq 0x80010(%rsp), %rsi
    addq $0x90000, %rsp
    popq %rdi
    ret $8
    .seh_endproc

    function unwind_trap
    .seh_pushframe
    allocate 0x28
    .seh_endprologue
    nop
    nop
    addq $0x28, %rsp
    iretq
    .seh_endproc

    function unwind_tail_call
    push_saved rbx
    allocate 0x30
    .seh_endprologue
    nop
    addq $0x30, %rsp
    popq %rbx
    jmp unwind_large
    .seh_endproc

    exported unwind_parent
    pushq %rsi
unwind_parent_1:
    subq $0x30, %rsp
unwind_parent_2:
    jmp unwind_part
unwind_parent_back:
    addq $0x30, %rsp
    popq %rsi
    ret
unwind_parent_end:
    nop
    exported unwind_part
    movq %rdi, 0x20(%rsp)
unwind_part_1:
    nop
    nop
    movq 0x20(%rsp), %rdi
    jmp unwind_parent_back
unwind_part_end:
    nop
    exported unwind_second
    pushq %r15
unwind_second_1:
    subq $0x40, %rsp
unwind_second_2:
    testq %rcx, %rcx
    je 1f
    addq $0x40, %rsp
unwind_second_out:
    popq %r15
    ret
unwind_second_out_end:
    jmp unwind_large
1:  nop
    addq $0x40, %rsp
    popq %r15
    ret
unwind_second_end:
    nop
    exported unwind_interrupt
    pushq %rbx
unwind_interrupt_1:
    nop
    nop
    popq %rbx
    addq $8, %rsp
    iretq
unwind_interrupt_end:
    nop

    .section .xdata, "dr"
    .balign 4
unwind_parent_info:
    .byte 1, unwind_parent_2 - unwind_parent, 2, 0
    .byte unwind_parent_2 - unwind_parent, 0x52
    .byte unwind_parent_1 - unwind_parent, 0x60
unwind_part_info:
    .byte 0x21, unwind_part_1 - unwind_part, 2, 0
    .byte unwind_part_1 - unwind_part, 0x74
    .short 4
    .rva unwind_parent, unwind_parent_end, unwind_parent_info
unwind_second_info:
    .byte 2, unwind_second_2 - unwind_second, 4, 0
    .byte unwind_second_out_end - unwind_second_out, 0x16
    .byte unwind_second_end - unwind_second_out, 0x06
    .byte unwind_second_2 - unwind_second, 0x72
    .byte unwind_second_1 - unwind_second, 0xF0

unwind_interrupt_info:
    .byte 1, unwind_interrupt_1 - unwind_interrupt, 2, 0
    .byte unwind_interrupt_1 - unwind_interrupt, 0x30
    .byte 0, 0x1A

    .section .pdata, "dr"
    .rva unwind_parent, unwind_parent_end, unwind_parent_info
    .rva unwind_part, unwind_part_end, unwind_part_info
    .rva unwind_second, unwind_second_end, unwind_second_info
    .rva unwind_interrupt, unwind_interrupt_end, unwind_interrupt_info
    .text
)");

extern "C" {
__declspec(dllexport) size_t unwind_compiled(size_t count, size_t (*next)(char *, size_t));
}

/* A frame of a size that is not known before, so with a frame register. */
extern "C" size_t unwind_compiled(size_t count, size_t (*next)(char *, size_t))
{
    char *area = static_cast<char *>(__builtin_alloca(count));
    const size_t inside = next(area, count);

    return next(area, inside) + count;
}

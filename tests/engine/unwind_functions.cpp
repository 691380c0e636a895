/* A library whose functions have frames of every form that unwind codes describe. No test calls them
 * but by their addresses. The compiler's own functions, which every library contains, add to them. */
#include <cstddef>

/* Directives cannot write two entries of one function, version 2, and the frame of an interrupt with an
 * error code, so their tables are written out. */
asm(R"(
    .text
    .globl unwind_leaf
unwind_leaf:
    leal 1(%rcx), %eax
    ret

    .globl unwind_saves
    .def unwind_saves; .scl 2; .type 32; .endef
    .seh_proc unwind_saves
unwind_saves:
    pushq %rbp
    .seh_pushreg %rbp
    pushq %r12
    .seh_pushreg %r12
    subq $0x98, %rsp
    .seh_stackalloc 0x98
    leaq 0x40(%rsp), %rbp
    .seh_setframe %rbp, 0x40
    movq %rbx, 0x50(%rsp)
    .seh_savereg %rbx, 0x50
    movq %r14, 0x58(%rsp)
    .seh_savereg %r14, 0x58
    movaps %xmm6, 0x60(%rsp)
    .seh_savexmm %xmm6, 0x60
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

    .globl unwind_large
    .def unwind_large; .scl 2; .type 32; .endef
    .seh_proc unwind_large
unwind_large:
    pushq %rdi
    .seh_pushreg %rdi
    subq $0x90000, %rsp
    .seh_stackalloc 0x90000
    movq %rsi, 0x80010(%rsp)
    .seh_savereg %rsi, 0x80010
    movaps %xmm7, 0x80020(%rsp)
    .seh_savexmm %xmm7, 0x80020
    .seh_endprologue
    nop
    movaps 0x80020(%rsp), %xmm7
    movq 0x80010(%rsp), %rsi
    addq $0x90000, %rsp
    popq %rdi
    ret $8
    .seh_endproc

    .globl unwind_trap
    .def unwind_trap; .scl 2; .type 32; .endef
    .seh_proc unwind_trap
unwind_trap:
    .seh_pushframe
    subq $0x28, %rsp
    .seh_stackalloc 0x28
    .seh_endprologue
    nop
    nop
    addq $0x28, %rsp
    iretq
    .seh_endproc

    .globl unwind_tail_call
    .def unwind_tail_call; .scl 2; .type 32; .endef
    .seh_proc unwind_tail_call
unwind_tail_call:
    pushq %rbx
    .seh_pushreg %rbx
    subq $0x30, %rsp
    .seh_stackalloc 0x30
    .seh_endprologue
    nop
    addq $0x30, %rsp
    popq %rbx
    jmp unwind_large
    .seh_endproc

    .globl unwind_parent
unwind_parent:
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
    .globl unwind_part
unwind_part:
    movq %rdi, 0x20(%rsp)
unwind_part_1:
    nop
    nop
    movq 0x20(%rsp), %rdi
    jmp unwind_parent_back
unwind_part_end:
    nop
    .globl unwind_second
unwind_second:
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
    .globl unwind_interrupt
unwind_interrupt:
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
    .section .drectve
    .ascii " -export:unwind_leaf -export:unwind_saves -export:unwind_large -export:unwind_interrupt"
    .ascii " -export:unwind_trap -export:unwind_tail_call -export:unwind_parent -export:unwind_part"
    .ascii " -export:unwind_second"
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

// Forwarding stubs for the Windows x64 calling convention: the first four arguments in rcx, rdx,
// r8, r9 or, for floating-point ones, xmm0-xmm3; 32 bytes of home space above the return address
// and the further arguments above it; results in rax or xmm0. The body keeps to the volatile
// registers and describes its frame for the unwinder.
//
// Each stub learns its own number from its address and jumps to one common body, which saves the
// argument registers, copies kForwardedStackWords stack words into a fresh outgoing area, asks the
// `before` handler where to go, restores every argument register, calls there, keeps the result
// registers across the `after` handler and returns them.
#include "platform/forwarding.h"

#include <cstring>

#if defined(__x86_64__)

namespace {

// The common body's frame, at its stack pointer (offsets fixed by the assembly below).
struct Frame {
    uint64_t home[4];                                                   //   0: the callee's home space
    uint64_t outgoing[kv::platform::kForwardedStackWords];              //  32: the callee's stack arguments
    uint64_t integers[4];                                               // 160: rcx rdx r8 r9
    uint64_t stub;                                                      // 192
    uint64_t pad;                                                       // 200
    uint64_t vectors[4][2];                                             // 208: xmm0-xmm3
    uint64_t stackCopy[kv::platform::kForwardedStackWords];             // 272: as the caller passed them
    uint64_t results[2];                                                // 400: rax after the call
    uint64_t vectorResults[1][2];                                       // 416: xmm0 after the call
    alignas(16) uint8_t scratch[kv::platform::kForwardingScratchBytes]; // 432: the handlers' own
};
static_assert(sizeof(Frame) == 688, "the assembly's frame layout");

} // namespace

extern "C" {

__attribute__((used)) void *kv_forwarding_before(uint64_t stub, Frame *frame) {
    return kv::platform::forwarding::runBefore<4, 4>(stub, *frame);
}

__attribute__((used)) void kv_forwarding_after(uint64_t stub, Frame *frame) {
    kv::platform::forwarding::runAfter<4, 4>(stub, *frame);
}

} // extern "C"

asm(R"(
    .text
    .p2align 4
    .globl kv_forwarding_stubs
kv_forwarding_stubs:
    .rept 4096
    .p2align 4
    lea 0(%rip), %r11
    jmp kv_forwarding_common
    .endr

    .p2align 4
    .seh_proc kv_forwarding_common
kv_forwarding_common:
    push %rbp
    .seh_pushreg %rbp
    mov %rsp, %rbp
    .seh_setframe %rbp, 0
    sub $688, %rsp
    .seh_stackalloc 688
    .seh_endprologue
    mov %rcx, 160(%rsp)
    mov %rdx, 168(%rsp)
    mov %r8, 176(%rsp)
    mov %r9, 184(%rsp)
    lea kv_forwarding_stubs(%rip), %r10
    sub %r10, %r11
    shr $4, %r11
    mov %r11, 192(%rsp)
    movdqu %xmm0, 208(%rsp)
    movdqu %xmm1, 224(%rsp)
    movdqu %xmm2, 240(%rsp)
    movdqu %xmm3, 256(%rsp)
    xor %ecx, %ecx
1:
    mov 48(%rbp,%rcx,8), %rax
    mov %rax, 32(%rsp,%rcx,8)
    mov %rax, 272(%rsp,%rcx,8)
    inc %ecx
    cmp $16, %ecx
    jb 1b
    mov 192(%rsp), %rcx
    mov %rsp, %rdx
    call kv_forwarding_before
    test %rax, %rax
    jnz 2f
    movq $0, 400(%rsp)
    pxor %xmm0, %xmm0
    movdqu %xmm0, 416(%rsp)
    jmp 3f
2:
    mov %rax, %r10
    movdqu 208(%rsp), %xmm0
    movdqu 224(%rsp), %xmm1
    movdqu 240(%rsp), %xmm2
    movdqu 256(%rsp), %xmm3
    mov 160(%rsp), %rcx
    mov 168(%rsp), %rdx
    mov 176(%rsp), %r8
    mov 184(%rsp), %r9
    call *%r10
    mov %rax, 400(%rsp)
    movdqu %xmm0, 416(%rsp)
    mov 192(%rsp), %rcx
    mov %rsp, %rdx
    call kv_forwarding_after
3:
    mov 400(%rsp), %rax
    movdqu 416(%rsp), %xmm0
    lea 0(%rbp), %rsp
    pop %rbp
    ret
    .seh_endproc
)");

#endif

// Forwarding stubs for the System V x86-64 calling convention: integer arguments in rdi, rsi, rdx,
// rcx, r8, r9, floating-point arguments in xmm0-xmm7, al holding the vector register count of a
// variadic call, the rest on the stack above the return address; results in rax:rdx and
// xmm0:xmm1.
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
    uint64_t outgoing[kv::platform::kForwardedStackWords];              //   0: the callee's stack arguments
    uint64_t integers[6];                                               // 128: rdi rsi rdx rcx r8 r9
    uint64_t rax;                                                       // 176
    uint64_t stub;                                                      // 184
    uint64_t vectors[8][2];                                             // 192: xmm0-xmm7
    uint64_t stackCopy[kv::platform::kForwardedStackWords];             // 320: as the caller passed them
    uint64_t results[2];                                                // 448: rax rdx after the call
    uint64_t vectorResults[2][2];                                       // 464: xmm0 xmm1 after the call
    alignas(16) uint8_t scratch[kv::platform::kForwardingScratchBytes]; // 496: the handlers' own
};
static_assert(sizeof(Frame) == 752, "the assembly's frame layout");

} // namespace

extern "C" {

__attribute__((visibility("hidden"), used)) void *kv_forwarding_before(uint64_t stub, Frame *frame) {
    return kv::platform::forwarding::runBefore<6, 8>(stub, *frame);
}

__attribute__((visibility("hidden"), used)) void kv_forwarding_after(uint64_t stub, Frame *frame) {
    kv::platform::forwarding::runAfter<6, 8>(stub, *frame);
}

} // extern "C"

asm(R"(
    .text
    .p2align 4
    .globl kv_forwarding_stubs
    .hidden kv_forwarding_stubs
kv_forwarding_stubs:
    .rept 4096
    .p2align 4
    lea 0(%rip), %r11
    jmp kv_forwarding_common
    .endr

    .p2align 4
    .type kv_forwarding_common, @function
kv_forwarding_common:
    .cfi_startproc
    push %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    mov %rsp, %rbp
    .cfi_def_cfa_register %rbp
    sub $752, %rsp
    mov %rdi, 128(%rsp)
    mov %rsi, 136(%rsp)
    mov %rdx, 144(%rsp)
    mov %rcx, 152(%rsp)
    mov %r8, 160(%rsp)
    mov %r9, 168(%rsp)
    mov %rax, 176(%rsp)
    lea kv_forwarding_stubs(%rip), %r10
    sub %r10, %r11
    shr $4, %r11
    mov %r11, 184(%rsp)
    movdqu %xmm0, 192(%rsp)
    movdqu %xmm1, 208(%rsp)
    movdqu %xmm2, 224(%rsp)
    movdqu %xmm3, 240(%rsp)
    movdqu %xmm4, 256(%rsp)
    movdqu %xmm5, 272(%rsp)
    movdqu %xmm6, 288(%rsp)
    movdqu %xmm7, 304(%rsp)
    xor %ecx, %ecx
1:
    mov 16(%rbp,%rcx,8), %rax
    mov %rax, (%rsp,%rcx,8)
    mov %rax, 320(%rsp,%rcx,8)
    inc %ecx
    cmp $16, %ecx
    jb 1b
    mov 184(%rsp), %rdi
    mov %rsp, %rsi
    call kv_forwarding_before
    test %rax, %rax
    jnz 2f
    movq $0, 448(%rsp)
    movq $0, 456(%rsp)
    pxor %xmm0, %xmm0
    movdqu %xmm0, 464(%rsp)
    movdqu %xmm0, 480(%rsp)
    jmp 3f
2:
    mov %rax, %r10
    movdqu 192(%rsp), %xmm0
    movdqu 208(%rsp), %xmm1
    movdqu 224(%rsp), %xmm2
    movdqu 240(%rsp), %xmm3
    movdqu 256(%rsp), %xmm4
    movdqu 272(%rsp), %xmm5
    movdqu 288(%rsp), %xmm6
    movdqu 304(%rsp), %xmm7
    mov 128(%rsp), %rdi
    mov 136(%rsp), %rsi
    mov 144(%rsp), %rdx
    mov 152(%rsp), %rcx
    mov 160(%rsp), %r8
    mov 168(%rsp), %r9
    mov 176(%rsp), %rax
    call *%r10
    mov %rax, 448(%rsp)
    mov %rdx, 456(%rsp)
    movdqu %xmm0, 464(%rsp)
    movdqu %xmm1, 480(%rsp)
    mov 184(%rsp), %rdi
    mov %rsp, %rsi
    call kv_forwarding_after
3:
    mov 448(%rsp), %rax
    mov 456(%rsp), %rdx
    movdqu 464(%rsp), %xmm0
    movdqu 480(%rsp), %xmm1
    leave
    .cfi_def_cfa %rsp, 8
    ret
    .cfi_endproc
    .size kv_forwarding_common, .-kv_forwarding_common
)");

#endif

// Where a call returns to when its thread is to end.
//
// A request to end cannot be met in the middle of a call. So the return address of the call is
// replaced by one of the places below, of which each diverted call has its own. There the
// address is put back, and with it the stack is as it was in the call: StdThreadRun can end the
// thread as if the call had thrown, or let it go on with what the call has returned.
//
// An exception that leaves the call, a traceback or a debugger comes by before the call has
// returned, and must find the true return address. Each place is preceded by the distance from
// there to its element of divertedFrom; the unwind information computes the address from it.
// The unwinder tells frames apart by their ends, and this one has none of its own: it is marked
// as that of a signal, which the unwinder lets lie one byte lower. The frame behind such a one is
// taken to be at an instruction, not behind a call, so the address is given less one.

#define COUNT 256 /* diversionCount */

        .text
        .p2align 4
        .globl  divertedReturns
        .hidden divertedReturns
        .type   divertedReturns, @function
divertedReturns:
        .cfi_startproc
        .cfi_signal_frame
        .set    i, 0
        .rept   COUNT
        // As seen from the call: no frame at all, and the return address is
        // *(p + *(unsigned int*)p), with p = this address - 4, and less one.
        .cfi_remember_state
        .cfi_def_cfa %rsp, 0
        // DW_CFA_val_expression 16, 9 bytes: breg16 -4; dup; deref_size 4; plus; deref; lit1; minus
        .cfi_escape 0x16, 0x10, 0x09, 0x80, 0x7c, 0x12, 0x94, 0x04, 0x22, 0x06, 0x31, 0x1c
        .long   divertedFrom + 8 * i - .
        pushq   divertedFrom + 8 * i(%rip)
        .cfi_restore_state
        jmp     callReturned
        .p2align 4
        .set    i, i + 1
        .endr
        .cfi_endproc
        .size   divertedReturns, .-divertedReturns

// The true return address is on the stack: as at the start of a function that the call's caller
// has called. What a call may return in registers is kept, but for the upper halves of vectors
// wider than 16 bytes.
        .type   callReturned, @function
callReturned:
        .cfi_startproc
        pushq   %rbp
        .cfi_def_cfa_offset 16
        .cfi_offset %rbp, -16
        movq    %rsp, %rbp
        .cfi_def_cfa_register %rbp
        pushq   %rax
        pushq   %rdx
        subq    $512, %rsp
        fxsave64 (%rsp)
        movq    %rax, %rdi
        call    divertedCallReturned
        fxrstor64 (%rsp)
        addq    $512, %rsp
        popq    %rdx
        popq    %rax
        popq    %rbp
        .cfi_def_cfa %rsp, 8
        ret
        .cfi_endproc
        .size   callReturned, .-callReturned
        .globl  divertedReturnsEnd
        .hidden divertedReturnsEnd
divertedReturnsEnd:

        .hidden divertedCallReturned

        .bss
        .p2align 3
        .globl  divertedFrom
        .hidden divertedFrom
        .type   divertedFrom, @object
        .size   divertedFrom, 8 * COUNT
divertedFrom:
        .zero   8 * COUNT

        .section .note.GNU-stack, "", @progbits

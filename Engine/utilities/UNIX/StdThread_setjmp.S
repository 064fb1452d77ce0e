// int StdThread::_setjmp()
//
// A recovery point must be recorded in the frame of whoever arms it, and a function that
// has returned has no frame. So this one makes none: it arms the flag and goes on, with the
// caller's stack and registers as they are, in the C library's _setjmp.

        .text
        .globl  _ZN9StdThread7_setjmpEv
        .type   _ZN9StdThread7_setjmpEv, @function
        .hidden _ZN9StdThread20recoveryPointOffset_E
        .hidden _ZN9StdThread20recoveryArmedOffset_E
        .p2align 4
_ZN9StdThread7_setjmpEv:
        .cfi_startproc
        endbr64
        movq    _ZN9StdThread20recoveryArmedOffset_E(%rip), %rax
        movb    $1, (%rdi,%rax)
        addq    _ZN9StdThread20recoveryPointOffset_E(%rip), %rdi
        jmp     *_setjmp@GOTPCREL(%rip)
        .cfi_endproc
        .size   _ZN9StdThread7_setjmpEv, .-_ZN9StdThread7_setjmpEv

        .section .note.GNU-stack, "", @progbits

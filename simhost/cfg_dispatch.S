// The checking dispatch and check that guarded modules are pointed at (see
// guarded_library.h). Guarded code calls the dispatch with the target in
// rax and the call's arguments in place; the check gets the target in rcx.
// The check keeps every argument register (rcx, rdx, r8, r9, xmm0-xmm5) and
// rax across the C++ checker; the dispatch runs the check on rax, then jumps
// to the target.

        .text

        .globl  pcp_sim_guard_dispatch
        .def    pcp_sim_guard_dispatch; .scl 2; .type 32; .endef
        .p2align 4
        .seh_proc pcp_sim_guard_dispatch
pcp_sim_guard_dispatch:
        pushq   %rcx
        .seh_pushreg %rcx
        .seh_endprologue
        movq    %rax, %rcx
        call    pcp_sim_guard_check
        popq    %rcx
        jmp     *%rax
        .seh_endproc

        .globl  pcp_sim_guard_check
        .def    pcp_sim_guard_check; .scl 2; .type 32; .endef
        .p2align 4
        .seh_proc pcp_sim_guard_check
pcp_sim_guard_check:
        pushq   %rcx
        .seh_pushreg %rcx
        pushq   %rdx
        .seh_pushreg %rdx
        pushq   %r8
        .seh_pushreg %r8
        pushq   %r9
        .seh_pushreg %r9
        pushq   %rax
        .seh_pushreg %rax
        subq    $0x80, %rsp
        .seh_stackalloc 0x80
        .seh_endprologue
        movups  %xmm0, 0x20(%rsp)
        movups  %xmm1, 0x30(%rsp)
        movups  %xmm2, 0x40(%rsp)
        movups  %xmm3, 0x50(%rsp)
        movups  %xmm4, 0x60(%rsp)
        movups  %xmm5, 0x70(%rsp)
        call    pcp_sim_guard_check_target
        movups  0x20(%rsp), %xmm0
        movups  0x30(%rsp), %xmm1
        movups  0x40(%rsp), %xmm2
        movups  0x50(%rsp), %xmm3
        movups  0x60(%rsp), %xmm4
        movups  0x70(%rsp), %xmm5
        addq    $0x80, %rsp
        popq    %rax
        popq    %r9
        popq    %r8
        popq    %rdx
        popq    %rcx
        ret
        .seh_endproc

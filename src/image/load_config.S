// The DLL's load configuration record for Control Flow Guard. Code compiled
// with -mguard=cf makes every indirect call through __guard_dispatch_icall_fptr
// (the target in rax); lld, linking with --guard-cf, writes the table of valid
// call targets and the flags that the record below points at. The Windows
// loader reads the record and, in a process that enforces the guard, replaces
// both pointers with its own check; elsewhere the defaults below call the
// target unchecked. mingw-w64's runtime brings no such record, and GuardFlags
// must take lld's __guard_flags, which a C initialiser cannot express.

        .text
        .p2align 4
pcp_guard_check_icall_nop:
        ret

        .p2align 4
pcp_guard_dispatch_icall_nop:
        jmp     *%rax

// The two pointers the loader replaces, read-only once loaded.
        .section .00cfg,"dr"
        .p2align 3
        .globl  __guard_check_icall_fptr
__guard_check_icall_fptr:
        .quad   pcp_guard_check_icall_nop
        .globl  __guard_dispatch_icall_fptr
__guard_dispatch_icall_fptr:
        .quad   pcp_guard_dispatch_icall_nop

// IMAGE_LOAD_CONFIG_DIRECTORY64 as Windows 10 and later define it (0x140 bytes).
        .section .rdata,"dr"
        .p2align 3
        .globl  _load_config_used
_load_config_used:
        .long   0x140                           // Size
        .long   0                               // TimeDateStamp
        .short  0, 0                            // MajorVersion, MinorVersion
        .long   0, 0, 0                         // GlobalFlagsClear, GlobalFlagsSet, CriticalSectionDefaultTimeout
        .quad   0, 0, 0                         // DeCommitFreeBlockThreshold, DeCommitTotalFreeThreshold, LockPrefixTable
        .quad   0, 0, 0                         // MaximumAllocationSize, VirtualMemoryThreshold, ProcessAffinityMask
        .long   0                               // ProcessHeapFlags
        .short  0, 0                            // CSDVersion, DependentLoadFlags
        .quad   0                               // EditList
        .quad   0                               // SecurityCookie (the canary is libssp's)
        .quad   0, 0                            // SEHandlerTable, SEHandlerCount (x86 only)
        .quad   __guard_check_icall_fptr        // GuardCFCheckFunctionPointer
        .quad   __guard_dispatch_icall_fptr     // GuardCFDispatchFunctionPointer
        .quad   __guard_fids_table              // GuardCFFunctionTable
        .quad   __guard_fids_count              // GuardCFFunctionCount
        .long   __guard_flags                   // GuardFlags
        .short  0, 0                            // CodeIntegrity.Flags, .Catalog
        .long   0, 0                            // CodeIntegrity.CatalogOffset, .Reserved
        .quad   __guard_iat_table               // GuardAddressTakenIatEntryTable
        .quad   __guard_iat_count               // GuardAddressTakenIatEntryCount
        .quad   __guard_longjmp_table           // GuardLongJumpTargetTable
        .quad   __guard_longjmp_count           // GuardLongJumpTargetCount
        .quad   0, 0                            // DynamicValueRelocTable, CHPEMetadataPointer
        .quad   0, 0                            // GuardRFFailureRoutine, GuardRFFailureRoutineFunctionPointer
        .long   0                               // DynamicValueRelocTableOffset
        .short  0, 0                            // DynamicValueRelocTableSection, Reserved2
        .quad   0                               // GuardRFVerifyStackPointerFunctionPointer
        .long   0, 0                            // HotPatchTableOffset, Reserved3
        .quad   0, 0                            // EnclaveConfigurationPointer, VolatileMetadataPointer
        .quad   0, 0                            // GuardEHContinuationTable, GuardEHContinuationCount
        .quad   0, 0, 0                         // GuardXFGCheck-, GuardXFGDispatch-, GuardXFGTableDispatchFunctionPointer
        .quad   0, 0                            // CastGuardOsDeterminedFailureMode, GuardMemcpyFunctionPointer

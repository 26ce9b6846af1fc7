#include "os/Memory.h"

// The registers that string and memory routines leave their last data in:
// the vector registers and the caller-saved general registers. A function
// may overwrite all of them, so the compiler keeps nothing there across
// this call.

namespace os {

#if defined(__x86_64__)

namespace {

#define ORVANE_XMM_0_15                                                                         \
    "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", \
        "xmm11", "xmm12", "xmm13", "xmm14", "xmm15"

// Zeroes whole registers (the upper lanes too) when written with VEX or EVEX
// encodings; legacy SSE writes leave the upper lanes alone, so each width
// has its own routine.
[[gnu::target("avx512f")]] void zeroVectorsAvx512() {
    asm volatile(
        "vzeroall\n\t"
        "vpxord %%zmm16, %%zmm16, %%zmm16\n\tvpxord %%zmm17, %%zmm17, %%zmm17\n\t"
        "vpxord %%zmm18, %%zmm18, %%zmm18\n\tvpxord %%zmm19, %%zmm19, %%zmm19\n\t"
        "vpxord %%zmm20, %%zmm20, %%zmm20\n\tvpxord %%zmm21, %%zmm21, %%zmm21\n\t"
        "vpxord %%zmm22, %%zmm22, %%zmm22\n\tvpxord %%zmm23, %%zmm23, %%zmm23\n\t"
        "vpxord %%zmm24, %%zmm24, %%zmm24\n\tvpxord %%zmm25, %%zmm25, %%zmm25\n\t"
        "vpxord %%zmm26, %%zmm26, %%zmm26\n\tvpxord %%zmm27, %%zmm27, %%zmm27\n\t"
        "vpxord %%zmm28, %%zmm28, %%zmm28\n\tvpxord %%zmm29, %%zmm29, %%zmm29\n\t"
        "vpxord %%zmm30, %%zmm30, %%zmm30\n\tvpxord %%zmm31, %%zmm31, %%zmm31"
        :
        :
        : ORVANE_XMM_0_15, "xmm16", "xmm17", "xmm18", "xmm19", "xmm20", "xmm21", "xmm22", "xmm23",
          "xmm24", "xmm25", "xmm26", "xmm27", "xmm28", "xmm29", "xmm30", "xmm31");
}

[[gnu::target("avx")]] void zeroVectorsAvx() {
    asm volatile("vzeroall" : : : ORVANE_XMM_0_15);
}

void zeroVectorsSse() {
    asm volatile(
        "pxor %%xmm0, %%xmm0\n\tpxor %%xmm1, %%xmm1\n\tpxor %%xmm2, %%xmm2\n\t"
        "pxor %%xmm3, %%xmm3\n\tpxor %%xmm4, %%xmm4\n\tpxor %%xmm5, %%xmm5\n\t"
        "pxor %%xmm6, %%xmm6\n\tpxor %%xmm7, %%xmm7\n\tpxor %%xmm8, %%xmm8\n\t"
        "pxor %%xmm9, %%xmm9\n\tpxor %%xmm10, %%xmm10\n\tpxor %%xmm11, %%xmm11\n\t"
        "pxor %%xmm12, %%xmm12\n\tpxor %%xmm13, %%xmm13\n\tpxor %%xmm14, %%xmm14\n\t"
        "pxor %%xmm15, %%xmm15"
        :
        :
        : ORVANE_XMM_0_15);
}

#undef ORVANE_XMM_0_15

}  // namespace

void wipeRegisters() {
    if (__builtin_cpu_supports("avx512f")) {
        zeroVectorsAvx512();
    } else if (__builtin_cpu_supports("avx")) {
        zeroVectorsAvx();
    } else {
        zeroVectorsSse();
    }
    asm volatile(
        "xorl %%eax, %%eax\n\txorl %%ecx, %%ecx\n\txorl %%edx, %%edx\n\t"
        "xorl %%esi, %%esi\n\txorl %%edi, %%edi\n\txorl %%r8d, %%r8d\n\t"
        "xorl %%r9d, %%r9d\n\txorl %%r10d, %%r10d\n\txorl %%r11d, %%r11d"
        :
        :
        : "rax", "rcx", "rdx", "rsi", "rdi", "r8", "r9", "r10", "r11", "cc");
}

#elif defined(__aarch64__)

void wipeRegisters() {
    asm volatile(
        "movi v0.16b, #0\n\tmovi v1.16b, #0\n\tmovi v2.16b, #0\n\tmovi v3.16b, #0\n\t"
        "movi v4.16b, #0\n\tmovi v5.16b, #0\n\tmovi v6.16b, #0\n\tmovi v7.16b, #0\n\t"
        "movi v8.16b, #0\n\tmovi v9.16b, #0\n\tmovi v10.16b, #0\n\tmovi v11.16b, #0\n\t"
        "movi v12.16b, #0\n\tmovi v13.16b, #0\n\tmovi v14.16b, #0\n\tmovi v15.16b, #0\n\t"
        "movi v16.16b, #0\n\tmovi v17.16b, #0\n\tmovi v18.16b, #0\n\tmovi v19.16b, #0\n\t"
        "movi v20.16b, #0\n\tmovi v21.16b, #0\n\tmovi v22.16b, #0\n\tmovi v23.16b, #0\n\t"
        "movi v24.16b, #0\n\tmovi v25.16b, #0\n\tmovi v26.16b, #0\n\tmovi v27.16b, #0\n\t"
        "movi v28.16b, #0\n\tmovi v29.16b, #0\n\tmovi v30.16b, #0\n\tmovi v31.16b, #0\n\t"
        "mov x0, xzr\n\tmov x1, xzr\n\tmov x2, xzr\n\tmov x3, xzr\n\tmov x4, xzr\n\t"
        "mov x5, xzr\n\tmov x6, xzr\n\tmov x7, xzr\n\tmov x8, xzr\n\tmov x9, xzr\n\t"
        "mov x10, xzr\n\tmov x11, xzr\n\tmov x12, xzr\n\tmov x13, xzr\n\tmov x14, xzr\n\t"
        "mov x15, xzr\n\tmov x16, xzr\n\tmov x17, xzr"
        :
        :
        // The lower halves of v8-v15 belong to the caller: the compiler saves
        // and restores them around this, their upper halves are zeroed.
        : "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12", "v13",
          "v14", "v15", "v16", "v17", "v18", "v19", "v20",
          "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31", "x0", "x1",
          "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10", "x11", "x12", "x13", "x14", "x15",
          "x16", "x17");
}

#else

void wipeRegisters() {}

#endif

}  // namespace os

#pragma once
// Fatal assertions: a broken invariant stops the whole appliance in order. The
// failing thread halts the others, bypasses locks, prints the banner, records
// the reason (date, time and the assertion text) as the last reboot reason,
// generates diagnostics, flushes the disks unless this is a secondary failure
// met while generating diagnostics, and has the board restart the process.
// None of these functions returns.
#include <cstdint>
#include <string>

[[noreturn]] void reportUnaryAssertion(const char* file, int line, const char* function, const char* expression);
[[noreturn]] void reportPtrAssertion(const char* file, int line, const char* function, const char* leftText,
                                     uint32_t leftValue, const char* asserted, const char* op,
                                     const char* rightText, uint32_t rightValue);
[[noreturn]] void reportBinaryAssertion(const char* file, int line, const char* function, const char* leftText,
                                        uint64_t leftValue, const char* asserted, const char* op,
                                        const char* rightText, uint64_t rightValue);

// True when the board says this is a lab unit; read once, then cached.
bool InLabMode();

// The reboot-reason text an assertion records (for tests): 15 bytes of
// "%Y%m%d %H:%M " then the assertion text, at most 256 bytes in all.
std::string assertionRebootReason(const std::string& assertText);

// Services of higher layers that the assertion path calls; each layer sets its
// hook when it starts. Unset hooks are skipped.
struct AssertionHooks {
    static void (*flushAllDisksBypassQueue)();
    static void (*printGMTOffset)(std::string& out);
};

#define ESA_ASSERT(expr) \
    ((expr) ? (void)0 : reportUnaryAssertion(__FILE__, __LINE__, __func__, #expr))

// Pointer or 32-bit comparison: ESA_ASSERT_PTR(a, !=, nullptr)
#define ESA_ASSERT_PTR(left, op, right)                                                                     \
    (((left)op(right)) ? (void)0                                                                            \
                       : reportPtrAssertion(__FILE__, __LINE__, __func__, #left,                            \
                                            uint32_t(uintptr_t(left)), "asserted to be ", #op, #right,      \
                                            uint32_t(uintptr_t(right))))

// 64-bit comparison: ESA_ASSERT_OP(count, <=, limit)
#define ESA_ASSERT_OP(left, op, right)                                                                      \
    (((left)op(right)) ? (void)0                                                                            \
                       : reportBinaryAssertion(__FILE__, __LINE__, __func__, #left, uint64_t(left),         \
                                               "asserted to be ", #op, #right, uint64_t(right)))

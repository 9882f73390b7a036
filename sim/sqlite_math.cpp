// The math library functions that SQLite's SQL math functions (and its full-text search
// ranking) refer to. The sim's SQL uses none of them, so rather than load libm.so into
// every run for them, libkelsim.so carries these: any call stops the process with a
// message, never a wrong answer. (Built with -fno-builtin, so that these are plain
// functions of our own, hidden like the rest of the library.)
#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void unavailable(const char *name) {
    fprintf(stderr, "kelsim: the SQL math function %s is not available in the simulated farm\n", name);
    abort();
}

} // namespace

#define SIM_MATH_UNAVAILABLE_1(name)                                                                                   \
    extern "C" __attribute__((visibility("hidden"))) double name(double) {                                             \
        unavailable(#name);                                                                                            \
    }
#define SIM_MATH_UNAVAILABLE_2(name)                                                                                   \
    extern "C" __attribute__((visibility("hidden"))) double name(double, double) {                                     \
        unavailable(#name);                                                                                            \
    }

SIM_MATH_UNAVAILABLE_1(acos)
SIM_MATH_UNAVAILABLE_1(acosh)
SIM_MATH_UNAVAILABLE_1(asin)
SIM_MATH_UNAVAILABLE_1(asinh)
SIM_MATH_UNAVAILABLE_1(atan)
SIM_MATH_UNAVAILABLE_1(atanh)
SIM_MATH_UNAVAILABLE_1(cos)
SIM_MATH_UNAVAILABLE_1(cosh)
SIM_MATH_UNAVAILABLE_1(exp)
SIM_MATH_UNAVAILABLE_1(log)
SIM_MATH_UNAVAILABLE_1(sin)
SIM_MATH_UNAVAILABLE_1(sinh)
SIM_MATH_UNAVAILABLE_1(sqrt)
SIM_MATH_UNAVAILABLE_1(tan)
SIM_MATH_UNAVAILABLE_1(tanh)
SIM_MATH_UNAVAILABLE_1(trunc)
SIM_MATH_UNAVAILABLE_2(atan2)
SIM_MATH_UNAVAILABLE_2(fmod)
SIM_MATH_UNAVAILABLE_2(pow)

// One target under libFuzzer.

#include "targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    static const arvok::fuzz::Target *const target = arvok::fuzz::find_target(FUZZ_TARGET);
    target->run({bytes, size});
    return 0;
}

// The libFuzzer entry of one harness; QUORVANE_FUZZ_TARGET names its function.
#include "targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return QUORVANE_FUZZ_TARGET(data, size);
}

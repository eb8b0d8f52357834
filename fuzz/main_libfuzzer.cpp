// SPDX-License-Identifier: MIT
#include "fuzz/environment.h"
#include "fuzz/target.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

FuzzEnvironment *environment = nullptr;
FuzzFunction target = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    environment = new FuzzEnvironment(*argc, *argv);
    std::atexit([] { delete environment; }); // the fuzzer's main() ends with exit()
    target = fuzzTarget({});
    return target ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    // A copy, so that the sanitizer notices reading beyond its end.
    target(QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size)));
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// Reads any bytes as an archive; what is read can be written, and read again as the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "tests/common/ArchiveSamples.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvane::archive;
  const auto object = read({bytes, size}, test::classes);
  if (!object) {
    return 0;
  }
  const auto written = test::archived(*object);
  // The archive may have had fewer classes in its table, so that written it is too long.
  if (!written) {
    return 0;
  }
  const auto again = read(*written, test::classes);
  if (!again || !(*again == *object)) {
    std::abort();
  }
  return 0;
}

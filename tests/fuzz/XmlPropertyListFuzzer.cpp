// SPDX-License-Identifier: Apache-2.0
// Reads any bytes as a property list in the XML format.
#include <cstddef>
#include <cstdint>

#include "platform/common/PropertyListReaders.h"
#include "tests/fuzz/PropertyListChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  kelvane::fuzz::checkResult(kelvane::propertyList::readXml({reinterpret_cast<const char*>(bytes), size}));
  return 0;
}

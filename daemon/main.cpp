// SPDX-License-Identifier: Apache-2.0
// kelvaned, the disk-space reclamation broker.
#include "daemon/Arguments.h"
#include "daemon/StartUp.h"
#include "platform/Process.h"

int main(int argc, char** argv) {
  kelvane::holdStandardDescriptors();
  kelvane::outliveFileSizeLimit();
  if (const auto status = kelvane::answerArguments(argc, argv)) {
    return *status;
  }
  kelvane::runDaemon();
}

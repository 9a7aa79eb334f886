// SPDX-License-Identifier: Apache-2.0
// kelvaned, the disk-space reclamation broker.
#include "daemon/StartUp.h"

int main() {
  kelvane::runDaemon();
}

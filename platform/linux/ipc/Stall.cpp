// SPDX-License-Identifier: Apache-2.0
// How long a peer has taken nothing off its socket.
#include "platform/linux/ipc/Stall.h"

namespace kelvane::ipc {

bool Stall::isTooLong(Time now, const Look& look) {
  if (look != last_ || look.untaken == 0) {
    last_ = look;
    since_ = now;
  }
  return now - since_ >= most_;
}

}  // namespace kelvane::ipc

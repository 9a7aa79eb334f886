// SPDX-License-Identifier: Apache-2.0
// Reaching a service from its record.
#include "support/CallService.h"

#include <atomic>

namespace kelvane {

namespace {

/// Lets the first of completion and failure through and nothing after it.
class Call {
 public:
  explicit Call(Block error) : error_(std::move(error)) {}

  void complete() { settled_ = true; }
  void fail() {
    if (!settled_.exchange(true)) {
      error_();
    }
  }

 private:
  std::atomic<bool> settled_ = false;
  const Block error_;
};

}  // namespace

void CallServiceAsync(const std::shared_ptr<KLService>& service, WorkBlock work, Block error,
                      ipc::Proxy::Wanted wanted) {
  auto call = std::make_shared<Call>(std::move(error));
  service->call_queue().async([service, work = std::move(work), call = std::move(call), wanted = std::move(wanted)] {
    const KelvaneServiceProxy proxy(service->connectionForCall().remoteProxy(
        [call](const std::optional<ipc::CallError>&) { call->fail(); }, wanted));
    work(proxy, [call] { call->complete(); });
  });
}

void CallService(const std::shared_ptr<KLService>& service, WorkBlock work, Block error) {
  CallServiceAsync(service, std::move(work), std::move(error));
}

}  // namespace kelvane

// SPDX-License-Identifier: Apache-2.0
// The handlers that the process has registered for activities and event streams.
#include "platform/linux/system/Handlers.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform/Process.h"
#include "platform/linux/volumes/VolumeMonitor.h"

namespace kelvane {

namespace handlers {

namespace {

/// Handlers by name, each with something whose async() submits their calls.
template <typename Argument, typename Queue>
class Table {
 public:
  using Handler = std::function<void(const Argument&)>;

  /// A later handler of the same name takes the place of an earlier one.
  void add(const std::string& name, Handler handler) {
    const std::lock_guard lock(mutex_);
    const auto [found, isNew] = entries_.try_emplace(name, Entry{Queue(name), handler});
    if (!isNew) {
      found->second.handler = std::move(handler);
    }
  }

  bool call(const std::string& name, Argument argument, Finished finished) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(name);
    if (found == entries_.end()) {
      return false;
    }
    found->second.queue.async(
        [handler = found->second.handler, argument = std::move(argument), finished = std::move(finished)] {
          handler(argument);
          finished();
        });
    return true;
  }

  bool isEmpty() {
    const std::lock_guard lock(mutex_);
    return entries_.empty();
  }

 private:
  struct Entry {
    Queue queue;
    Handler handler;
  };
  std::mutex mutex_;
  // Guarded by mutex_:
  std::map<std::string, Entry> entries_;
};

struct GlobalQueue {
  explicit GlobalQueue(const std::string&) {}
  void async(Block item) const { globalQueue::async(std::move(item)); }
};

using Activities = Table<Activity, SerialQueue>;
using EventStreams = Table<Value, GlobalQueue>;

// Never destroyed: threads of the pool may use them until the process ends.
Activities& activities() {
  static auto* const table = new Activities;
  return *table;
}

EventStreams& eventStreams() {
  static auto* const table = new EventStreams;
  return *table;
}

}  // namespace

bool runActivity(const std::string& name, Finished finished) {
  return activities().call(name, Activity{name, ActivityState::Run}, std::move(finished));
}

bool postEvent(const std::string& stream, const Value& event, Finished finished) {
  return eventStreams().call(stream, event, std::move(finished));
}

bool any() {
  return !activities().isEmpty() || !eventStreams().isEmpty();
}

}  // namespace handlers

void registerActivity(const std::string& name, std::function<void(const Activity&)> handler) {
  handlers::activities().add(name, std::move(handler));
  handlers::activities().call(name, Activity{name, ActivityState::CheckIn}, [] {});
}

void setEventStreamHandler(const std::string& stream, std::function<void(const Value&)> handler) {
  if (stream == LowDiskEvents::stream) {
    handler = VolumeMonitor::shared().events().attend(std::move(handler));
  }
  handlers::eventStreams().add(stream, std::move(handler));
}

}  // namespace kelvane

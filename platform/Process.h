// SPDX-License-Identifier: Apache-2.0
// The process and its service manager: life time, activities, event streams, notifications.
#pragma once

#include <functional>
#include <string>

#include "platform/Queues.h"
#include "platform/Value.h"

namespace kelvane {

/// Tells the service manager, while it lives, that the process is busy and must not be stopped as idle.
class Transaction {
 public:
  Transaction();
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
};

/// Has the service manager's status tell of this, in words on one line, beside what the process does; from now on and
/// in the place of what was to be told before.
void remarkInStatus(const std::string& remark);

enum class ActivityState { CheckIn = 0, Wait = 1, Run = 2 };

/// A scheduled background activity, as its handler is given it.
struct Activity {
  std::string name;
  ActivityState state;
};

/// Registers for the activity of this name, whose schedule the service manager holds. The handler is called
/// once with the check-in state right after, then with the run state whenever the activity is due, on the
/// global queue. It may block; the activity counts as running until it returns.
void registerActivity(const std::string& name, std::function<void(const Activity&)> handler);

/// Registers for a named stream of events. The handler is called on the global queue with each event's dictionary;
/// it may block, and several events may be handled at the same time.
void setEventStreamHandler(const std::string& stream, std::function<void(const Value&)> handler);

/// Tells the whole system that something happened. 0, or another status with errno set.
[[nodiscard]] int postNotification(const std::string& name);

/// Sees to it that the standard descriptors are taken: a connection that got the number of standard output or error
/// would be written to. Whatever was closed cannot be written to then. To be called before anything is opened.
void holdStandardDescriptors();
/// Has a write beyond the limit on a file's size fail, as any other may, instead of ending the process. A program that
/// the process executed would inherit that.
void outliveFileSizeLimit();

/// Has handler called for SIGTERM, on whichever thread the signal finds; it may do only what signal handlers may.
void installTerminationHandler(void (*handler)(int signal));
/// Has handler called on the main thread, in the main loop, whenever the process is asked to read its configuration
/// again (SIGHUP); for what it is asked while the handler runs, once more. The service manager is told of the beginning
/// and the end. To be called before there are other threads, for any of them might get the signal.
void setReloadHandler(std::function<void()> handler);
/// Ends the process at once with this status; nothing is flushed. Safe in a signal handler.
[[noreturn]] void exitImmediately(int status);

/// Has the service manager's watchdog fed by items that pass through the queue, so that a queue stuck for
/// good ends in a restart. Without a watchdog it does nothing.
void superviseQueue(const SerialQueue& queue);

/// A new random (version 4) UUID in its lower-case textual form.
std::string randomUuid();

}  // namespace kelvane

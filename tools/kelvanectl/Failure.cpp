// SPDX-License-Identifier: Apache-2.0
// Why a request got no answer, in words.
#include "tools/kelvanectl/Failure.h"

namespace kelvane::ctl {

std::string lacksEntitlement(std::string_view name) {
  return "you lack " + std::string(name) +
         "; root has it, or a rule in /etc/kelvane/entitlements.d gives it, after systemctl reload kelvaned";
}

namespace {

/// The name of an error of D-Bus's is of no use where the text has it all.
std::string withoutErrorName(const std::string& detail) {
  const std::size_t colon = detail.find(": ");
  const bool hasName = detail.starts_with("org.freedesktop.DBus.Error.") && colon != std::string::npos;
  return hasName ? detail.substr(colon + 2) : detail;
}

}  // namespace

std::string failureText(const RequestFailure& failure) {
  switch (failure.ending) {
    case Ending::Interrupted:
      return "interrupted";
    case Ending::NotAdmitted:
      return "the daemon closed the connection: " + lacksEntitlement("CLIENT_ENTITLEMENT");
    case Ending::NoDaemon:
      return "the daemon does not run (" + withoutErrorName(failure.detail) + "); see systemctl status kelvaned.socket";
    case Ending::ConnectionLost:
      return "the connection to the daemon was lost (" + withoutErrorName(failure.detail) +
             "); see journalctl -u kelvaned";
    case Ending::Failed:
      return "the daemon answered with an error: " + failure.detail;
    case Ending::Freed:
    case Ending::Short:
    case Ending::Refused:
    case Ending::NoVolume:
    case Ending::NoServices:
    case Ending::Declined:
      break;
  }
  return failure.detail;
}

}  // namespace kelvane::ctl

// SPDX-License-Identifier: Apache-2.0
// A program that serves the sample interface at the places its arguments say, "at PATH" or "named NAME", and
// answers every echo with that place. Ends when its input does.
#include <unistd.h>

#include <cstdio>
#include <string_view>
#include <vector>

#include "platform/linux/ipc/PrivateSockets.h"
#include "tests/linux/ipc/SampleInterface.h"

int main(int count, char** arguments) {
  using namespace kelvane;
  std::vector<ipc::Listener> listeners;
  for (int index = 1; index + 1 < count; index += 2) {
    const std::string place = arguments[index + 1];
    const auto handler = [place](const ipc::Request& request) { request.reply.send(Value(place)); };
    listeners.push_back(std::string_view(arguments[index]) == "at"
                            ? ipc::listenAt(place, 0600, test::sample::interface, handler)
                            : ipc::Listener::named(place, test::sample::interface, handler));
    if (const auto error = listeners.back().resume()) {
      std::fprintf(stderr, "%s\n", error->c_str());
      return 1;
    }
  }
  char ignored;
  while (read(STDIN_FILENO, &ignored, 1) > 0) {
  }
  // The process ends at once, with threads running.
  _exit(0);
}

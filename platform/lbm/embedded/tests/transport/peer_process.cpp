// Joins the domain "test" of the runtime directory given on the command line, offers the source "peer", subscribes to
// the source "ours", and stays until it is killed. What it does with them is the second argument:
// last-words  when "ours" sends something, publishes two messages and a request and tells so with a byte on standard
//             output;
// flood       publishes numbered messages for ever;
// fork        leaves a child behind that lives until standard input ends, tells so with a byte on standard output, and
//             takes no message any more.
#include <unistd.h>

#include <string_view>

#include "flood.h"
#include "member.h"

using namespace engine::transport;
using namespace engine::transport::host;

namespace {

[[noreturn]] void SayLastWords(Member& self, Publication& publication) {
  DrainUntil({&self}, "a message", [&] { return self.messages > 0; });
  for (const std::uint64_t request : {0U, 0U, 5U}) {
    Publish(*self.transport, publication, "last words", false, request);
  }
  while (::write(STDOUT_FILENO, "!", 1) == 1) {
    ::pause();
  }
  ::_exit(1);
}

[[noreturn]] void Flood(Member& self, Publication& publication) {
  for (std::uint32_t number = 0;; ++number) {
    self.transport->DrainMemory(self);
    while (Publish(*self.transport, publication, FloodMessage(number)) != SendResult::kSent) {
      self.events.clear();
      DrainUntil({&self}, "space", [&] { return self.Heard("writable"); });
    }
    if (number % 64 == 0) {
      self.Drain();
    }
  }
}

[[noreturn]] void Fork() {
  if (::fork() == 0) {
    char end = 0;
    ::_exit(::write(STDOUT_FILENO, "!", 1) == 1 && ::read(STDIN_FILENO, &end, 1) == 0 ? 0 : 1);
  }
  while (true) {
    ::pause();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  HostSettings settings;
  settings.runtimeDirectory = argv[1];
  settings.domain = "test";
  settings.contextName = "peer";
  settings.ringBytes = kFloodRingBytes;
  Member self(settings, false);
  const auto publication = self.transport->Advertise({"peer", Pacing::kReceiver});
  DrainUntil({&self}, "the other's source", [&] { return self.Heard("up ours"); });
  self.transport->Subscribe(*self.sources.at("ours"));
  const std::string_view what = argv[2];
  if (what == "fork") {
    Fork();
  }
  what == "flood" ? Flood(self, *publication) : SayLastWords(self, *publication);
}

#include "transport/nats/wire.h"

namespace engine::transport::nats::wire {

Bytes TakeBytes(Bytes& bytes, std::size_t size) {
  if (size > bytes.size()) {
    throw Fault("a message is shorter than it says");
  }
  const Bytes taken = bytes.first(size);
  bytes = bytes.subspan(size);
  return taken;
}

std::string_view TakeText(Bytes& bytes, std::size_t length) {
  if (length > kNameMax) {
    throw Fault("a name is longer than allowed");
  }
  const Bytes taken = TakeBytes(bytes, length);
  return {reinterpret_cast<const char*>(taken.data()), taken.size()};
}

Prologue TakePrologue(Bytes& bytes) {
  if (bytes.size() < sizeof(Prologue)) {
    throw Fault("it is not of this engine's protocol");
  }
  const auto prologue = Take<Prologue>(bytes);
  if (prologue.magic != kMagic) {
    throw Fault("it is not of this engine's protocol");
  }
  if (prologue.version != kVersion) {
    throw Fault("it is of version " + std::to_string(prologue.version) +
                " of the protocol and this context speaks version " + std::to_string(kVersion) +
                "; run the same release of the engine in every process");
  }
  return prologue;
}

std::vector<std::byte> Begin(Kind kind, std::uint64_t instance) {
  const Prologue prologue{.kind = kind, .instance = instance};
  const Bytes bytes = BytesOf(prologue);
  return {bytes.begin(), bytes.end()};
}

}  // namespace engine::transport::nats::wire

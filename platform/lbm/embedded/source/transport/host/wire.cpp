#include "transport/host/wire.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace engine::transport::host::wire {

namespace {

void Append(std::vector<std::byte>& out, Bytes bytes) {
  const std::size_t position = out.size();
  out.resize(position + bytes.size());
  std::copy(bytes.begin(), bytes.end(), out.begin() + static_cast<std::ptrdiff_t>(position));
}

void Append(std::vector<std::byte>& out, std::string_view text) { Append(out, std::as_bytes(std::span(text))); }

std::string_view TakeText(Bytes& bytes, std::size_t length) {
  if (length > kNameMax || length > bytes.size()) {
    throw Fault("a name runs past the end of its frame");
  }
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), length);
  bytes = bytes.subspan(length);
  return text;
}

}  // namespace

Type TypeOf(Bytes frame) { return Take<Type>(frame); }

std::string SessionText(std::uint64_t session) {
  std::array<char, 16> digits;
  return {digits.data(), std::to_chars(digits.begin(), digits.end(), session, 16).ptr};
}

std::vector<std::byte> EncodeHello(const Greeting& greeting) {
  Hello hello;
  hello.nameLength = static_cast<std::uint16_t>(greeting.name.size());
  hello.session = greeting.session;
  hello.process = greeting.process;
  std::vector<std::byte> frame;
  Append(frame, BytesOf(hello));
  Append(frame, greeting.name);
  return frame;
}

Greeting DecodeHello(Bytes frame) {
  const auto hello = Take<Hello>(frame);
  if (hello.type != Type::kHello || hello.magic != kMagic) {
    throw Fault("it does not speak this engine's protocol");
  }
  if (hello.version != kVersion) {
    throw Fault("it speaks version " + std::to_string(hello.version) + " of the protocol and this context version " +
                std::to_string(kVersion) + "; run the same release of the engine in every process");
  }
  Greeting greeting;
  greeting.session = hello.session;
  greeting.process = hello.process;
  greeting.name = TakeText(frame, hello.nameLength);
  if (!frame.empty()) {
    throw Fault("a frame is longer than its type");
  }
  return greeting;
}

bool AdvertiseBatch::Add(std::uint32_t source, std::string_view topic, std::string_view session) {
  if (m_frame.size() + sizeof(AdvertiseEntry) + topic.size() + session.size() > kAdvertisePacketMax) {
    return false;
  }
  AdvertiseEntry entry;
  entry.source = source;
  entry.topicLength = static_cast<std::uint16_t>(topic.size());
  entry.sessionLength = static_cast<std::uint16_t>(session.size());
  Append(m_frame, BytesOf(entry));
  Append(m_frame, topic);
  Append(m_frame, session);
  return true;
}

void AdvertiseBatch::Clear() {
  m_frame.clear();
  Append(m_frame, BytesOf(AdvertiseHeader{}));
}

void DecodeAdvertise(Bytes frame, const AdvertiseHandler& handler) {
  Take<AdvertiseHeader>(frame);
  while (!frame.empty()) {
    const auto entry = Take<AdvertiseEntry>(frame);
    const std::string_view topic = TakeText(frame, entry.topicLength);
    const std::string_view session = TakeText(frame, entry.sessionLength);
    handler(entry.source, topic, session);
  }
}

}  // namespace engine::transport::host::wire

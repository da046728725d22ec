#include "transport/host/wire.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace engine::transport::host::wire {

namespace {

void append(std::vector<std::byte>& out, Bytes bytes) {
  const std::size_t position = out.size();
  out.resize(position + bytes.size());
  std::copy(bytes.begin(), bytes.end(), out.begin() + static_cast<std::ptrdiff_t>(position));
}

void append(std::vector<std::byte>& out, std::string_view text) { append(out, std::as_bytes(std::span(text))); }

std::string_view takeText(Bytes& bytes, std::size_t length) {
  if (length > kNameMax || length > bytes.size()) {
    throw Fault("a name runs past the end of its frame");
  }
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), length);
  bytes = bytes.subspan(length);
  return text;
}

}  // namespace

Type typeOf(Bytes frame) { return take<Type>(frame); }

std::string sessionText(std::uint64_t session) {
  std::array<char, 16> digits;
  return {digits.data(), std::to_chars(digits.begin(), digits.end(), session, 16).ptr};
}

std::vector<std::byte> encodeHello(const Greeting& greeting) {
  Hello hello;
  hello.nameLength = static_cast<std::uint16_t>(greeting.name.size());
  hello.session = greeting.session;
  hello.process = greeting.process;
  std::vector<std::byte> frame;
  append(frame, bytesOf(hello));
  append(frame, greeting.name);
  return frame;
}

Greeting decodeHello(Bytes frame) {
  const auto hello = take<Hello>(frame);
  if (hello.type != Type::hello || hello.magic != kMagic) {
    throw Fault("it does not speak this engine's protocol");
  }
  if (hello.version != kVersion) {
    throw Fault("it speaks version " + std::to_string(hello.version) + " of the protocol and this context version " +
                std::to_string(kVersion) + "; run the same release of the engine in every process");
  }
  Greeting greeting;
  greeting.session = hello.session;
  greeting.process = hello.process;
  greeting.name = takeText(frame, hello.nameLength);
  if (!frame.empty()) {
    throw Fault("a frame is longer than its type");
  }
  return greeting;
}

bool AdvertiseBatch::add(std::uint32_t source, std::string_view topic, std::string_view session) {
  if (m_frame.size() + sizeof(AdvertiseEntry) + topic.size() + session.size() > kAdvertisePacketMax) {
    return false;
  }
  AdvertiseEntry entry;
  entry.source = source;
  entry.topicLength = static_cast<std::uint16_t>(topic.size());
  entry.sessionLength = static_cast<std::uint16_t>(session.size());
  append(m_frame, bytesOf(entry));
  append(m_frame, topic);
  append(m_frame, session);
  return true;
}

void AdvertiseBatch::clear() {
  m_frame.clear();
  append(m_frame, bytesOf(AdvertiseHeader{}));
}

void decodeAdvertise(Bytes frame, const AdvertiseHandler& handler) {
  take<AdvertiseHeader>(frame);
  while (!frame.empty()) {
    const auto entry = take<AdvertiseEntry>(frame);
    const std::string_view topic = takeText(frame, entry.topicLength);
    const std::string_view session = takeText(frame, entry.sessionLength);
    handler(entry.source, topic, session);
  }
}

}  // namespace engine::transport::host::wire

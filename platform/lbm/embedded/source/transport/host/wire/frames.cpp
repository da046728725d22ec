#include "transport/host/wire/frames.h"

#include <algorithm>

#include "transport/instance.h"

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

std::vector<std::byte> EncodeHello(const Greeting& greeting) {
  Hello hello;
  hello.nameLength = static_cast<std::uint16_t>(greeting.name.size());
  hello.instance = greeting.instance;
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
  greeting.instance = hello.instance;
  greeting.process = hello.process;
  greeting.name = TakeText(frame, hello.nameLength);
  if (!frame.empty()) {
    throw Fault("a frame is longer than its type");
  }
  return greeting;
}

std::string IdentityOf(const Greeting& greeting) {
  return "host:" + std::to_string(greeting.process) + '.' + InstanceText(greeting.instance);
}

std::string SourceSession(const std::string& context, std::uint32_t source) {
  return context + ':' + std::to_string(source);
}

void TopicBatch::Append(std::uint32_t source, std::string_view topic) {
  TopicHeader header;
  header.source = source;
  header.length = static_cast<std::uint16_t>(topic.size());
  wire::Append(m_packet, BytesOf(header));
  wire::Append(m_packet, topic);
}

void TopicBatch::Clear() {
  m_packet.clear();
  wire::Append(m_packet, BytesOf(TopicsHeader{m_type}));
}

void DecodeTopics(Bytes packet, const TopicHandler& handler) {
  Take<TopicsHeader>(packet);
  while (!packet.empty()) {
    const auto header = Take<TopicHeader>(packet);
    const std::string_view topic = TakeText(packet, header.length);
    handler(header.source, topic);
  }
}

}  // namespace engine::transport::host::wire

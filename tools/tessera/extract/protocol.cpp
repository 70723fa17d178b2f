#include "extract/protocol.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "extract/member_name.h"

namespace tool {

namespace {

class Writer {
 public:
  template <typename Integer>
  Writer& number(Integer value) {
    for (size_t i = 0; i < sizeof value; ++i) {
      bytes_ += static_cast<char>(static_cast<uint64_t>(value) >> (8 * i));
    }
    return *this;
  }
  Writer& string(std::string_view text) {
    number(static_cast<uint32_t>(text.size()));
    bytes_ += text;
    return *this;
  }
  Writer& raw(std::string_view bytes) {
    bytes_ += bytes;
    return *this;
  }
  std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  template <typename Integer>
  Integer number() {
    uint64_t value = 0;
    const std::string_view taken = raw(sizeof(Integer));
    for (size_t i = 0; i < taken.size(); ++i) {
      value |= uint64_t{static_cast<unsigned char>(taken[i])} << (8 * i);
    }
    return static_cast<Integer>(value);
  }
  std::string string() { return std::string(raw(number<uint32_t>())); }
  std::string_view raw(size_t length) {
    if (length > bytes_.size()) throw ProtocolError("frame too short");
    const std::string_view taken = bytes_.substr(0, length);
    bytes_.remove_prefix(length);
    return taken;
  }
  // An enumeration of `count` values from 0 on.
  template <typename Enum>
  Enum oneOf(unsigned count) {
    const auto value = number<uint8_t>();
    if (value >= count) throw ProtocolError("no such value");
    return static_cast<Enum>(value);
  }
  void end() const {
    if (!bytes_.empty()) throw ProtocolError("frame too long");
  }

 private:
  std::string_view bytes_;
};

constexpr unsigned kFrameTypes = 7;

// Sends all of `bytes`; the descriptor, if any, goes with the first.
bool sendAll(int socket, std::string_view bytes, int passed) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  while (!bytes.empty()) {
    iovec data = {const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (passed >= 0) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(header), &passed, sizeof passed);
    }
    const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
    passed = -1;
  }
  return true;
}

// Takes over descriptors that came with a message; only the last one is kept.
void takeDescriptors(msghdr* message, Descriptor* passed) {
  for (cmsghdr* header = CMSG_FIRSTHDR(message); header; header = CMSG_NXTHDR(message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    int descriptor;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    *passed = Descriptor(descriptor);
  }
}

// False when the other side is gone before the first byte.
bool receiveAll(int socket, char* bytes, size_t length, Descriptor* passed) {
  for (size_t done = 0; done < length;) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec data = {bytes + done, length - done};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (done == 0) return false;
      throw ProtocolError("cut off");
    }
    takeDescriptors(&message, passed);
    done += static_cast<size_t>(got);
  }
  return true;
}

}  // namespace

std::string encodeFrame(FrameType type, std::string_view payload) {
  return Writer()
      .number(static_cast<uint8_t>(type))
      .number(static_cast<uint32_t>(payload.size()))
      .raw(payload)
      .take();
}

FrameHeader decodeHeader(std::string_view bytes) {
  Reader reader(bytes);
  const auto type = reader.oneOf<FrameType>(kFrameTypes);
  const auto length = reader.number<uint32_t>();
  if (length > kMaximalPayload) throw ProtocolError("frame too long");
  return {type, length};
}

std::string encodeLimits(const Limits& limits) {
  return Writer()
      .number(limits.seconds)
      .number(limits.total_bytes)
      .number(limits.member_bytes)
      .number(limits.depth)
      .number(limits.members)
      .number(limits.ratio)
      .number(limits.memory_bytes)
      .take();
}

Limits decodeLimits(std::string_view payload) {
  Reader reader(payload);
  Limits limits;
  limits.seconds = reader.number<uint32_t>();
  limits.total_bytes = reader.number<uint64_t>();
  limits.member_bytes = reader.number<uint64_t>();
  limits.depth = reader.number<uint32_t>();
  limits.members = reader.number<uint32_t>();
  limits.ratio = reader.number<uint32_t>();
  limits.memory_bytes = reader.number<uint64_t>();
  reader.end();
  return limits;
}

std::string encodePart(const Part& part) {
  const auto* digest = reinterpret_cast<const char*>(part.sha256.data());
  return Writer()
      .string(part.name)
      .string(part.type)
      .string(part.encoding)
      .string(part.detail)
      .number(part.size)
      .raw({digest, part.sha256.size()})
      .number(static_cast<uint8_t>(part.form))
      .number(static_cast<uint8_t>(part.reason))
      .number(uint64_t{part.content.size()})
      .take();
}

PartHeader decodePart(std::string_view payload, const Limits& limits) {
  Reader reader(payload);
  PartHeader header;
  Part& part = header.part;
  part.name = printable(reader.string());
  part.type = printable(reader.string());
  part.encoding = printable(reader.string());
  part.detail = printable(reader.string());
  part.size = reader.number<uint64_t>();
  const std::string_view digest = reader.raw(part.sha256.size());
  std::copy(digest.begin(), digest.end(), part.sha256.begin());
  part.form = reader.oneOf<Form>(kForms);
  part.reason = reader.oneOf<Reason>(kReasons);
  header.content_bytes = reader.number<uint64_t>();
  reader.end();
  if (header.content_bytes > limits.total_bytes) throw ProtocolError("part too large");
  return header;
}

bool receiveFrame(int socket, FrameHeader* header, std::string* payload, Descriptor* passed) {
  std::array<char, kHeaderBytes> bytes;
  if (!receiveAll(socket, bytes.data(), bytes.size(), passed)) return false;
  *header = decodeHeader({bytes.data(), bytes.size()});
  payload->resize(header->length);
  if (!payload->empty() && !receiveAll(socket, payload->data(), payload->size(), passed)) {
    throw ProtocolError("cut off");
  }
  return true;
}

void sendFrame(int socket, FrameType type, std::string_view payload) {
  if (!sendAll(socket, encodeFrame(type, payload), -1)) throw ProtocolError("cut off");
}

bool sendDocument(int socket, std::string_view name, int file) {
  return sendAll(socket, encodeFrame(FrameType::kDocument, name), file);
}

}  // namespace tool

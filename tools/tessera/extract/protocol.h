// What the command and an extractor say to each other, over a stream socket:
//
//   command                               extractor
//   kLimits    limits                 ->
//                                     <-  kReady     how it is confined
//   kDocument  base name, descriptor  ->
//                                     <-  kBegin     name of the part worked on    } any
//                                     <-  kPart      a part, without its content   } number
//                                     <-  kContent   a piece of the last kPart     }
//                                     <-  kEnd       kDone or kNoMemory
//   kDocument ...
//
// A frame is its type (1 byte), the length of its payload (4 bytes, little-endian) and
// the payload; numbers are little-endian, a string is its length (4 bytes) and its
// bytes. The command trusts nothing that comes back: an extractor may have been taken
// over by a document. Every length is held to a limit before it is believed, and what
// does not fit is a ProtocolError, over which the extractor is ended.
// Tests: tests/tool/inspector_test.cpp.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "extract/descriptor.h"
#include "extract/limits.h"
#include "extract/part.h"

namespace tool {

enum class FrameType : uint8_t { kLimits, kReady, kDocument, kBegin, kPart, kContent, kEnd };
enum class EndStatus : uint8_t { kDone, kNoMemory };

inline constexpr uint32_t kMaximalPayload = 1 << 20;

class ProtocolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct FrameHeader {
  FrameType type;
  uint32_t length;
};
inline constexpr size_t kHeaderBytes = 5;

std::string encodeFrame(FrameType type, std::string_view payload);
FrameHeader decodeHeader(std::string_view bytes);  // of kHeaderBytes; throws ProtocolError

std::string encodeLimits(const Limits& limits);
Limits decodeLimits(std::string_view payload);

struct PartHeader {
  Part part;  // content is empty
  uint64_t content_bytes = 0;
};
std::string encodePart(const Part& part);
PartHeader decodePart(std::string_view payload, const Limits& limits);

// Of the extractor, which may wait for ever. False, or an error thrown, when the command
// is gone.
bool receiveFrame(int socket, FrameHeader* header, std::string* payload, Descriptor* passed);
void sendFrame(int socket, FrameType type, std::string_view payload);

// One frame with a descriptor. False when nobody listens any more.
bool sendDocument(int socket, std::string_view name, int file);

}  // namespace tool

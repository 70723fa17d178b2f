// The types, sizes and numbers of the public header as the first version has them, on
// each platform; libabigail cannot look into a DLL, nor does a library hold the numbers
// of an unnamed enum. All of it is checked when this compiles.
//
// A failure here means that programs built before must be built anew: do not edit a
// line that stands here within a major version.
#include <cstddef>
#include <type_traits>

#include "tessera.h"

namespace {

template <typename Expected, typename Function>
constexpr bool is(Function*) {
  return std::is_same_v<Expected, Function>;
}

using Lists = unsigned char (**)[8];
using List = unsigned char (*)[8];

static_assert(is<int(int)>(InitSignatureGenerator));
static_assert(is<int(char*, int, Lists, int*)>(GenerateSignature4Text));
static_assert(is<int(char*, int, Lists, int*)>(GenerateSignature4Binary));
static_assert(is<int(int)>(SetMaxContentSize));
static_assert(is<int(List)>(FreeSignature));
static_assert(is<int()>(ExitSignatureGenerator));
static_assert(is<int()>(InitIndexSystem));
static_assert(is<int(int64_t, List, int)>(AddDocSignature));
static_assert(is<int(int64_t*, int)>(DelDocSignature));
static_assert(is<int()>(ExitIndexSystem));
static_assert(is<int(unsigned int)>(setMaxStblSize));
static_assert(is<int()>(InitMatchSystem));
static_assert(is<int(List, int, int, _DLPSigMatchRet**, int*)>(MatchSignature));
static_assert(is<int(_DLPSigMatchRet*)>(FreeSigMatchRet));
static_assert(is<int()>(ExitMatchSystem));

static_assert(std::is_same_v<decltype(_DLPSigMatchRet::fileID), int64_t>);
static_assert(std::is_same_v<decltype(_DLPSigMatchRet::match_level), int32_t>);
static_assert(offsetof(_DLPSigMatchRet, fileID) == 0);
static_assert(offsetof(_DLPSigMatchRet, match_level) == 8);
static_assert(sizeof(_DLPSigMatchRet) == 16 && alignof(_DLPSigMatchRet) == 8);

static_assert(TESSERA_SERVER == 1 && TESSERA_CLIENT == 2);

}  // namespace

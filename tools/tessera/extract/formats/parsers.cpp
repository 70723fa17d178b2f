#include "extract/formats/parsers.h"

#include <algorithm>
#include <iterator>

#include "extract/formats/archive.h"

namespace tool {

namespace {

using enum Format::Kind;

constexpr Format kFormats[] = {
    {"application/gzip", kContainer, parseTarOrCompressed},
    {"application/x-7z-compressed", kContainer, parseSevenZip},
    {"application/x-bzip2", kContainer, parseTarOrCompressed},
    {"application/x-compress", kContainer, parseTarOrCompressed},
    {"application/x-lzip", kContainer, parseTarOrCompressed},
    {"application/x-lzma", kContainer, parseTarOrCompressed},
    {"application/x-tar", kContainer, parseTarOrCompressed},
    {"application/x-xz", kContainer, parseTarOrCompressed},
    {"application/zip", kContainer, parseZip},
    {"application/zstd", kContainer, parseTarOrCompressed},

    {"application/vnd.ms-cab-compressed", kUnsupported, nullptr},
    {"application/vnd.ms-outlook", kUnsupported, nullptr},
    {"application/x-arj", kUnsupported, nullptr},
    {"application/x-cpio", kUnsupported, nullptr},
    {"application/x-iso9660-image", kUnsupported, nullptr},
    {"application/x-lz4", kUnsupported, nullptr},
    {"application/x-lzh-compressed", kUnsupported, nullptr},
    {"application/x-rar", kUnsupported, nullptr},
};

}  // namespace

const Format* formatOf(std::string_view type) {
  const auto* found = std::find_if(std::begin(kFormats), std::end(kFormats),
                                   [type](const Format& format) { return format.type == type; });
  return found == std::end(kFormats) ? nullptr : found;
}

}  // namespace tool

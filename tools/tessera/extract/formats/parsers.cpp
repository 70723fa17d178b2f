#include "extract/formats/parsers.h"

#include <algorithm>
#include <iterator>

#include "extract/formats/archive.h"
#include "extract/formats/epub.h"
#include "extract/formats/html.h"
#include "extract/formats/mail.h"
#include "extract/formats/odf.h"
#include "extract/formats/old_office.h"
#include "extract/formats/ooxml.h"
#include "extract/formats/pdf.h"
#include "extract/formats/rtf.h"
#include "extract/formats/xml.h"

namespace tool {

namespace {

using enum Format::Kind;

void refuseEncrypted(std::string_view, Document&) { throw NotInspected(Reason::kEncrypted, ""); }

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

    {"application/mbox", kContainer, parseMbox},
    {"message/news", kDocument, parseMail},
    {"message/rfc822", kDocument, parseMail},

    {"image/svg+xml", kMarkup, parseXml},
    {"text/html", kMarkup, parseHtml},
    {"text/xml", kMarkup, parseXml},

    {"application/epub+zip", kDocument, parseEpub},
    {"application/pdf", kDocument, parsePdf},
    {"application/rtf", kDocument, parseRtf},

    {"application/msword", kDocument, parseOldOffice},
    {"application/vnd.ms-excel", kDocument, parseOldOffice},
    {"application/vnd.ms-powerpoint", kDocument, parseOldOffice},
    {"application/x-encrypted-office", kDocument, parseOldOffice},
    {"application/x-ole-storage", kDocument, parseOldOffice},

    {"application/vnd.openxmlformats-officedocument.presentationml.presentation", kDocument,
     parseOoxml},
    {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", kDocument, parseOoxml},
    {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", kDocument,
     parseOoxml},

    {"application/vnd.oasis.opendocument.chart", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.formula", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.graphics", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.graphics-template", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.presentation", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.presentation-template", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.spreadsheet", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.spreadsheet-template", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.text", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.text-master", kDocument, parseOdf},
    {"application/vnd.oasis.opendocument.text-template", kDocument, parseOdf},

    {"application/pgp-encrypted", kDocument, refuseEncrypted},

    {"application/vnd.debian.binary-package", kUnsupported, nullptr},
    {"application/vnd.ms-cab-compressed", kUnsupported, nullptr},
    {"application/vnd.ms-outlook", kUnsupported, nullptr},
    {"application/vnd.ms-tnef", kUnsupported, nullptr},
    {"application/x-ace-compressed", kUnsupported, nullptr},
    {"application/x-archive", kUnsupported, nullptr},
    {"application/x-arj", kUnsupported, nullptr},
    {"application/x-cpio", kUnsupported, nullptr},
    {"application/x-iso9660-image", kUnsupported, nullptr},
    {"application/x-lz4", kUnsupported, nullptr},
    {"application/x-lzh-compressed", kUnsupported, nullptr},
    {"application/x-msaccess", kUnsupported, nullptr},
    {"application/x-rar", kUnsupported, nullptr},
    {"application/x-rpm", kUnsupported, nullptr},
    {"application/x-snappy-framed", kUnsupported, nullptr},
    {"application/x-stuffit", kUnsupported, nullptr},
    {"application/x-xar", kUnsupported, nullptr},
    {"application/x-zoo", kUnsupported, nullptr},
    {"application/zlib", kUnsupported, nullptr},
};

}  // namespace

const Format* formatOf(std::string_view type) {
  const auto* found = std::find_if(std::begin(kFormats), std::end(kFormats),
                                   [type](const Format& format) { return format.type == type; });
  return found == std::end(kFormats) ? nullptr : found;
}

}  // namespace tool

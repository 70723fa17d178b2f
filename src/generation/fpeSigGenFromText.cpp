#define LOG_TAG "null"

#include "fpeSigGenFromText.h"

#include <algorithm>
#include <utility>

#include "fpeSigGenTable.h"
#include "fpeSignatureGenerator.h"
#include "log.h"
#include "rolling_hash.h"
#include "status.h"
#include "text_signatures.h"

namespace {

constexpr uint32_t kPieceWindows = 5000;  // selected windows kept of one server piece

// ---- Range scan: one body for both families ----

struct KarpRabin {
  static uint64_t start(const unsigned char* window) { return karpRabinStart(window); }
  static uint64_t roll(uint64_t hash, unsigned char out, unsigned char in) {
    return calcNextHashValueByIteration(hash, out, in, DLP_BASE);
  }
};

struct Adler {
  static uint64_t start(const unsigned char* window) { return adlerStart(window); }
  static uint64_t roll(uint64_t hash, unsigned char out, unsigned char in) {
    return adlerRoll(hash, out, in);
  }
};

bool isComplete(const ScanOutput& out) {
  return out.hvs != nullptr && out.sigs != nullptr && out.capacity != 0 && out.count != nullptr;
}

// The last byte of the window that starts at `window`.
unsigned char lastByte(const unsigned char* window) { return window[DLP_SLIDE_WINDOW - 1]; }

// Scans the windows of a range that is not empty, the first of which has the
// hash `hash`. Returns the number of windows stored.
template <typename Family>
uint32_t scanWindows(const unsigned char* start, const unsigned char* end, uint64_t hash,
                     const ScanOutput& out) {
  uint32_t stored = 0;
  const unsigned char* window = start;
  while (true) {
    if (hash % DLP_PRIME == 0 && stored < out.capacity) {
      fold(window, window + DLP_SLIDE_WINDOW, &out.sigs[stored]);
      out.hvs[stored] = hash;
      ++stored;
    }
    if (++window == end) break;
    hash = Family::roll(hash, window[-1], lastByte(window));
  }
  *out.count = stored;
  if (out.last_hash != nullptr) *out.last_hash = hash;
  if (out.last_byte != nullptr) *out.last_byte = end[-1];
  return stored;
}

// A good prime selects some windows of a range, but never as many as fit.
bool suggestsUnsuitablePrime(uint32_t stored, const ScanOutput& out) {
  return stored == 0 || stored == out.capacity;
}

// ---- Selection ----

// Evenly spread positions below `count`, at most `wanted` of them, in ascending
// order. Returns how many.
uint32_t pickPositions(uint32_t count, uint32_t wanted, uint32_t* positions) {
  if (count <= wanted) {
    for (uint32_t k = 0; k < count; ++k) positions[k] = k;
    return count;
  }
  for (uint32_t k = 0; k < wanted; ++k) positions[k] = (k + 1) * count / (wanted + 1);
  return wanted;
}

// Sorts the list, drops repetitions and hands it out. No list is handed out for
// no signatures.
void handOut(MallocArray<Signature> list, uint32_t length, Signature** signatures, int* count) {
  if (length == 0) return;
  Signature* const begin = list.get();
  std::sort(begin, begin + length);
  *count = static_cast<int>(std::unique(begin, begin + length) - begin);
  *signatures = list.release();
}

}  // namespace

int normalizeText(const unsigned char* text, int length, MallocArray<unsigned char>* normalized,
                  int* normalized_length) {
  const int limit = std::max(maxContentSize(), 0);
  MallocArray<unsigned char> copy =
      mallocArray<unsigned char>(static_cast<size_t>(std::min(length, limit)) + 1);
  if (!copy) {
    LOG_ERROR("no mem for text2");
    return kErrMem;
  }
  // Every byte is written and only those that stay move the end on: no branch
  // to mispredict, nor one at the limit, since a run is no longer than what there
  // is room for.
  int kept = 0;
  for (int i = 0; i < length && kept < limit;) {
    const int run_end = i + std::min(length - i, limit - kept);
    for (; i < run_end; ++i) {
      copy[kept] = text[i];
      kept += text_signaturer.character_filter[text[i]];
    }
  }
  copy[kept] = 0;
  *normalized = std::move(copy);
  *normalized_length = kept;
  return kOk;
}

int getHashValues_KR(const unsigned char* start, const unsigned char* end, const ScanOutput& out) {
  if (start >= end) return kOk;
  if (!isComplete(out)) return kErrParam;
  const uint32_t stored = scanWindows<KarpRabin>(start, end, KarpRabin::start(start), out);
  if (suggestsUnsuitablePrime(stored, out)) {
    LOG_INFO("oh shit, we get a unsuitable prime, j = %d", static_cast<int>(stored));
  }
  return kOk;
}

int getHashValuesNoHorner_KR(const unsigned char* start, const unsigned char* end,
                             uint64_t last_hash, unsigned char last_byte, const ScanOutput& out) {
  if (start >= end) return kOk;
  if (!isComplete(out)) return kErrParam;
  const uint64_t first = KarpRabin::roll(last_hash, last_byte, lastByte(start));
  const uint32_t stored = scanWindows<KarpRabin>(start, end, first, out);
  if (suggestsUnsuitablePrime(stored, out)) {
    LOG_INFO("oh shit, we get a unsuitable prime, j = %d", static_cast<int>(stored));
  }
  return kOk;
}

int getHashValues_Adler(const unsigned char* start, const unsigned char* end,
                        const ScanOutput& out) {
  if (start >= end) return kOk;
  if (!isComplete(out)) return kErrParam;
  const uint32_t stored = scanWindows<Adler>(start, end, Adler::start(start), out);
  if (suggestsUnsuitablePrime(stored, out)) {
    LOG_INFO("oh shit, we get a unsuitable prime, j = %d", static_cast<int>(stored));
  }
  return kOk;
}

int getHashValuesNoHorner_Adler(const unsigned char* start, const unsigned char* end,
                                uint64_t last_hash, unsigned char last_byte,
                                const ScanOutput& out) {
  if (start >= end) return kOk;
  if (!isComplete(out)) return kErrParam;
  const uint64_t first = Adler::roll(last_hash, last_byte, lastByte(start));
  const uint32_t stored = scanWindows<Adler>(start, end, first, out);
  if (suggestsUnsuitablePrime(stored, out)) {
    LOG_INFO("oh shit, we get a unsuitable prime, j = %d", static_cast<int>(stored));
  }
  return kOk;
}

int getSignatureClient(const unsigned char* text, int length, Signature** signatures, int* count,
                       int* normalized_length, RangeScanner scan) {
  if (signatures == nullptr || count == nullptr) {
    LOG_INFO("signature or size is null");
    return kErrParam;
  }
  *signatures = nullptr;
  *count = 0;
  if (length < DLP_SLIDE_WINDOW) {
    LOG_INFO("file too short (%d)", length);
    return kOk;
  }
  MallocArray<unsigned char> normalized;
  int kept = 0;
  int status = normalizeText(text, length, &normalized, &kept);
  if (status != kOk) {
    LOG_ERROR("normlizeText error");
    return status;
  }
  if (normalized_length != nullptr) *normalized_length = kept;
  if (kept < DLP_SLIDE_WINDOW) {
    LOG_INFO("normalized file too short (%d)", kept);
    return kOk;
  }

  const auto hvs = mallocArray<uint64_t>(kClientWindows);
  if (!hvs) {
    LOG_INFO("no mem for hvs");
    return kErrMem;
  }
  const auto sigs = mallocArray<Signature>(kClientWindows);
  if (!sigs) {
    LOG_INFO("no mem for sigs");
    return kErrMem;
  }
  uint32_t selected = 0;
  const unsigned char* const begin = normalized.get();
  status = scan(begin, begin + kept - (DLP_SLIDE_WINDOW - 1),
                {.hvs = hvs.get(),
                 .sigs = sigs.get(),
                 .capacity = kClientWindows,
                 .count = &selected,
                 .last_hash = nullptr,
                 .last_byte = nullptr});
  if (status != kOk) {
    LOG_INFO("get hashvalues error");
    return status;
  }

  MallocArray<Signature> list = mallocArray<Signature>(selected);
  if (!list) {
    LOG_ERROR("no mem for signature (sig_num: %d)", static_cast<int>(selected));
    return kErrMem;
  }
  std::copy_n(sigs.get(), selected, list.get());
  handOut(std::move(list), selected, signatures, count);
  return kOk;
}

int getSignatureServer(const unsigned char* text, int length, Signature** signatures, int* count,
                       int* normalized_length, RangeScanner scan, ContinuingRangeScanner scan_on) {
  if (signatures == nullptr || count == nullptr) {
    LOG_INFO("signature or size is null");
    return kErrParam;
  }
  *signatures = nullptr;
  *count = 0;
  if (length < DLP_SLIDE_WINDOW) {
    LOG_INFO("file too short (%d)", length);
    return kOk;
  }
  MallocArray<unsigned char> normalized;
  int kept = 0;
  int status = normalizeText(text, length, &normalized, &kept);
  if (status != kOk) {
    LOG_INFO("normalizeText error");
    return status;
  }
  if (normalized_length != nullptr) *normalized_length = kept;
  if (kept < DLP_SLIDE_WINDOW) {
    LOG_INFO("normalized file too short (%d)", kept);
    return kOk;
  }

  const uint32_t text_length = static_cast<uint32_t>(kept);
  const uint32_t pieces = text_length / DLP_PIECE_SIZE + 1;
  const uint32_t picks = pieces < DLP_PIECE_NUMBER ? DLP_PIECE_NUMBER / pieces : 1;
  const auto hvs = mallocArray<uint64_t>(size_t{pieces} * picks);
  if (!hvs) {
    LOG_INFO("no memory for hvs");
    return kErrMem;
  }
  const auto sigs = mallocArray<Signature>(size_t{pieces} * picks);
  if (!sigs) {
    LOG_INFO("no memory for sigs");
    return kErrMem;
  }
  const auto piece_hvs = mallocArray<uint64_t>(kPieceWindows);
  if (!piece_hvs) {
    LOG_INFO("no memory for piece_hvs");
    return kErrMem;
  }
  const auto piece_sigs = mallocArray<Signature>(kPieceWindows);
  if (!piece_sigs) {
    LOG_INFO("no memory for piece_sigs");
    return kErrMem;
  }
  const auto per_piece_pick_idx = mallocArray<uint32_t>(picks);
  if (!per_piece_pick_idx) {
    LOG_INFO("no memory for per_piece_pick_idx");
    return kErrMem;
  }

  // These three stay as they are when the last piece has no window of its own:
  // the piece before it is then picked from once more, which adds nothing that
  // survives the removal of repetitions.
  uint32_t piece_count = 0;
  uint64_t last_hash = 0;
  unsigned char last_byte = 0;
  const ScanOutput piece = {.hvs = piece_hvs.get(),
                            .sigs = piece_sigs.get(),
                            .capacity = kPieceWindows,
                            .count = &piece_count,
                            .last_hash = &last_hash,
                            .last_byte = &last_byte};
  const unsigned char* const begin = normalized.get();
  const uint32_t windows = text_length - (DLP_SLIDE_WINDOW - 1);
  uint32_t picked = 0;
  for (uint32_t i = 0; i < pieces; ++i) {
    const uint32_t start = i * DLP_PIECE_SIZE;
    const uint32_t end = std::min(start + DLP_PIECE_SIZE, windows);
    if (i == 0) {
      status = scan(begin, begin + end, piece);
      if (status != kOk) {
        LOG_ERROR("getHashValues error");
        return status;
      }
    } else {
      status = scan_on(begin + start, begin + end, last_hash, last_byte, piece);
      if (status != kOk) {
        LOG_ERROR("getHashValuesNoHorner error");
        return status;
      }
    }
    const uint32_t taken = pickPositions(piece_count, picks, per_piece_pick_idx.get());
    for (uint32_t k = 0; k < taken; ++k, ++picked) {
      sigs[picked] = piece_sigs[per_piece_pick_idx[k]];
      hvs[picked] = piece_hvs[per_piece_pick_idx[k]];
    }
  }

  MallocArray<Signature> list = mallocArray<Signature>(picked);
  if (!list) {
    LOG_ERROR("no mem for signature (sig_num: %d)", static_cast<int>(picked));
    return kErrMem;
  }
  std::copy_n(sigs.get(), picked, list.get());
  handOut(std::move(list), picked, signatures, count);
  return kOk;
}

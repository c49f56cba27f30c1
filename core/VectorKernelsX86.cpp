// Implements the kernels with SSE4.1 and with AVX2. The compiler uses these instructions only in the
// functions marked with them, so the rest of the program runs on every x86-64 processor.
#include "core/VectorInstructions.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <array>
#include <bit>
#include <cstdint>

#include "core/Base64Nibbles.h"

#define PALAVER_SSE __attribute__((target("sse4.1")))
#define PALAVER_AVX2 __attribute__((target("avx2")))

namespace palaver {

namespace {

// Multipliers that join four values of 6 bits: pairs into 12 bits each, then two pairs into 24.
constexpr short joinPairs = 0x0140;
constexpr int joinGroups = 0x00011000;

// By the low half of a byte, the mark that ends a text and has this low half. The other entries are 0, which
// ends a text too. A look-up with a byte beyond ASCII yields 0.
alignas(16) constexpr std::array<std::uint8_t, 16> marksByLowHalf = [] {
  std::array<std::uint8_t, 16> made{};
  made['"' & 0xF] = '"';
  made['\\' & 0xF] = '\\';
  return made;
}();

// ---- SSE4.1: 16 bytes at a time

PALAVER_SSE __m128i load(const void* bytes) {
  return _mm_loadu_si128(static_cast<const __m128i*>(bytes));
}

// Sets all bits of the bytes that end plain text. The comparison is signed: bytes beyond ASCII are negative.
PALAVER_SSE __m128i textEnds(__m128i text) {
  const __m128i marks = _mm_cmpeq_epi8(text, _mm_shuffle_epi8(load(marksByLowHalf.data()), text));
  return _mm_or_si128(marks, _mm_cmpgt_epi8(_mm_set1_epi8(0x20), text));
}

PALAVER_SSE const char* findTextEndSSE(const char* at, const char* end) {
  for (; at < end; at += 16) {
    const auto ends = static_cast<unsigned>(_mm_movemask_epi8(textEnds(load(at))));
    if (ends == 0) continue;
    at += std::countr_zero(ends);
    break;
  }
  return at < end ? at : end;
}

PALAVER_SSE bool decodeBase64GroupsSSE(const char* text, std::size_t groups, std::uint8_t* bytes) {
  const __m128i validHighs = load(base64Nibbles.validHighs.data());
  const __m128i bitOfHigh = load(base64Nibbles.bitOfHigh.data());
  const __m128i offsets = load(base64Nibbles.offsets.data());
  const __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  __m128i leastShared = _mm_set1_epi8(-1);  // of each byte; 0 once a character was outside the alphabet
  // Each round writes 16 bytes, of which 12 count, so it needs the room of 6 groups.
  for (; groups >= 6; groups -= 4, text += 16, bytes += 12) {
    const __m128i characters = load(text);
    const __m128i highs = _mm_and_si128(_mm_srli_epi32(characters, 4), _mm_set1_epi8(0xF));
    // A look-up uses the low half of a character, and yields 0 for characters beyond ASCII.
    const __m128i shared =
        _mm_and_si128(_mm_shuffle_epi8(validHighs, characters), _mm_shuffle_epi8(bitOfHigh, highs));
    leastShared = _mm_min_epu8(leastShared, shared);
    const __m128i slash = _mm_cmpeq_epi8(characters, _mm_set1_epi8('/'));  // -1 for a slash
    const __m128i values = _mm_add_epi8(characters, _mm_shuffle_epi8(offsets, _mm_add_epi8(highs, slash)));
    const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi16(joinPairs));
    const __m128i joined = _mm_madd_epi16(pairs, _mm_set1_epi32(joinGroups));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes), _mm_shuffle_epi8(joined, order));
  }
  const __m128i outside = _mm_cmpeq_epi8(leastShared, _mm_setzero_si128());
  return plainKernels.decodeBase64Groups(text, groups, bytes) && _mm_testz_si128(outside, outside);
}

PALAVER_SSE std::uint64_t sumOfSquaresSSE(const std::int16_t* samples, std::size_t count) {
  const __m128i zero = _mm_setzero_si128();
  __m128i sums = zero;
  for (; count >= 8; count -= 8, samples += 8) {
    const __m128i some = load(samples);
    const __m128i squares = _mm_madd_epi16(some, some);  // pairs, at most 2³¹ unsigned
    sums = _mm_add_epi64(sums,
                         _mm_add_epi64(_mm_unpacklo_epi32(squares, zero), _mm_unpackhi_epi32(squares, zero)));
  }
  alignas(16) std::uint64_t parts[2];
  _mm_store_si128(reinterpret_cast<__m128i*>(parts), sums);
  return parts[0] + parts[1] + plainKernels.sumOfSquares(samples, count);
}

// ---- AVX2: 32 bytes at a time

PALAVER_AVX2 __m256i loadWide(const void* bytes) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(bytes));
}

PALAVER_AVX2 __m256i loadTwice(const void* bytes) {
  return _mm256_broadcastsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(bytes)));
}

PALAVER_AVX2 __m256i quotesAndBackslashes(__m256i text) {
  return _mm256_cmpeq_epi8(text, _mm256_shuffle_epi8(loadTwice(marksByLowHalf.data()), text));
}

PALAVER_AVX2 const char* findTextEndAVX2(const char* at, const char* end) {
  const __m256i space = _mm256_set1_epi8(0x20);
  while (at < end) {
    const __m256i some = loadWide(at);
    const __m256i found = _mm256_or_si256(quotesAndBackslashes(some), _mm256_cmpgt_epi8(space, some));
    const auto ends = static_cast<unsigned>(_mm256_movemask_epi8(found));
    if (ends != 0) {
      at += std::countr_zero(ends);
      break;
    }
    at += 32;
    // Long text takes one test for 128 bytes: the lowest byte of each column shows whether any is below a
    // space.
    for (; end - at >= 128; at += 128) {
      const __m256i a = loadWide(at), b = loadWide(at + 32), c = loadWide(at + 64), d = loadWide(at + 96);
      const __m256i marks =
          _mm256_or_si256(_mm256_or_si256(quotesAndBackslashes(a), quotesAndBackslashes(b)),
                          _mm256_or_si256(quotesAndBackslashes(c), quotesAndBackslashes(d)));
      const __m256i lowest = _mm256_min_epi8(_mm256_min_epi8(a, b), _mm256_min_epi8(c, d));
      const __m256i any = _mm256_or_si256(marks, _mm256_cmpgt_epi8(space, lowest));
      if (!_mm256_testz_si256(any, any)) break;
    }
  }
  return at < end ? at : end;
}

PALAVER_AVX2 bool decodeBase64GroupsAVX2(const char* text, std::size_t groups, std::uint8_t* bytes) {
  const __m256i validHighs = loadTwice(base64Nibbles.validHighs.data());
  const __m256i bitOfHigh = loadTwice(base64Nibbles.bitOfHigh.data());
  const __m256i offsets = loadTwice(base64Nibbles.offsets.data());
  const __m256i order =
      _mm256_broadcastsi128_si256(_mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
  const __m256i closeGap = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  __m256i leastShared = _mm256_set1_epi8(-1);  // of each byte; 0 once a character was outside the alphabet
  // Each round writes 32 bytes, of which 24 count, so it needs the room of 11 groups.
  for (; groups >= 11; groups -= 8, text += 32, bytes += 24) {
    const __m256i characters = loadWide(text);
    const __m256i highs = _mm256_and_si256(_mm256_srli_epi32(characters, 4), _mm256_set1_epi8(0xF));
    const __m256i shared =
        _mm256_and_si256(_mm256_shuffle_epi8(validHighs, characters), _mm256_shuffle_epi8(bitOfHigh, highs));
    leastShared = _mm256_min_epu8(leastShared, shared);
    const __m256i slash = _mm256_cmpeq_epi8(characters, _mm256_set1_epi8('/'));  // -1 for a slash
    const __m256i values =
        _mm256_add_epi8(characters, _mm256_shuffle_epi8(offsets, _mm256_add_epi8(highs, slash)));
    const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi16(joinPairs));
    const __m256i joined = _mm256_madd_epi16(pairs, _mm256_set1_epi32(joinGroups));
    const __m256i packed = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(joined, order), closeGap);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(bytes), packed);
  }
  const __m256i outside = _mm256_cmpeq_epi8(leastShared, _mm256_setzero_si256());
  return decodeBase64GroupsSSE(text, groups, bytes) && _mm256_testz_si256(outside, outside);
}

PALAVER_AVX2 std::uint64_t sumOfSquaresAVX2(const std::int16_t* samples, std::size_t count) {
  const __m256i zero = _mm256_setzero_si256();
  __m256i sums = zero;
  for (; count >= 16; count -= 16, samples += 16) {
    const __m256i some = loadWide(samples);
    const __m256i squares = _mm256_madd_epi16(some, some);  // pairs, at most 2³¹ unsigned
    sums = _mm256_add_epi64(
        sums, _mm256_add_epi64(_mm256_unpacklo_epi32(squares, zero), _mm256_unpackhi_epi32(squares, zero)));
  }
  alignas(32) std::uint64_t parts[4];
  _mm256_store_si256(reinterpret_cast<__m256i*>(parts), sums);
  return parts[0] + parts[1] + parts[2] + parts[3] + plainKernels.sumOfSquares(samples, count);
}

const VectorKernels sse41Kernels{"sse4.1", findTextEndSSE, decodeBase64GroupsSSE, sumOfSquaresSSE};
const VectorKernels avx2Kernels{"avx2", findTextEndAVX2, decodeBase64GroupsAVX2, sumOfSquaresAVX2};

}  // namespace

void addVectorInstructionKernels(std::vector<const VectorKernels*>& found) {
  if (__builtin_cpu_supports("sse4.1")) found.push_back(&sse41Kernels);
  if (__builtin_cpu_supports("avx2")) found.push_back(&avx2Kernels);
}

}  // namespace palaver

#endif

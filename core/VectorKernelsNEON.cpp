// Implements the kernels with NEON, which every 64-bit ARM processor has.
#include "core/VectorInstructions.h"

#if defined(__aarch64__)

#include <arm_neon.h>

#include <bit>

#include "core/Base64Nibbles.h"

namespace palaver {

namespace {

const std::uint8_t* unsignedBytes(const char* text) {
  return reinterpret_cast<const std::uint8_t*>(text);
}

// Sets all bits of the bytes that end plain text. The comparison is signed: bytes beyond ASCII are negative.
uint8x16_t textEnds(uint8x16_t text) {
  const uint8x16_t marks = vorrq_u8(vceqq_u8(text, vdupq_n_u8('"')), vceqq_u8(text, vdupq_n_u8('\\')));
  return vorrq_u8(marks, vcltq_s8(vreinterpretq_s8_u8(text), vdupq_n_s8(0x20)));
}

const char* findTextEndNEON(const char* at, const char* end) {
  while (at < end) {
    const uint8x16_t ends = textEnds(vld1q_u8(unsignedBytes(at)));
    // Narrows each byte of the mask to four bits.
    const std::uint64_t mask =
        vget_lane_u64(vreinterpret_u64_u8(vshrn_n_u16(vreinterpretq_u16_u8(ends), 4)), 0);
    if (mask != 0) {
      at += std::countr_zero(mask) / 4;
      break;
    }
    at += 16;
    // Long text: one test for 64 bytes.
    for (; end - at >= 64; at += 64) {
      const uint8x16x4_t text = vld1q_u8_x4(unsignedBytes(at));
      const uint8x16_t any = vorrq_u8(vorrq_u8(textEnds(text.val[0]), textEnds(text.val[1])),
                                      vorrq_u8(textEnds(text.val[2]), textEnds(text.val[3])));
      if (vmaxvq_u8(any) != 0) break;
    }
  }
  return at < end ? at : end;
}

// Returns the values of 16 characters. Clears the bytes of `leastShared` where a character is outside the
// alphabet.
uint8x16_t base64Values(uint8x16_t characters, uint8x16_t& leastShared) {
  const uint8x16_t highs = vshrq_n_u8(characters, 4);
  const uint8x16_t lows = vandq_u8(characters, vdupq_n_u8(0xF));
  const uint8x16_t validHighs = vqtbl1q_u8(vld1q_u8(base64Nibbles.validHighs.data()), lows);
  const uint8x16_t bitOfHigh = vqtbl1q_u8(vld1q_u8(base64Nibbles.bitOfHigh.data()), highs);
  leastShared = vminq_u8(leastShared, vandq_u8(validHighs, bitOfHigh));
  const uint8x16_t slash = vceqq_u8(characters, vdupq_n_u8('/'));  // -1 for a slash
  return vaddq_u8(characters, vqtbl1q_u8(vld1q_u8(base64Nibbles.offsets.data()), vaddq_u8(highs, slash)));
}

bool decodeBase64GroupsNEON(const char* text, std::size_t groups, std::uint8_t* bytes) {
  uint8x16_t leastShared = vdupq_n_u8(0xFF);
  // The loads put the first characters of 16 groups into one vector, the second ones into the next, and so
  // on.
  for (; groups >= 16; groups -= 16, text += 64, bytes += 48) {
    const uint8x16x4_t characters = vld4q_u8(unsignedBytes(text));
    const uint8x16_t a = base64Values(characters.val[0], leastShared);
    const uint8x16_t b = base64Values(characters.val[1], leastShared);
    const uint8x16_t c = base64Values(characters.val[2], leastShared);
    const uint8x16_t d = base64Values(characters.val[3], leastShared);
    uint8x16x3_t decoded;
    decoded.val[0] = vorrq_u8(vshlq_n_u8(a, 2), vshrq_n_u8(b, 4));
    decoded.val[1] = vorrq_u8(vshlq_n_u8(b, 4), vshrq_n_u8(c, 2));
    decoded.val[2] = vorrq_u8(vshlq_n_u8(c, 6), d);
    vst3q_u8(bytes, decoded);
  }
  return plainKernels.decodeBase64Groups(text, groups, bytes) && vminvq_u8(leastShared) != 0;
}

std::uint64_t sumOfSquaresNEON(const std::int16_t* samples, std::size_t count) {
  uint64x2_t low = vdupq_n_u64(0), high = low;
  for (; count >= 8; count -= 8, samples += 8) {
    const int16x8_t some = vld1q_s16(samples);
    low = vpadalq_u32(low, vreinterpretq_u32_s32(vmull_s16(vget_low_s16(some), vget_low_s16(some))));
    high = vpadalq_u32(high, vreinterpretq_u32_s32(vmull_high_s16(some, some)));
  }
  return vaddvq_u64(vaddq_u64(low, high)) + plainKernels.sumOfSquares(samples, count);
}

const VectorKernels neonKernels{"neon", findTextEndNEON, decodeBase64GroupsNEON, sumOfSquaresNEON};

}  // namespace

void addVectorInstructionKernels(std::vector<const VectorKernels*>& found) {
  found.push_back(&neonKernels);
}

}  // namespace palaver

#endif
